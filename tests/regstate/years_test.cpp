// Ten years of a camera's life in a world that changes at random moments, on a clock that only waits and calls move on,
// beside a small model of what must hold. KESTREL_SEED begins another life.
#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <random>
#include <set>

#include "core/debug_log.h"
#include "core/text.h"
#include "core/wait.h"
#include "regstate/regstate_fakes.h"
#include "regstate/state_init.h"
#include "regstate/state_table.h"
#include "service/requests.h"

namespace kestrel {

int DbgLevel = 0;
int debug_log(const char*, ...) {
  return 0;
}
void print_error(const char*) {}
void print_console(const char*, ...) {}

namespace {

constexpr std::uint64_t day_s = 86'400;
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr std::uint64_t long_s = 700 * day_s;  // as long as the whole takes without
#else
constexpr std::uint64_t long_s = 3653 * day_s;
#endif
constexpr std::uint64_t back_s = 1500;  // the longest wait, a hold, and two cycles on a router that never answers
enum Topology { public_address, one_nat, two_nats, silent_about_itself, topologies };

/// The world, and what the service was told of the camera.
struct World {
  bool service = true, router = true, takes_mappings = true;
  int topology = one_nat, numbers = 1;  // for fresh addresses
  std::string outside = "203.0.113.1", lan = "192.168.1.1";
  std::uint64_t changed_s = 0, next_change_s = day_s, next_signal_s = day_s;
  bool online = false, attempted = false, challenged = false;
  int told_switch = -1;
  DeviceContext told{};
  std::set<int> left;  // ports of mappings that could not be deleted when they should
};
World world;
std::minstd_rand dice;

std::uint64_t some_time(double mean_s) {
  return 1 + static_cast<std::uint64_t>(std::exponential_distribution<>(1 / mean_s)(dice));
}
bool one_of(unsigned n) {
  return dice() % n == 0;
}

/// What the service sees the camera at.
const std::string& seen_at() {
  return world.topology == public_address ? world.lan : world.outside;
}
bool is_reached(const char* ip, const char* port) {
  const auto found = fake.mappings.find(std::atoi(port));
  return ip == world.outside && found != fake.mappings.end() && found->second.here &&
         found->second.internal_port == fake.http_port && world.topology != two_nats &&
         world.topology != public_address;
}
std::set<int> own_mappings() {
  std::set<int> ports;
  for (const auto& [port, mapping] : fake.mappings)
    if (mapping.description.starts_with(current_record.uid)) ports.insert(port);
  return ports;
}

/// The camera gets another place: what the router maps leads to its old one.
void move(int topology) {
  world.topology = topology;
  const std::string number = std::to_string(++world.numbers % 250 + 1);
  world.lan = (topology == public_address ? "198.51.100." : "192.168.1.") + number;
  fake.interfaces = {{"", "00:11:22:0A:0B:0C", "255.255.255.0", "192.168.1.254", "eth0"}};
  copy_text(fake.interfaces[0].ip, world.lan.c_str());
  for (auto& [port, mapping] : fake.mappings) mapping.here = false;
}

void settle_router() {
  const char* const told[] = {"", world.outside.c_str(), "10.0.0.7", ""};
  fake.router_ip = told[world.topology];
  fake.gateway = world.router && world.topology != public_address;
  if (!fake.gateway) world.left.merge(own_mappings());
}

bool is_well() {
  return world.service && world.router && world.takes_mappings && fake.enabled == 1;
}

/// Something breaks or becomes another; what is broken is mostly mended first.
void change() {
  static void (*const changes[])() = {[] { world.service = !world.service; },
                                      [] { world.router = !world.router; },
                                      [] { world.takes_mappings = one_of(2); },
                                      [] { world.outside = "203.0.113." + std::to_string(++world.numbers % 250 + 1); },
                                      [] { move(static_cast<int>(dice() % topologies)); },
                                      [] { fake.http_port = fake.http_port == 80 ? 8080 : 80; },
                                      [] { fake.enabled = one_of(4) ? 0 : 1; },
                                      [] { fake.mappings.clear(); },
                                      [] {
                                        fake.mappings[80] = {"somebody else", 80, false, 0};
                                      }};
  if (!is_well() && !one_of(3)) {
    world.service = world.router = world.takes_mappings = true;
    fake.enabled = 1;
  } else {
    changes[dice() % std::size(changes)]();
  }
  settle_router();
  world.changed_s = fake.clock_s;
  world.next_change_s = fake.clock_s + some_time(is_well() ? 0.3 * day_s : one_of(2) ? 300 : 0.1 * day_s);
}

/// Time passes in a call; the world and the user's signals do not wait for its end.
void pass(std::uint64_t seconds) {
  fake.clock_s += seconds;
  if (fake.clock_s >= world.next_change_s) change();
  if (fake.clock_s < world.next_signal_s) return;
  store_word(one_of(2) ? current_record.dev_reload : current_record.configure, 1U);
  wait_note_signal();
  world.changed_s = fake.clock_s;
  world.next_signal_s = fake.clock_s + (one_of(5) ? some_time(60) : some_time(4.0 * day_s));
}

/// What the service answers: nothing, a challenge, or what is so.
int answer(std::string_view request) {
  world.attempted = world.attempted || request == "update";
  pass(world.service ? 1 : 20);
  if (!world.service) return request == "enable" ? request_failed : request_no_answer;
  DeviceContext& now = current_record;
  world.challenged = now.auth_info.on == 0 || (!world.challenged && one_of(50));
  now.auth_info.on = 1;
  if (world.challenged) return request_challenged;
  if (request == "eip") seen_by_service.port[0] = static_cast<char>('1' + dice() % 9);
  if (request == "eip") copy_text(seen_by_service.ip, seen_at().c_str());
  if (request == "update") world.told = now;
  if (request == "enable") world.told_switch = fake.calls.back().back() - '0';
  return request != "cb" || is_reached(now.ue.ip[0] != '\0' ? now.ue.ip : now.e.ip, now.ue.port) ? request_ok : 404;
}

/// What the update decision compares by the state that reports.
bool differ(const DeviceContext& a, const DeviceContext& b, RegState reporting) {
  const auto other = [](const char* x, const char* y) { return std::strcmp(x, y) != 0; };
  const bool by_router = reporting == NATM || reporting == UpnpPfFailed || reporting == UpnpPfReady;
  return other(a.e.ip, b.e.ip) || other(a.i.ip, b.i.ip) || other(a.i.port, b.i.port) ||
         (by_router && other(a.ue.ip, b.ue.ip)) || (reporting == UpnpPfReady && other(a.ue.port, b.ue.port));
}
bool is_final(RegState state) {
  return state >= LumenDevPartDone && state <= LumenDevNotReady;
}

class Years : public FakeTest {
 protected:
  DeviceContext ended{};   // the last cycle as it ended
  bool has_ended = false;  // since the start or a reload
  std::size_t cycles = 0;
  std::set<std::string> steps;  // from a state to the next

