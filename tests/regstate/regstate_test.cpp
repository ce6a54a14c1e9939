// Every state handler with every combination of results that its callees can give: the choices are explored
// exhaustively, and each path must be a row of the transition tables, with all that the path does in its order. A
// row that no path took is an error too.
#include <algorithm>
#include <cstring>
#include <iterator>
#include <regex>

#include "regstate/auth_fail_count.h"
#include "regstate/choices.h"
#include "regstate/regstate_fakes.h"
#include "regstate/regstate_rows.h"
#include "regstate/state_init.h"
#include "regstate/state_table.h"

namespace kestrel {
namespace {

using Counter = std::uint32_t AuthFailCounts::*;

const std::map<RegState, Counter> own_counters = {{IpReady, &AuthFailCounts::ip_ready},
                                                  {PublicMode, &AuthFailCounts::public_mode},
                                                  {NoUPnP, &AuthFailCounts::no_upnp},
                                                  {NATM, &AuthFailCounts::natm},
                                                  {UpnpPfReady, &AuthFailCounts::upnp_pf_ready},
                                                  {UpnpPfFailed, &AuthFailCounts::upnp_pf_failed}};

/// What the code works on, or is expected to leave.
struct World {
  DeviceContext& now;
  DeviceContext& last;
  AuthFailCounts& counts;
};

/// Carries out a word of `given` or `then`: "name", "name=value" or "name+1".
void carry_out(World w, const std::string& what) {
  const std::size_t end = what.find_first_of("=+");
  const std::string name = what.substr(0, end);
  const int value = end == what.npos ? 1 : std::atoi(what.c_str() + end + 1);
  const bool more = end != what.npos && what[end] == '+';
  const auto word = static_cast<std::uint32_t>(value);
  if (name == "run") w.now.run = word;
  if (name == "auth") w.counts.*own_counters.at(w.now.state) = more ? w.counts.*own_counters.at(w.now.state) + 1 : word;
  if (name == "fails") w.now.cb_fail_count = more ? w.now.cb_fail_count + 1 : word;
  if (name == "pfok") w.now.pfok = word;
  if (name == "reload") w.now.dev_reload = word;
  if (name == "resut") w.now.upd.resut = word;
  if (name == "askdaip") w.now.IsNeedQueryDAIP = word;
  if (name == "count") w.counts.enable_report = w.counts.daip_query = word;
  if (name == "enabled") w.now.Last_Spt_Enabled = static_cast<std::int8_t>(value);
  if (name == "tested") w.now.proxy_tested = 1;
  if (name == "prefinal") w.now.prefinal_state = end != what.npos ? static_cast<RegState>(value) : w.now.state;
  if (name == "ue") w.now.ue = w.now.i;
  if (name == "ue.ip") std::memcpy(w.now.ue.ip, w.now.e.ip, ip_len);
  if (name == "ue.port") std::strncpy(w.now.ue.port, "0", port_len);
  if (name == "defaults") std::strcpy(w.now.igd.modelName, "n/a");
  if (name == "relay") w.now.proxy = relay;
  if (name == "redir") std::strncpy(w.now.redir_ip, value != 0 ? redirect_server : "", ip_len);
  if (name == "active") w.now.active_if = fake.interfaces.front();
  if (name == "i.ip") std::strcpy(w.now.i.ip, "192.168.1.30");
  if (name == "i.port") std::strcpy(w.now.i.port, "80");
  if (name == "proxylen") std::strncpy(w.now.proxy.ip, std::string("10.0.0.1", word).c_str(), ip_len);
  if (name == "switch") fake.enabled = static_cast<char>(value);
  if (name == "iface") fake.interface_index = value;
  if (name == "over" || what == "changed=0") {
    w.last = w.now;
    w.last.last = nullptr;
  }
  if (what == "changed=0") {
    w.last.state = LumenDevDone;
    w.last.prefinal_state = w.now.state;
  }
  if (name == "over") {
    w.now.pfok = w.now.cb_fail_count = 0;
    w.now.upd = {0, 0};
    w.now.igd = {};
    w.now.e = w.now.i = w.now.ue = w.now.proxy = {};
    w.now.proxy_tested = 0;
  }
}

/// Where two records differ; nothing when they do not.
std::string difference(const DeviceContext& one, const DeviceContext& other) {
  const auto* bytes = reinterpret_cast<const char*>(&one);
  const auto* others = reinterpret_cast<const char*>(&other);
  const std::ptrdiff_t at = std::mismatch(bytes, bytes + sizeof(one), others).first - bytes;
  return at == sizeof(one) ? "" : "from byte " + std::to_string(at) + " on";
}

std::string replaced(std::string text, const std::string& part, const std::string& by) {
  const std::size_t at = part.empty() ? text.npos : text.find(part);
  return at == text.npos ? text : text.replace(at, part.size(), by);
}

class Exploration : public RegstateTest {
 protected:
  Choices choices;
  std::map<std::string, int> given;
  std::map<std::string, std::string> results;  // so far, by callee

