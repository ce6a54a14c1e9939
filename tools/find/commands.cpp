// The table of the commands, and those that look at cameras without changing them.
#include "commands.h"

#include <fmt/chrono.h>
#include <fmt/format.h>

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <map>
#include <string_view>
#include <utility>

#include "changes.h"

namespace finder {
namespace {

constexpr Column list_columns[] = {{"name", "NAME", 16},     {"address", "ADDRESS", 15}, {"http_port", "PORT", 5},
                                   {"mac", "MAC", 17},       {"model", "MODEL", 10},     {"oem_version", "VERSION", 10},
                                   {"url", "SERVICE URL", 0}};

Exit list(const Options& options, const Network& network) {
  GrowingTable table(list_columns, options.format());
  std::vector<Record> records;
  for (const Camera& camera : survey(network, [&](const Camera& camera) { table.add(camera_record(camera)); }))
    records.push_back(camera_record(camera));
  table.finish(records);
  if (!records.empty()) return Exit::ok;
  throw Failure{Exit::no_answer,
                fmt::format("no camera answered on {} within {:g} s", network.interfaces(), options.timeout_s)};
}

Exit show(const Options& options, const Network& network) {
  Camera camera = find_camera(network, options.camera);
  camera.survey = decode_survey(ask(network, camera, question(Op::survey)).payload);
  camera.service = decode_service_survey(ask(network, camera, question(Op::service_survey)).payload);
  const bool enabled = ask(network, camera, question(Op::get_service)).word(small_reply::word0) != 0;
  Record record = camera_record(camera);
  record.push_back({"service", "SERVICE", std::string(enabled ? "on" : "off")});
  print_record(record, options.format());
  return Exit::ok;
}

struct Word {
  std::uint32_t code;
  const char* text;
};

constexpr Word states[] = {
    {1, "registering"},
    {2, "registered and reachable from outside"},
    {3, "not registered"},
    {4, "registered, but not reachable from outside"},
};
// The step from which the registration came to its state.
constexpr Word reasons[] = {
    {0, ""},
    {1, "at the question for the external address"},
    {2, "with a public address"},
    {3, "behind a router without UPnP"},
    {4, "at the UPnP router's external address"},
    {5, "behind several routers"},
    {6, "without a port mapping: the router gave none"},
    {7, "with a port mapped by UPnP"},
};
constexpr Word details[] = {
    {0, ""},
    {2, "remote access is switched off"},
    {3, "the service could not be reached or refused the camera's authentication"},
    {4, "the service took no update"},
};

std::string in_words(std::span<const Word> words, std::uint32_t code) {
  const auto row = std::ranges::find(words, code, &Word::code);
  return row == words.end() ? fmt::format("unknown code {}", code) : row->text;
}

Exit status(const Options& options, const Network& network) {
  const Camera camera = find_camera(network, options.camera);
  const Reply reply = ask(network, camera, question(Op::get_status));
  const std::uint32_t state = reply.word(small_reply::word0);
  const std::uint32_t reason = reply.word(small_reply::word1);
  const std::uint32_t detail = reply.word(small_reply::word2);
  Record record = options.format() != Format::text ? whose(camera) : Record{};
  record.insert(record.end(), {{"state", "STATE", in_words(states, state)},
                               {"reason", "WHERE", in_words(reasons, reason)},
                               {"detail", "WHY", in_words(details, detail)},
                               {"conf_state", nullptr, std::uint64_t{state}},
                               {"reason_code", nullptr, std::uint64_t{reason}},
                               {"detail_code", nullptr, std::uint64_t{detail}}});
  print_record(record, options.format());
  return Exit::ok;
}

void tell_event(const Options& options, const char* event, const Record& record) {
  static const std::map<std::string_view, char> marks{{"came", '+'}, {"changed", '*'}, {"gone", '-'}};
  const std::tm now = fmt::localtime(std::time(nullptr));
  const std::string time = fmt::format("{:%Y-%m-%dT%H:%M:%S%z}", now);
  if (options.json) {
    Record line{{"event", nullptr, std::string(event)}, {"time", nullptr, time}};
    line.insert(line.end(), record.begin(), record.end());
    print_record(line, Format::json);
  } else if (options.lines) {
    fmt::print("{};{};{}\n", event, time, fields_of(record, list_columns));
  } else {
    fmt::print("{:%H:%M:%S} {} {}\n", now, marks.at(event), line_of(record, list_columns));
  }
  std::fflush(stdout);
}

Exit watch(const Options& options, const Network& network) {
  constexpr unsigned silent_rounds = 2;  // one lost round is no departure
  struct Seen {
    Record record;
    std::string line;
    unsigned silent = 0;
  };
  std::map<Mac, Seen> seen;
  catch_interrupts();
  for (unsigned round = 0; !interrupted() && (options.rounds == 0 || round < options.rounds); ++round) {
    const Clock::time_point next = Clock::now() + Milliseconds(static_cast<std::int64_t>(options.interval_s * 1000));
    for (auto& [mac, entry] : seen) ++entry.silent;
    for (const Camera& camera : survey(network)) {
      Seen now{camera_record(camera), {}, 0};
      now.line = line_of(now.record, list_columns);
      const auto [entry, is_new] = seen.try_emplace(camera.mac, now);
      if (is_new || entry->second.line != now.line) tell_event(options, is_new ? "came" : "changed", now.record);
      entry->second = std::move(now);
    }
    if (interrupted()) break;  // a survey that was cut short tells nothing about who left
    std::erase_if(seen, [&](const auto& pair) {
      if (pair.second.silent < silent_rounds) return false;
      tell_event(options, "gone", pair.second.record);
      return true;
    });
    if (options.rounds == 0 || round + 1 < options.rounds) {
      pause_for(std::chrono::duration_cast<Milliseconds>(next - Clock::now()));
    }
  }
  return Exit::ok;
}

constexpr Command command_table[] = {
    {"list", list, false, ValueArg::none, "", "List the cameras of the local network"},
    {"show", show, true, ValueArg::none, "", "Show all that a camera tells about itself"},
    {"status", status, true, ValueArg::none, "", "Show how far a camera's registration is"},
    {"service", service, true, ValueArg::optional, "on|off", "Show whether remote access is on, or switch it"},
    {"alias", alias, true, ValueArg::optional, "NAME", "Show the alias, or ask for another"},
    {"alias-status", alias_status, true, ValueArg::none, "", "Show what became of the last alias change"},
    {"domain", domain, true, ValueArg::required, "NAME", "Change the domain of the remote-access service"},
    {"ops", operations, true, ValueArg::none, "", "Show which operations a camera announces, and which it answers"},
    {"watch", watch, false, ValueArg::none, "", "Keep listing and mark who came and went"},
};

}  // namespace

std::span<const Command> commands() {
  return command_table;
}

}  // namespace finder
