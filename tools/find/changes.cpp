// The switch, the alias, the domain and the operations of one camera. What a command says that it did, it has read back
// from the camera where the protocol lets it.
#include "changes.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <iterator>
#include <map>
#include <set>
#include <string_view>
#include <utility>

#include "secrets.h"

namespace finder {
namespace {

// A request of an operation that only the administrator may do.
Request as_administrator(const Options& options, Op op, std::string argument = {}) {
  if (options.user.empty() || options.user.size() > credentials::max_plain_len) {
    throw Failure{Exit::usage, fmt::format("the user name must have 1 to {} bytes", credentials::max_plain_len)};
  }
  Request request;
  request.op = op;
  request.user = options.user;
  request.password = read_password(options.password_file, options.user);
  request.argument = std::move(argument);
  return request;
}

// JSON and fields name the camera; the text is one sentence or one value.
Exit tell(const Options& options, const Camera& camera, Record facts, const std::string& text) {
  if (options.format() == Format::text) {
    fmt::print("{}\n", printable(text));
    return Exit::ok;
  }
  Record record = whose(camera);
  std::ranges::move(facts, std::back_inserter(record));
  print_record(record, options.format());
  return Exit::ok;
}

std::string label(const Camera& camera) {
  return fmt::format("{} ({}, {})", camera.name().empty() ? "the camera" : printable(camera.name()),
                     to_text(camera.mac), to_text(camera.from));
}

const char* on_or_off(bool on) {
  return on ? "on" : "off";
}

bool is_on(const Network& network, const Camera& camera) {
  return ask(network, camera, question(Op::get_service)).word(small_reply::word0) != 0;
}

Exit get_alias(const Options& options, const Network& network) {
  const Camera camera = find_camera(network, options.camera);
  const Reply reply = ask(network, camera, as_administrator(options, Op::get_alias));
  if (reply.result != 0) throw Failure{Exit::failed, "the camera could not read its alias"};
  const std::string alias = reply.fields().text(text_reply::text);
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

struct AliasState {
  std::uint32_t error;
  std::uint32_t status;
  Exit exit;
  const char* key;
  const char* sentence;
};

constexpr AliasState alias_states[] = {
    {0, 0, Exit::ok, "accepted", "the alias is accepted"},
    {0, 2, Exit::pending, "pending", "no verdict on an alias yet"},
    {1, 0, Exit::failed, "failed", "the service could not take the alias"},
    {2, 0, Exit::duplicate, "duplicate", "the alias is taken by another camera"},
    {3, 0, Exit::failed, "unknown",
     "the camera's alias was not set through the finder since it started; set it again to see its state"},
};

const AliasState& alias_state(const Reply& reply) {
  const std::uint32_t error = reply.word(small_reply::word0);
  const std::uint32_t state = reply.word(small_reply::word1);
  const auto* row =
      std::ranges::find_if(alias_states, [&](const AliasState& s) { return s.error == error && s.status == state; });
  if (row != std::end(alias_states)) return *row;
  throw Failure{Exit::failed,
                fmt::format("the camera answered with error {} and status {}, which mean nothing here", error, state)};
}

Exit tell_alias_state(const Options& options, const Camera& camera, const AliasState& state,
                      const std::string& sentence) {
  if (options.format() != Format::text || state.exit == Exit::ok)
    tell(options, camera, {{"alias_status", nullptr, std::string(state.key)}}, sentence);
  if (state.exit != Exit::ok) throw Failure{state.exit, sentence};
  return Exit::ok;
}

// Asks every few seconds until there is a verdict. A round without an answer is no end: the camera's software may be
// starting anew.
Exit await_verdict(const Options& options, const Network& network, const Camera& camera) {
  constexpr Milliseconds between(3000);
  const Request request = as_administrator(options, Op::alias_status);
  const Clock::time_point end = Clock::now() + std::chrono::seconds(options.wait_s);
  bool answered = false;
  catch_interrupts();
  while (!interrupted()) {
    const auto reply = ask_for(network, network.time, camera, request);
    answered = reply.has_value();
    if (const AliasState* state = answered ? &alias_state(*reply) : nullptr; state && state->exit != Exit::pending)
      return tell_alias_state(options, camera, *state, state->sentence);
    if (Clock::now() >= end) break;
    pause_for(std::min(between, std::chrono::duration_cast<Milliseconds>(end - Clock::now())));
  }
  if (!answered)
    throw Failure{Exit::no_answer, fmt::format("the camera took the alias, but was silent at the end of {} s; ask for "
                                               "alias-status",
                                               options.wait_s)};
  constexpr const AliasState& pending = alias_states[1];
  static_assert(pending.exit == Exit::pending);
  return tell_alias_state(options, camera, pending,
                          fmt::format("no verdict within {} s: the alias stays pending until the camera's own "
                                      "software asks the service",
                                      options.wait_s));
}

Exit set_alias(const Options& options, const Network& network) {
  const std::string& alias = *options.value;
  check_name("alias", alias, max_alias_len, "-_.");
  const Camera camera = find_camera(network, options.camera);
  int sends = 0;
  const Reply reply = ask(network, camera, as_administrator(options, Op::set_alias, alias + '\0'), &sends);
  if (reply.result != 0 && reply.word(small_reply::word0) == 2) {
    // The answer to an earlier send may be lost, and then it was that one that is pending.
    throw Failure{Exit::pending, std::string("an alias change is still pending on the camera") +
                                     (sends > 1 ? ", perhaps this one, which was sent more than once" : "") +
                                     "; ask for alias-status"};
  }
  if (reply.result != 0) throw Failure{Exit::failed, "the camera could not store the alias"};
  // Scripts read one record of a command: with --wait the verdict's.
  if (options.wait_s > 0 && options.format() != Format::text) return await_verdict(options, network, camera);
  tell(options, camera, {{"alias", nullptr, alias}, {"handle", nullptr, std::uint64_t{reply.word(small_reply::word1)}}},
       "the camera keeps the alias as a request; it stays pending until the camera's own software has asked the "
       "service, and alias-status tells what became of it");
  return options.wait_s > 0 ? await_verdict(options, network, camera) : Exit::ok;
}

enum class Restart { none, seen, still_away };

// After a change of the domain the camera ends the program that answers here. Its silence shows that, or, when its
// supervisor was quicker than the questions, its other address at the service. That address may be told already by the
// program that is about to end, so it counts only after a while.
Restart watch_restart(const Network& network, const Camera& camera, const std::string& url_before, Milliseconds time) {
  constexpr Milliseconds question_time(400);
  constexpr Milliseconds ended(1000);    // the camera's programs are gone by then
  constexpr Milliseconds settled(3000);  // a camera that still answers then has nothing to end
  const Clock::time_point start = Clock::now();
  bool silent = false;
  while (Clock::now() - start < (silent ? time : settled)) {
    const auto reply = ask_for(network, question_time, camera, question(Op::get_url));
    if (!reply) {
      silent = true;
      continue;
    }
    const bool moved = Clock::now() - start >= ended && reply->fields().text(text_reply::text) != url_before;
    if (silent || moved) return Restart::seen;
    pause_for(Milliseconds(100));
  }
  return silent ? Restart::still_away : Restart::none;
}

// Asks for everything that changes nothing.
const char* probe(const Options& options, const Network& network, const Camera& camera, std::uint16_t code) {
  constexpr std::array changing{Op::set_service, Op::set_alias, Op::set_domain};
  const OpInfo* info = find_op(code);
  if (info == nullptr || std::ranges::find(changing, info->op) != changing.end()) return "not tried";
  const Request request = info->needs_administrator ? as_administrator(options, info->op) : question(info->op);
  return ask_for(network, network.time, camera, request) ? "yes" : "no";
}

}  // namespace

Exit service(const Options& options, const Network& network) {
  std::string wanted = options.value.value_or("");
  std::ranges::transform(wanted, wanted.begin(), [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  if (options.value && wanted != "on" && wanted != "off")
    throw Failure{Exit::usage, "the service is switched 'on' or 'off'"};
  const Camera camera = find_camera(network, options.camera);
  const bool before = is_on(network, camera);
  if (!options.value) {
    return tell(options, camera, {{"service", nullptr, std::string(on_or_off(before))}}, on_or_off(before));
  }
  const bool on = wanted == "on";
  const Reply reply =
      ask(network, camera, as_administrator(options, Op::set_service, std::string(1, on ? '\1' : '\0')));
  if (reply.result != 0) {
    throw Failure{Exit::failed,
                  fmt::format("the camera did not switch the service: error {}", reply.word(small_reply::word0))};
  }
  if (is_on(network, camera) != on) {
    throw Failure{Exit::failed, fmt::format("the camera said yes, but its remote access is still {}", on_or_off(!on))};
  }
  return tell(options, camera, {{"service", nullptr, wanted}, {"changed", nullptr, before != on}},
              fmt::format("remote access {} {}; {} registers anew", before == on ? "was already" : "is now", wanted,
                          label(camera)));
}

Exit alias(const Options& options, const Network& network) {
  if (!options.value && options.wait_s > 0) throw Failure{Exit::usage, "--wait needs the alias to ask for"};
  return options.value ? set_alias(options, network) : get_alias(options, network);
}

Exit alias_status(const Options& options, const Network& network) {
  const Camera camera = find_camera(network, options.camera);
  const AliasState& state = alias_state(ask(network, camera, as_administrator(options, Op::alias_status)));
  return tell_alias_state(options, camera, state, state.sentence);
}

Exit domain(const Options& options, const Network& network) {
  const std::string& name = *options.value;
  check_name("domain", name, max_domain_len, "-.");
  if (name.empty()) throw Failure{Exit::usage, "the domain must not be empty"};
  const Camera camera = find_camera(network, options.camera);
  if (!options.yes &&
      !confirm(fmt::format("{} will look for its remote-access service under {} from now on.\n"
                           "Unless it does so already, it stores the name and ends its remote-access "
                           "programs at once, connections through them included; its supervisor starts them again.",
                           label(camera), name))) {
    throw Failure{Exit::usage, "nothing was changed"};
  }
  const std::string url = ask(network, camera, question(Op::get_url)).fields().text(text_reply::text);
  const Reply reply = ask(network, camera, as_administrator(options, Op::set_domain, name + '\0'));
  const std::uint32_t wait_ms = reply.word(small_reply::word2);
  if (reply.result != 0) {
    throw Failure{Exit::failed,
                  fmt::format("the camera did not take the domain: error {}", reply.word(small_reply::word0))};
  }
  constexpr std::uint32_t longest_ms = 120'000;
  const Restart restart = watch_restart(network, camera, url, Milliseconds(std::min(wait_ms, longest_ms)));
  if (restart == Restart::still_away) {
    throw Failure{Exit::no_answer,
                  fmt::format("the camera stored the domain {} and ended its remote-access programs, but they were not "
                              "back after {} s; see that its supervisor starts them again",
                              name, wait_ms / 1000)};
  }
  const bool changed = restart == Restart::seen;
  return tell(options, camera,
              {{"domain", nullptr, name}, {"changed", nullptr, changed}, {"wait_ms", nullptr, std::uint64_t{wait_ms}}},
              changed ? fmt::format("the domain is {} now; {} ended its remote-access programs and is back", name,
                                    label(camera))
                      : fmt::format("the domain was {} already; {} did not restart anything", name, label(camera)));
}

Exit operations(const Options& options, const Network& network) {
  static constexpr Column columns[] = {
      {"code", "CODE", 0}, {"name", "OPERATION", 0}, {"announced", "ANNOUNCED", 0}, {"answers", "ANSWERS", 0}};
  const Camera camera = find_camera(network, options.camera);
  const Reply reply = ask(network, camera, as_administrator(options, Op::operations));
  std::set<std::uint16_t> announced;
  for (std::size_t at = 0; at < operations_reply::payload_len; at += operations_reply::code_len)
    announced.insert(static_cast<std::uint16_t>(reply.fields().number({at, operations_reply::code_len})));
  std::set<std::uint16_t> all = announced;
  for (const OpInfo& info : known_ops) all.insert(static_cast<std::uint16_t>(info.op));
  std::vector<Record> rows;
  std::map<std::string_view, std::vector<std::uint64_t>> codes{{"announced", {announced.begin(), announced.end()}}};
  for (const std::uint16_t code : all) {
    const OpInfo* info = find_op(code);
    const char* answers = probe(options, network, camera, code);
    codes[answers].push_back(code);
    rows.push_back({{"code", "", fmt::format("0x{:04X}", code)},
                    {"name", "", std::string(info == nullptr ? "" : info->name)},
                    {"announced", "", announced.contains(code)},
                    {"answers", "", std::string(answers)}});
  }
  if (options.json) {
    return tell(options, camera,
                {{"announced", nullptr, codes["announced"]},
                 {"answered", nullptr, codes["yes"]},
                 {"silent", nullptr, codes["no"]},
                 {"not_tried", nullptr, codes["not tried"]}},
                "");
  }
  print_table(rows, columns, options.format());
  return Exit::ok;
}

}  // namespace finder