  /// Has the callees choose their results, and the trace show them.
  void explore_results() {
    results.clear();
    fake.decide = [this](const char* function) -> std::optional<int> {
      const auto found = answers.find(function);
      if (found == answers.end()) return std::nullopt;
      const Texts possible = split(found->second);
      const std::string& answer = possible[choices.choose(possible.size())];
      const char letter = answer.back();
      trace.result(letter);
      results[found->first] += letter;
      if (letter == 'r') now.dev_reload = 1;
      return std::stoi(answer);
    };
  }

  /// Takes a value of each range: "auth=0,1,2 changed=0,1".
  void choose_givens(const std::string& ranges) {
    given = {{"found", 0}};
    for (const std::string& range : split(ranges)) {
      const std::string name = split(range, '=')[0];
      const Texts values = split(split(range, '=')[1], ',');
      const std::string& value = values[choices.choose(values.size())];
      given[name] = std::stoi(value);
      carry_out({now, last, auth_fail_count}, name + "=" + value);
    }
    upnp_found_at_init = static_cast<std::uint32_t>(given["found"]);
  }

  bool holds(const std::string& ranges) const {
    return std::ranges::all_of(split(ranges), [&](const std::string& range) {
      const std::size_t equals = range.find('=');
      const std::size_t dash = range.find('-', equals + 2);
      const int from = std::stoi(range.substr(equals + 1));
      const int value = given.at(range.substr(0, equals));
      return from <= value && value <= (dash == range.npos ? from : std::stoi(range.substr(dash + 1)));
    });
  }

  /// Puts "NAME ok" or "NAME failed" in the place of up to three attempts, if they are what the guard makes of
  /// them, and carries them out on the expectation.
  std::string without_attempts(const std::string& path, const std::string& call, Counter counter, World expected) {
    const std::string name = call.substr(0, call.find(' '));
    const std::string& sequence = results[name];
    std::string attempts;
    for (const char c : sequence) {
      std::uint32_t& count = expected.counts.*counter;
      const std::string ret = c != 'x' ? std::string(1, c) : name == "enable" ? "3" : "0";
      attempts += call + '=' + c + "/ >>ret=" + ret + " auth_fail_count=" + std::to_string(count) + "/";
      const auto [after, gives_up] = guard.at(c)[count];
      count = after;
      if (gives_up) expected.now.upd.resut = 2;
    }
    const std::size_t success = sequence.find('1');
    if (success != sequence.npos)
      return success + 1 == sequence.size() ? replaced(path, attempts, name + " ok/") : path;
    return sequence.size() == 3 ? replaced(path, attempts, name + " failed/") : path;
  }
};

TEST_F(Exploration, EveryPathIsATransition) {
  std::vector<Row> rows = plain_rows;
  std::ranges::copy(update_rows(), std::back_inserter(rows));
  std::ranges::copy(start_rows(), std::back_inserter(rows));
  std::vector<bool> taken(rows.size());
  // Without `run` nothing waits.
  Texts hurried;
  for (const Row& row : rows) hurried.push_back(std::regex_replace(row.trace, std::regex("wait [0-9]+/"), ""));
  for (const auto& exploration : explorations) {
    do {
      begin(exploration.state);
      choose_givens(exploration.given);
      explore_results();
      DeviceContext then = now;
      DeviceContext then_last = last;
      AuthFailCounts counts = auth_fail_count;
      const World expected{then, then_last, counts};
      turn();
      std::string path = replaced(trace.take(), "delete 58081 2=1/reload/", "dropped/");
      path = replaced(path, "delete 58081 2=x/", "dropped/");
      path = without_attempts(path, "enable " + std::to_string(fake.enabled), &AuthFailCounts::enable_report, expected);
      path = without_attempts(path, "daip", &AuthFailCounts::daip_query, expected);
      std::string message = path;
      for (const auto& [name, value] : given) message += " " + name + "=" + std::to_string(value);
      SCOPED_TRACE(message);

      std::vector<std::size_t> matches;
      for (std::size_t i = 0; i < rows.size(); ++i) {
        const std::string& text = now.run != 0 ? rows[i].trace : hurried[i];
        if (rows[i].state == exploration.state && text == path && holds(rows[i].given)) matches.push_back(i);
      }
      ASSERT_EQ(matches.size(), 1U) << state_name(exploration.state);
      const Row& row = rows[matches.front()];
      taken[matches.front()] = true;
      for (const std::string& effect : split(row.then)) carry_out(expected, effect);
      then.state = row.next;
      EXPECT_STREQ(state_name(now.state), state_name(then.state));
      EXPECT_EQ(std::memcmp(&auth_fail_count, &counts, sizeof(counts)), 0) << row.then;
      std::strncpy(now.ue.port, std::string(now.ue.port).c_str(), port_len);  // what is behind the text does not matter
      EXPECT_EQ(difference(now, then), "") << row.then;
      EXPECT_EQ(difference(last, then_last), "") << "last: " << row.then;
      EXPECT_EQ(upnp_found_at_init, row.then == "found=0" ? 0U : static_cast<std::uint32_t>(given["found"]));
      ASSERT_FALSE(HasFailure());
    } while (choices.next());
  }
  for (std::size_t i = 0; i < rows.size(); ++i) {
    EXPECT_TRUE(taken[i]) << "no path: " << state_name(rows[i].state) << " " << rows[i].given << " " << rows[i].trace;
  }
}

}  // namespace
}  // namespace kestrel