  /// When the world has been as it is for long enough, the service knows it.
  static void check_registered() {
    if (fake.clock_s - world.changed_s < back_s || !world.service) return;
    SCOPED_TRACE(std::string(state_name(load_word(current_record.state))) + ", told by " +
                 state_name(world.told.prefinal_state) + ", topology " + std::to_string(world.topology) +
                 (world.router ? "" : ", no router") + (world.takes_mappings ? "" : ", no mappings"));
    EXPECT_EQ(world.told_switch, fake.enabled);
    EXPECT_EQ(world.online, fake.enabled == 1);
    if (fake.enabled == 0) return;
    EXPECT_EQ(world.told.e.ip, seen_at());
    EXPECT_EQ(world.told.i.port, std::to_string(fake.http_port));
    const bool mapped = world.told.prefinal_state == UpnpPfReady;
    // An address that changes within a cycle, behind its START, is the next cycle's matter: when the mapping, which was
    // made for the new one, stops working.
    EXPECT_TRUE(mapped || world.told.i.ip == world.lan) << world.told.i.ip;
    EXPECT_TRUE(!mapped || is_reached(world.told.ue.ip, world.told.ue.port));
    RegState wanted = mapped ? UpnpPfReady : UpnpPfFailed;  // a mapping of before may still serve
    if (world.topology == public_address) wanted = PublicMode;
    if (world.topology == two_nats) wanted = NATM;
    if (!world.router && world.topology != public_address && !mapped) wanted = NoUPnP;
    if (world.router && world.takes_mappings && wanted == UpnpPfFailed) wanted = UpnpPfReady;
    EXPECT_STREQ(state_name(world.told.prefinal_state), state_name(wanted));
  }

