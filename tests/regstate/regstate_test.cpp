// Every state handler with every combination of results that its callees can give: the choices are explored
// exhaustively, and each path must be a row of the transition tables, with all that the path does in its order. A
// row that no path took is an error too.
#include <algorithm>
#include <cstring>
#include <iterator>
#include <regex>
#include <set>

#include "regstate/auth_fail_count.h"
#include "regstate/regstate_fakes.h"
#include "regstate/regstate_rows.h"
#include "regstate/state_init.h"
#include "regstate/state_table.h"

namespace kestrel {
namespace {

std::string replaced(std::string text, const std::string& part, const std::string& by) {
  const std::size_t at = part.empty() ? text.npos : text.find(part);
  return at == text.npos ? text : text.replace(at, part.size(), by);
}

class StateTable : public RegstateTest {
 protected:
  Choices choices;
  std::map<Step, int> given;
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

  void choose_givens(const Exploration& exploration) {
    given = {{found, 0}, {run, 1}, {iface, 1}};
    for (const auto& [step, values] : exploration.given) {
      given[step] = values[choices.choose(values.size())];
      step({now, last, auth_fail_count, upnp_found_at_init}, given[step]);
    }
  }

  bool holds(const Ranges& ranges) const {
    return std::ranges::all_of(ranges, [&](const Range& range) {
      const int value = given.at(range.step);
      return range.from <= value && value <= range.to;
    });
  }

  /// Puts "NAME ok" or "NAME failed" in the place of all the attempts, and carries out on the expectation what the
  /// guard makes of them: two challenges are tolerated, a success and whatever gives up begins the count anew.
  std::string without_attempts(const std::string& path, const std::string& call, Counter counter, World expected) {
    const std::string name = call.substr(0, call.find(' '));
    const std::string& sequence = results[name];
    std::string attempts;
    for (const char c : sequence) {
      std::uint32_t& count = expected.counts.*counter;
      const std::string ret = c != 'x' ? std::string(1, c) : name == "enable" ? "3" : "0";
      attempts += call + '=' + c + "/ >>ret=" + ret + " auth_fail_count=" + std::to_string(count) + "/";
      const bool taken = c == '1', tolerated_once_more = c == '2' && count < 2;
      count = tolerated_once_more ? count + 1 : 0;
      if (!taken && !tolerated_once_more) expected.now.upd.resut = 2;
    }
    const std::size_t success = sequence.find('1');
    if (success != sequence.npos)
      return success + 1 == sequence.size() ? replaced(path, attempts, name + " ok/") : path;
    return sequence.size() == (now.run != 0 ? 3U : 1U) ? replaced(path, attempts, name + " failed/") : path;
  }
};

TEST_F(StateTable, EveryPathIsATransition) {
  std::vector<Row> rows = plain_rows;
  std::ranges::copy(reporting_rows(), std::back_inserter(rows));
  std::ranges::copy(start_rows(), std::back_inserter(rows));
  std::vector<bool> taken(rows.size());
  std::set<std::string> steps;
  // Without `run` nothing waits.
  Texts hurried;
  for (const Row& row : rows) hurried.push_back(std::regex_replace(row.trace, std::regex("wait [0-9]+/"), ""));
  for (const Exploration& exploration : explorations) {
    do {
      begin(exploration.state);
      choose_givens(exploration);
      explore_results();
      DeviceContext then = now;
      DeviceContext then_last = last;
      AuthFailCounts counts = auth_fail_count;
      std::uint32_t found_then = upnp_found_at_init;
      const World expected{then, then_last, counts, found_then};
      turn();
      std::string path = replaced(trace.take(), "delete 58081 2=1/reload/", "dropped/");
      path = replaced(path, "delete 58081 2=x/", "dropped/");
      path = without_attempts(path, "enable " + std::to_string(fake.enabled), &AuthFailCounts::enable_report, expected);
      path = without_attempts(path, "daip", &AuthFailCounts::daip_query, expected);
      std::string message = path;
      for (const auto& [step, values] : exploration.given) message += " " + std::to_string(given[step]);
      SCOPED_TRACE(message);

      std::vector<std::size_t> matches;
      for (std::size_t i = 0; i < rows.size(); ++i) {
        const std::string& text = now.run != 0 ? rows[i].trace : hurried[i];
        if (rows[i].state == exploration.state && text == path && holds(rows[i].given)) matches.push_back(i);
      }
      ASSERT_EQ(matches.size(), 1U) << state_name(exploration.state);
      const Row& row = rows[matches.front()];
      taken[matches.front()] = true;
      steps.insert(std::string(state_name(exploration.state)) + " " + state_name(now.state));
      for (const Effect& effect : row.then) effect.step(expected, effect.value);
      then.state = row.next;
      EXPECT_STREQ(state_name(now.state), state_name(then.state));
      EXPECT_EQ(std::memcmp(&auth_fail_count, &counts, sizeof(counts)), 0);
      std::strncpy(now.ue.port, std::string(now.ue.port).c_str(), port_len);  // what is behind the text does not matter
      EXPECT_EQ(std::memcmp(&now, &then, sizeof(now)), 0) << "the record";
      EXPECT_EQ(std::memcmp(&last, &then_last, sizeof(last)), 0) << "the last record";
      EXPECT_EQ(upnp_found_at_init, found_then);
      ASSERT_FALSE(HasFailure());
    } while (choices.next());
  }
  for (std::size_t i = 0; i < rows.size(); ++i) {
    EXPECT_TRUE(taken[i]) << "no path: " << state_name(rows[i].state) << " " << rows[i].trace;
  }
  // scripts/state-diagram draws them.
  for (const std::string& step : steps) RecordProperty(step, 1);
}

TEST_F(StateTable, Names) {
  std::string names;
  for (int state = -1; state <= 18; ++state) names += std::string(state_name(static_cast<RegState>(state))) + " ";
  EXPECT_EQ(
      names,
      "UNKNOWN START IpReady InternetReady NATMode PublicMode UPnP NoUPnP UPnP_A UPnP_B NATU NAT1 NATM UpnpPfReady "
      "UpnpPfFailed LumenDevPartDone LumenDevDone LumenDevNotReady UNKNOWN UNKNOWN ");
}

}  // namespace
}  // namespace kestrel
