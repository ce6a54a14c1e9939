// kestrel-explain: tells the story in a daemon's log, and the verdict. This file is the command line only.
#include <fmt/format.h>

#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <algorithm>
#include <csignal>
#include <cstdio>
#include <ctime>
#include <exception>
#include <stdexcept>
#include <string>
#include <vector>

#include "output.h"
#include "printer.h"
#include "reader.h"
#include "redact.h"
#include "story.h"
#include "verdict.h"

namespace {

constexpr int nothing_found = 1;
constexpr int usage_error = 2;

struct Options {
  std::vector<std::string> files;
  bool alone = false;
  bool follow = false;
  bool json = false;
  bool verdict_only = false;
  bool redact = false;
  std::string output = "-";
  std::string addresses = "public";
};

volatile std::sig_atomic_t end_requested = 0;

void request_end(int /*signal*/) {
  end_requested = 1;
}

void complain(const std::string& sentence) {
  // A closed standard error must not end the tool in another way than by its status.
  std::fputs(fmt::format("kestrel-explain: {}\n", finder::printable(sentence)).c_str(), stderr);
}

int complain_of_no_log() {
  complain("no line of a daemon's log in the input; give it /tmp/kestreld_log.txt of the camera");
  return nothing_found;
}

int finish(const explain::Story& story, const explain::Judge& judge, explain::Printer& printer,
           const explain::LogEnd& end) {
  if (!story.is_daemons()) return complain_of_no_log();
  printer.print_verdict(judge.verdict(), end);
  if (std::fflush(stdout) != 0) throw std::runtime_error("can't write to standard output");
  return 0;
}

int explain_files(const Options& options) {
  explain::Printer printer(options.json ? explain::Printer::Format::json : explain::Printer::Format::text, false);
  explain::Judge judge;
  explain::Story story([&](const explain::Event& event) {
    judge.take(event);
    if (!options.verdict_only) printer.take(event);
  });
  const std::time_t changed =
      explain::read_files(explain::files_in_order(options.files, options.alone), [&](const explain::Line& line) {
        story.take(line);
        return true;
      });
  return finish(story, judge, printer, {story.waited_s(), changed});
}

int follow(const Options& options) {
  std::signal(SIGINT, request_end);
  std::signal(SIGTERM, request_end);
  explain::Printer printer(options.json ? explain::Printer::Format::json : explain::Printer::Format::text, true);
  explain::Judge judge;
  explain::Story story([&](const explain::Event& event) {
    judge.take(event);
    if (!options.verdict_only) printer.take(event);
  });
  explain::Standing told = explain::Standing::undecided;
  explain::FollowCalls calls;
  bool news = true;  // since the last verdict
  calls.sink = [&](const explain::Line& line) {
    story.take(line);
    return news = true;
  };
  // All that was there has been read: what stands now is news when it is another.
  calls.pause = [&] {
    const explain::Verdict verdict = judge.verdict();
    if (verdict.standing == told) return;
    printer.print_verdict(verdict, {story.waited_s(), 0});
    told = verdict.standing;
    news = false;
  };
  calls.lost = [&] { printer.remark("lines of the log were lost here: it was rotated twice, or cut"); };
  calls.ended = [] { return end_requested != 0; };
  explain::follow_file(options.files[0], calls);
  return news ? finish(story, judge, printer, {story.waited_s(), 0}) : 0;
}

void check(const Options& options) {
  const bool one_file = options.files.size() == 1 && options.files[0] != "-";
  if (options.follow && !one_file) throw CLI::ValidationError("--follow needs the name of one log file");
  if (options.files.size() > 1 && std::count(options.files.begin(), options.files.end(), "-") > 0) {
    throw CLI::ValidationError("standard input can't be read together with files");
  }
}

int run(int argc, char** argv) {
  Options options;
  CLI::App app("Tells what a camera's daemon did, out of its log, and whether and why not the camera can be reached.",
               "kestrel-explain");
  app.set_version_flag("--version", KESTREL_VERSION);
  app.add_option("FILE", options.files, "Log files; standard input when missing or -")->type_name("");
  app.add_flag("--alone", options.alone, "Read one file of a pair without the .old before it");
  auto* follow_flag = app.add_flag("-f,--follow", options.follow, "Go on as the log grows, across rotations");
  auto* json = app.add_flag("--json", options.json, "One JSON object a line: events, and the verdict");
  auto* verdict = app.add_flag("--verdict", options.verdict_only, "The verdict only, without the story");
  auto* redact = app.add_flag("--redact", options.redact, "Write a copy without secrets instead")
                     ->excludes(follow_flag, json, verdict);
  app.add_option("-o,--output", options.output, "Where the copy goes")->type_name("FILE")->needs(redact);
  app.add_option("--addresses", options.addresses, "Which IPv4 addresses the copy has replaced")
      ->type_name("WHICH")
      ->check(CLI::IsMember({"none", "public", "all"}))
      ->needs(redact);
  try {
    app.parse(argc, argv);
    check(options);
  } catch (const CLI::ParseError& e) {
    if (e.get_exit_code() == 0) return app.exit(e);
    complain(fmt::format("{}; see kestrel-explain --help", e.what()));
    return usage_error;
  }
  if (options.redact) {
    const auto addresses = options.addresses == "none"  ? explain::Addresses::none
                           : options.addresses == "all" ? explain::Addresses::all
                                                        : explain::Addresses::public_only;
    const explain::Redacted redacted =
        explain::redact_files(explain::files_in_order(options.files, options.alone), options.output, addresses);
    if (redacted == explain::Redacted::not_a_log) return complain_of_no_log();
    if (redacted == explain::Redacted::common_word) {
      complain(
          "a host id, name or password is very short or a word of the log; it was replaced only where it stands "
          "as one, so read the copy before you mail it");
    }
    return 0;
  }
  return options.follow ? follow(options) : explain_files(options);
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return run(argc, argv);
  } catch (const std::exception& e) {
    complain(e.what());
    return usage_error;
  }
}