  /// At the end of a cycle: the service was told when something that counts had changed, and only then.
  void check_report() {
    const DeviceContext& now = current_record;
    const RegState by = now.prefinal_state;
    const bool registered_before = ended.state == LumenDevDone || ended.state == LumenDevPartDone;
    const bool news = !has_ended || by != ended.prefinal_state || !registered_before || differ(now, ended, by);
    EXPECT_TRUE(news || !world.attempted) << "told of nothing";
    EXPECT_TRUE(!news || now.upd.resut != update_bypassed) << "not told of " << state_name(by);
    world.attempted = false;
  }

  /// At most one mapping of its own but those that could not be deleted.
  void check_mappings(RegState before) {
    // Whoever is switched off keeps his mapping, and may find another port free later.
    if (before == LumenDevDone && current_record.state == LumenDevNotReady) world.left.merge(own_mappings());
    std::set<int> own = own_mappings();
    std::erase_if(own, [](int port) { return world.left.contains(port); });
    EXPECT_LE(own.size(), 1U);
  }

  void live_until(std::uint64_t end_s) {
    state_init(current_record);
    std::size_t without_time = 0;
    while (fake.clock_s < end_s && !HasFailure()) {
      wait_arm();
      if (load_word(current_record.dev_reload) != 0) {
        world.online = has_ended = world.attempted = false;
        const std::uint64_t changed_s = world.changed_s;
        state_init(current_record);
        EXPECT_TRUE(!fake.gateway || own_mappings().empty() || world.changed_s != changed_s) << "left at a start";
      }
      const RegState state = current_record.state;
      const std::uint64_t before_s = fake.clock_s;
      fake.calls.clear();
      current_record.handlers[state](&current_record);
      steps.insert(std::string(state_name(state)) + " " + state_name(load_word(current_record.state)));
      if (is_final(current_record.state) && !is_final(state)) check_report();
      if (is_final(state) && current_record.state == START) {
        ended = last_record;
        has_ended = true;
        ++cycles;
      }
      check_mappings(state);
      without_time = fake.clock_s == before_s ? without_time + 1 : 0;
      EXPECT_LT(without_time, 12U) << "turns without a wait";
    }
  }
};

TEST_F(Years, TheCameraIsRegisteredAsTheWorldIs) {
  const char* const chosen = std::getenv("KESTREL_SEED");
  const unsigned seed = chosen != nullptr ? static_cast<unsigned>(std::atoi(chosen)) : 1;
  std::printf("seed %u\n", seed);
  dice.seed(seed);
  world = {};
  move(one_nat);
  settle_router();
  fake.on_wait = [&](unsigned seconds) {
    static const std::set<unsigned> named = {1, 3, 5, 10, 60, 120, 230, 300};
    EXPECT_TRUE(named.contains(seconds)) << seconds;
    check_registered();
    if (HasFailure()) store_word(current_record.run, 0U);
    fake.calls.clear();
    pass(dice() % seconds);  // a part of the wait; the fake adds the whole, or half of it when a signal comes
  };
  fake.on_call = [&](const std::string& call) {
    if (call.starts_with("SetSptOnLineStatus ")) world.online = call.back() == '1';
    if (call.starts_with("Mupnp_add_eport "))
      world.left.erase(std::atoi(call.c_str() + call.find(' ', call.find("-1.2-"))));
  };
  fake.decide = [](const char* function) -> std::optional<int> {
    const std::string_view name = function;
    static const std::set<std::string_view> requests = {"eip", "daip", "update", "cb", "enable"};
    if (requests.contains(name)) return answer(name);
    if (!name.starts_with("Mupnp")) return std::nullopt;
    const bool refused = name == "Mupnp_add_eport" && !world.takes_mappings;
    if (world.router && world.topology != public_address && !refused) return std::nullopt;
    pass(8);
    return 501;
  };
  current_record.last = &last_record;
  live_until(long_s);
  std::printf("%.1f years, %zu cycles\n", static_cast<double>(fake.clock_s) / 365.25 / day_s, cycles);
  EXPECT_GT(cycles, 10'000U);
  // scripts/state-diagram draws them.
  for (const std::string& step : steps) RecordProperty(step, 1);
}

}  // namespace
}  // namespace kestrel
