// What each command asks of a camera and how it tells the answer.
#include "commands.h"

#include <fmt/chrono.h>
#include <fmt/format.h>

#include <algorithm>
#include <cstdio>
#include <ctime>
#include <map>
#include <string_view>
#include <utility>

#include "secrets.h"

namespace finder {
namespace {

constexpr auto kListColumns = {"name", "address", "http_port", "mac", "model", "oem_version", "url"};

std::string number_text(std::uint32_t number) {
  return fmt::to_string(number);
}

// A request of an operation that only the administrator may do.
Request as_administrator(const Options& options, Op op, std::string argument = {}) {
  if (options.user.empty() || options.user.size() > credentials::kMaxPlain) {
    throw Failure{Exit::usage, fmt::format("the user name must have 1 to {} bytes", credentials::kMaxPlain)};
  }
  Request request;
  request.op = op;
  request.user = options.user;
  request.password = read_password(options.password_file, options.user);
  request.argument = std::move(argument);
  return request;
}

Request openly(Op op) {
  Request request;
  request.op = op;
  return request;
}

std::uint32_t word(const Reply& reply, Field f) {
  return reply.fields().number(f);
}

// The JSON names the camera; the text is one sentence or one value.
Exit tell(const Options& options, const Camera& camera, Record facts, const std::string& text) {
  if (!options.json) {
    fmt::print("{}\n", printable(text));
    return Exit::ok;
  }
  Record record = whose(camera);
  std::ranges::move(facts, std::back_inserter(record));
  print_record(record, true);
  return Exit::ok;
}

std::string label(const Camera& camera) {
  return fmt::format("{} ({}, {})", camera.name().empty() ? "the camera" : printable(camera.name()),
                     to_text(camera.mac), to_text(camera.from));
}

Exit list(const Options& options, const Network& network) {
  std::vector<Record> records;
  for (const Camera& camera : survey(network)) records.push_back(camera_record(camera));
  print_table(records, kListColumns, options.json);
  if (!records.empty()) return Exit::ok;
  throw Failure{Exit::no_answer,
                fmt::format("no camera answered on {} within {:g} s", network.interfaces(), options.timeout_s)};
}

Exit show(const Options& options, const Network& network) {
  Camera camera = find_camera(network, options.camera);
  camera.survey = decode_survey(ask(network, camera, openly(Op::survey)).payload);
  camera.service = decode_service_survey(ask(network, camera, openly(Op::service_survey)).payload);
  const bool enabled = word(ask(network, camera, openly(Op::get_service)), small_reply::kWord0) != 0;
  Record record = camera_record(camera);
  record.push_back({"service", "SERVICE", std::string(enabled ? "on" : "off")});
  print_record(record, options.json);
  return Exit::ok;
}

struct Word {
  std::uint32_t code;
  const char* text;
};

constexpr Word kStates[] = {
    {1, "registering"},
    {2, "registered and reachable from outside"},
    {3, "not registered"},
    {4, "registered, but not reachable from outside"},
};
// The step from which the registration came to its state.
constexpr Word kReasons[] = {
    {0, ""},
    {1, "at the question for the external address"},
    {2, "with a public address"},
    {3, "behind a router without UPnP"},
    {4, "at the UPnP router's external address"},
    {5, "behind several routers"},
    {6, "without a port mapping: the router gave none"},
    {7, "with a port mapped by UPnP"},
};
constexpr Word kDetails[] = {
    {0, ""},
    {2, "remote access is switched off"},
    {3, "the service could not be reached or refused the camera's authentication"},
    {4, "the service took no update"},
};

std::string in_words(std::span<const Word> words, std::uint32_t code) {
  const auto row = std::ranges::find(words, code, &Word::code);
  return row == words.end() ? "unknown code " + number_text(code) : row->text;
}

Exit status(const Options& options, const Network& network) {
  const Camera camera = find_camera(network, options.camera);
  const Reply reply = ask(network, camera, openly(Op::get_status));
  const std::uint32_t state = word(reply, small_reply::kWord0);
  const std::uint32_t reason = word(reply, small_reply::kWord1);
  const std::uint32_t detail = word(reply, small_reply::kWord2);
  Record record = options.json ? whose(camera) : Record{};
  record.insert(record.end(), {{"state", "STATE", in_words(kStates, state)},
                               {"reason", "WHERE", in_words(kReasons, reason)},
                               {"detail", "WHY", in_words(kDetails, detail)},
                               {"conf_state", nullptr, std::uint64_t{state}},
                               {"reason_code", nullptr, std::uint64_t{reason}},
                               {"detail_code", nullptr, std::uint64_t{detail}}});
  print_record(record, options.json);
  return Exit::ok;
}

Exit service(const Options& options, const Network& network) {
  const std::string& wanted = *options.value;
  if (wanted != "on" && wanted != "off") throw Failure{Exit::usage, "the service is switched 'on' or 'off'"};
  const std::string argument(1, wanted == "on" ? '\1' : '\0');
  const Camera camera = find_camera(network, options.camera);
  const Reply reply = ask(network, camera, as_administrator(options, Op::set_service, argument));
  if (reply.result != 0) {
    throw Failure{Exit::failed,
                  "the camera did not switch the service: error " + number_text(word(reply, small_reply::kWord0))};
  }
  return tell(options, camera, {{"service", nullptr, wanted}},
              fmt::format("remote access is {}; {} registers anew", wanted, label(camera)));
}

Exit get_alias(const Options& options, const Network& network) {
  const Camera camera = find_camera(network, options.camera);
  const Reply reply = ask(network, camera, as_administrator(options, Op::get_alias));
  if (reply.result != 0) throw Failure{Exit::failed, "the camera could not read its alias"};
  const std::string alias = reply.fields().text(text_reply::kText);
  return tell(options, camera, {{"alias", nullptr, alias}}, alias);
}

// The alias becomes part of a host name and of an XML text, which escapes nothing.
void check_name(std::string_view what, std::string_view name, std::size_t max, std::string_view also) {
  const auto fits = [&](char c) {
    const bool plain = (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
    return plain || also.find(c) != std::string_view::npos;
  };
  if (name.size() <= max && std::ranges::all_of(name, fits)) return;
  throw Failure{Exit::usage,
                fmt::format("the {} must have at most {} characters: letters, digits and any of {}", what, max, also)};
}

Exit set_alias(const Options& options, const Network& network) {
  const std::string& alias = *options.value;
  check_name("alias", alias, kMaxAlias, "-_.");
  const Camera camera = find_camera(network, options.camera);
  int sends = 0;
  const Reply reply = ask(network, camera, as_administrator(options, Op::set_alias, alias + '\0'), &sends);
  const std::uint32_t error = word(reply, small_reply::kWord0);
  const std::uint32_t handle = word(reply, small_reply::kWord1);
  if (reply.result != 0 && error == 2) {
    // The answer to an earlier send may be lost, and then it was that one that is pending.
    throw Failure{Exit::pending, std::string("an alias change is still pending on the camera") +
                                     (sends > 1 ? ", perhaps this one, which was sent more than once" : "") +
                                     "; ask for alias-status"};
  }
  if (reply.result != 0) throw Failure{Exit::failed, "the camera could not store the alias"};
  return tell(options, camera, {{"alias", nullptr, alias}, {"handle", nullptr, std::uint64_t{handle}}},
              "the camera took the alias as a request; alias-status tells what becomes of it");
}

Exit alias(const Options& options, const Network& network) {
  return options.value ? set_alias(options, network) : get_alias(options, network);
}

struct AliasState {
  std::uint32_t error;
  std::uint32_t status;
  Exit exit;
  const char* key;
  const char* sentence;
};

constexpr AliasState kAliasStates[] = {
    {0, 0, Exit::ok, "accepted", "the alias is accepted"},
    {0, 2, Exit::pending, "pending", "no verdict on an alias yet"},
    {1, 0, Exit::failed, "failed", "the service could not take the alias"},
    {2, 0, Exit::duplicate, "duplicate", "the alias is taken by another camera"},
    {3, 0, Exit::failed, "unknown",
     "the camera's alias was not set through the finder since it started; set it again to see its state"},
};

Exit alias_status(const Options& options, const Network& network) {
  const Camera camera = find_camera(network, options.camera);
  const Reply reply = ask(network, camera, as_administrator(options, Op::alias_status));
  const std::uint32_t error = word(reply, small_reply::kWord0);
  const std::uint32_t state = word(reply, small_reply::kWord1);
  const auto* row =
      std::ranges::find_if(kAliasStates, [&](const AliasState& s) { return s.error == error && s.status == state; });
  if (row == std::end(kAliasStates)) {
    throw Failure{Exit::failed, fmt::format("the camera answered with error {} and status {}, which mean nothing here",
                                            error, state)};
  }
  if (options.json || row->exit == Exit::ok)
    tell(options, camera, {{"alias_status", nullptr, std::string(row->key)}}, row->sentence);
  if (row->exit != Exit::ok) throw Failure{row->exit, row->sentence};
  return Exit::ok;
}

Exit domain(const Options& options, const Network& network) {
  const std::string& name = *options.value;
  check_name("domain", name, kMaxDomain, "-.");
  if (name.empty()) throw Failure{Exit::usage, "the domain must not be empty"};
  const Camera camera = find_camera(network, options.camera);
  if (!options.yes &&
      !confirm(fmt::format("{} will look for its remote-access service under {} from now on.\n"
                           "Unless it does so already, it stores the name and ends its remote-access "
                           "programs at once, connections through them included; its supervisor starts them again.",
                           label(camera), name))) {
    throw Failure{Exit::usage, "nothing was changed"};
  }
  const Reply reply = ask(network, camera, as_administrator(options, Op::set_domain, name + '\0'));
  const std::uint32_t wait_ms = word(reply, small_reply::kWord2);
  if (reply.result != 0) {
    throw Failure{Exit::failed,
                  "the camera did not take the domain: error " + number_text(word(reply, small_reply::kWord0))};
  }
  return tell(options, camera, {{"domain", nullptr, name}, {"wait_ms", nullptr, std::uint64_t{wait_ms}}},
              fmt::format("the domain is {}; give {} {} s to come back", name, label(camera), wait_ms / 1000));
}

Exit operations(const Options& options, const Network& network) {
  const Camera camera = find_camera(network, options.camera);
  const Reply reply = ask(network, camera, as_administrator(options, Op::operations));
  std::vector<std::uint64_t> codes;
  std::vector<Record> rows;
  for (std::size_t at = 0; at < operations_reply::kSize; at += operations_reply::kCodeSize) {
    const auto code = static_cast<std::uint16_t>(reply.fields().number({at, operations_reply::kCodeSize}));
    const OpInfo* info = find_op(code);
    codes.push_back(code);
    rows.push_back({{"code", "CODE", fmt::format("0x{:04X}", code)},
                    {"name", "OPERATION", std::string(info == nullptr ? "" : info->name)}});
  }
  if (options.json) return tell(options, camera, {{"operations", nullptr, codes}}, "");
  print_table(rows, {"code", "name"}, false);
  return Exit::ok;
}

void tell_event(const Options& options, const char* event, const Record& record) {
  static const std::map<std::string_view, char> kMarks{{"came", '+'}, {"changed", '*'}, {"gone", '-'}};
  const std::tm now = fmt::localtime(std::time(nullptr));
  if (options.json) {
    Record line{{"event", nullptr, std::string(event)}, {"time", nullptr, fmt::format("{:%Y-%m-%dT%H:%M:%S%z}", now)}};
    line.insert(line.end(), record.begin(), record.end());
    print_record(line, true);
  } else {
    fmt::print("{:%H:%M:%S} {} {}\n", now, kMarks.at(event), line_of(record, kListColumns));
  }
  std::fflush(stdout);
}

Exit watch(const Options& options, const Network& network) {
  constexpr unsigned kSilentRounds = 2;  // one lost round is no departure
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
      now.line = line_of(now.record, kListColumns);
      const auto [entry, is_new] = seen.try_emplace(camera.mac, now);
      if (is_new || entry->second.line != now.line) tell_event(options, is_new ? "came" : "changed", now.record);
      entry->second = std::move(now);
    }
    if (interrupted()) break;  // a survey that was cut short tells nothing about who left
    std::erase_if(seen, [&](const auto& pair) {
      if (pair.second.silent < kSilentRounds) return false;
      tell_event(options, "gone", pair.second.record);
      return true;
    });
    if (options.rounds == 0 || round + 1 < options.rounds) {
      pause_for(std::chrono::duration_cast<Milliseconds>(next - Clock::now()));
    }
  }
  return Exit::ok;
}

constexpr Command kCommands[] = {
    {"list", list, false, Value_arg::none, "", "List the cameras of the local network"},
    {"show", show, true, Value_arg::none, "", "Show all that a camera tells about itself"},
    {"status", status, true, Value_arg::none, "", "Show how far a camera's registration is"},
    {"service", service, true, Value_arg::required, "on|off", "Switch remote access on or off"},
    {"alias", alias, true, Value_arg::optional, "NAME", "Show the alias, or ask for another"},
    {"alias-status", alias_status, true, Value_arg::none, "", "Show what became of the last alias change"},
    {"domain", domain, true, Value_arg::required, "NAME", "Change the domain of the remote-access service"},
    {"ops", operations, true, Value_arg::none, "", "List the operations that a camera announces"},
    {"watch", watch, false, Value_arg::none, "", "Keep listing and mark who came and went"},
};

}  // namespace

std::span<const Command> commands() {
  return kCommands;
}

}  // namespace finder
