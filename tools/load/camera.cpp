#include "camera.h"

#include <fmt/format.h>

#include <chrono>
#include <string>

namespace load {
namespace {

// The daemon's waits, in seconds: at start-up, before a test from outside, to the next test, after a cycle that ended
// registered without being reached, that was refused, and whose report was not taken.
constexpr double start_up_s = 6, before_test_s = 5, keep_alive_s = 230, not_reached_s = 300, refused_s = 60,
                 not_reported_s = 300;
constexpr int attempts = 3;               // of a request that is challenged or not answered
constexpr int tests = 4;                  // from outside, each of another mapping
constexpr int mapped = 12, no_port = 13;  // what the report says

struct Life {
  const Plan& plan;
  Credentials account;
  double start_s;
  Figures& figures;
  const End& end;
  bool switch_told = false, knows_access_server = false;

  bool wait(double seconds) const { return end.wait_for(seconds / plan.speed); }

  /// The status at last; 0 for no answer.
  int request(const std::string& path, const std::string& xml) {
    for (int i = 0; i < attempts && !end.has_come(); ++i) {
      const Outcome outcome = ask(plan.service, account, path, xml);
      figures.note(steady_s() - start_s, account.hid, path, outcome);
      if (outcome.status != 401 && outcome.status != 0) return outcome.status;
    }
    return 0;
  }

  int connect_back() {
    return request("/connectbk.html",
                   fmt::format("<hid>{}</hid>\n<eip>{}</eip>\n<ueport>{}</ueport>\n<tstamp>012345</tstamp>\n",
                               account.hid, plan.reached.address, plan.reached.port));
  }

  std::string update_xml(int state) const {
    const std::string& address = plan.reached.address;
    return fmt::format(
        "<dev>\n<hid>{0}</hid>\n<mac>02:00:00:00:00:01</mac>\n<ptype>1</ptype>\n<model>LOAD-1</model>\n<ver>1.0</ver>\n"
        "<sptver>1.2</sptver>\n<oif>eth0</oif>\n<mask>255.255.255.0</mask>\n<gw>192.168.1.1</gw>\n<eip>{1}</eip>\n"
        "<ueip>{1}</ueip>\n<iip>192.168.1.50</iip>\n<tch>1</tch>\n<tstamp>012345</tstamp>\n</dev>\n<ch>\n"
        "<chno>1</chno>\n<name>LOAD-1_000001-1.2-{2}</name>\n<prot>T</prot>\n<stype>HTTP</stype>\n<eport>1</eport>\n"
        "<ueport>{2}</ueport>\n<iport>80</iport>\n<st>{3}</st>\n</ch>\n",
        account.hid, address, plan.reached.port, state);
  }

  bool is_reached() {
    for (int i = 0; i < tests; ++i)
      if (wait(before_test_s) && connect_back() == 200) return true;
    return false;
  }

  /// From the switch to the report. The wait until the next cycle; 0 when the camera is registered and reached.
  double cycle() {
    if (!switch_told) {
      switch_told = request("/enable.html", fmt::format("<hid>{}</hid>\n<enable>1</enable>\n", account.hid)) == 200;
      if (!switch_told) return refused_s;
    }
    if (!knows_access_server) knows_access_server = request("/daip.html", "") == 200;
    if (!knows_access_server || request("/ext.html", "") != 200) {
      knows_access_server = false;
      return refused_s;
    }
    const bool reached = is_reached();
    if (end.has_come()) return refused_s;
    if (request("/iupd.html", update_xml(reached ? mapped : no_port)) != 200) return not_reported_s;
    return reached ? 0 : not_reached_s;
  }

  /// While the mapping works: the credentials are forgotten after each test, so that the next one is challenged.
  bool keep_alive() {
    for (;;) {
      account.nonce.clear();
      if (!wait(keep_alive_s)) return false;
      if (connect_back() != 200) return true;
    }
  }
};

}  // namespace

void End::now() {
  const std::lock_guard lock(mutex_);
  has_come_ = true;
  told_.notify_all();
}

bool End::has_come() const {
  const std::lock_guard lock(mutex_);
  return has_come_;
}

bool End::wait_for(double seconds) const {
  std::unique_lock lock(mutex_);
  return !told_.wait_for(lock, std::chrono::duration<double>(seconds), [this] { return has_come_; });
}

double steady_s() {
  return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

void live(const Plan& plan, Credentials account, double start_s, Figures& figures, const End& end,
          std::atomic<Place>& place) {
  Life life{plan, std::move(account), start_s, figures, end};
  bool going_on = life.wait(start_up_s);
  while (going_on) {
    const double wait_s = life.cycle();
    place = wait_s > 0 ? Place::refused : Place::registered;
    if (wait_s > 0) {
      going_on = life.wait(wait_s);
    } else {
      going_on = !plan.once && life.keep_alive();
    }
  }
}

}  // namespace load
