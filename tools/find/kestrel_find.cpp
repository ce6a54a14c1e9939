// kestrel-find: finds cameras on the local network and changes their remote-access settings.
// This file is the command line only.
#include <fmt/format.h>

#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <cstdint>
#include <cstdlib>
#include <exception>
#include <string>
#include <vector>

#include "commands.h"

namespace {

using finder::Command;
using finder::Exit;
using finder::Options;

constexpr const char* help_end = R"(Password: the first line of --password-file, else the environment variable
KESTREL_PASSWORD, else asked for at the terminal.

Exit status: 0 done, 1 no answer, 2 wrong command line or no consent,
3 credentials refused, 4 alias pending, 5 alias taken, 6 the camera or the
network failed, 130 interrupted.)";

// A check of its own: the library's range lets "nan" pass.
CLI::Validator seconds(double least, double most) {
  const auto check = [=](const std::string& text) {
    char* end = nullptr;
    const double value = std::strtod(text.c_str(), &end);
    const bool fits = !text.empty() && *end == '\0' && value >= least && value <= most;
    return fits ? std::string() : fmt::format("'{}' is not a number of seconds from {:g} to {:g}", text, least, most);
  };
  return {check, "", "seconds"};
}

std::string with_default(const char* help, double value) {
  return fmt::format("{} (default {:g})", help, value);
}

// Every command has them too, so that its help shows them; they may stand before or after its name.
void add_global_options(CLI::App& app, Options& options, const std::string& group) {
  const auto add_interfaces = [&](const std::vector<std::string>& names) {
    options.interfaces.insert(options.interfaces.end(), names.begin(), names.end());
  };
  auto* json = app.add_flag("--json", options.json, "Print JSON");
  app.add_flag("-p,--parsable", options.lines, "Print fields between semicolons, for scripts")->excludes(json);
  app.add_option("--timeout", options.timeout_s, with_default("How long to wait for answers", options.timeout_s))
      ->type_name("SECONDS")
      ->check(seconds(0.05, 60));
  app.add_option_function<std::vector<std::string>>(
         "--interface", add_interfaces, "Use this interface only; may be repeated (default: all that can broadcast)")
      ->type_name("NAME")
      ->expected(1)
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
  app.add_option("--user", options.user, "Administrator's name (default admin)")->type_name("NAME");
  app.add_option("--password-file", options.password_file, "Read the password from the first line of FILE")
      ->type_name("FILE");
  app.add_flag("--broadcast", options.broadcast, "Broadcast credentials, too, when a camera is silent");
  for (CLI::Option* option : app.get_options()) {
    if (!option->check_name("--help") && !option->check_name("--version")) option->group(group);
  }
  app.footer(help_end);
}

void add_own_options(CLI::App& sub, Options& options) {
  const std::string name = sub.get_name();
  if (name == "domain") sub.add_flag("--yes", options.yes, "Don't ask");
  if (name == "alias") {
    sub.add_flag(fmt::format("--wait{{{}}}", finder::alias_wait_s), options.wait_s,
                 fmt::format("Wait for the verdict, {} s or --wait=SECONDS", finder::alias_wait_s))
        ->check(CLI::Range(1, 86400));
  }
  if (name != "watch") return;
  sub.add_option("--interval", options.interval_s, with_default("Time between listings", options.interval_s))
      ->type_name("SECONDS")
      ->check(seconds(0.1, 3600));
  sub.add_option("--rounds", options.rounds, "End after so many listings (default: when interrupted)")
      ->type_name("COUNT");
}

void add_command(CLI::App& app, const Command& command, Options& options) {
  CLI::App* sub = app.add_subcommand(command.name, command.help);
  add_global_options(*sub, options, "Options of every command");
  if (command.takes_camera) {
    sub->add_option("CAMERA", options.camera, "MAC address, IPv4 address or camera name")->required()->type_name("");
  }
  if (command.takes_value != finder::ValueArg::none) {
    auto* value = sub->add_option_function<std::string>(
        command.value_name, [&](const std::string& v) { options.value = v; },
        command.takes_value == finder::ValueArg::optional ? "What it becomes; without it, what it is is shown" : "");
    value->required(command.takes_value == finder::ValueArg::required)->type_name("");
  }
  add_own_options(*sub, options);
}

int run(int argc, char** argv) {
  Options options;
  CLI::App app(
      "Finds cameras on the local network and changes their remote-access settings. Without a command it lists them.",
      "kestrel-find");
  app.require_subcommand(0, 1);
  app.set_version_flag("--version", KESTREL_VERSION);
  add_global_options(app, options, "Options");
  for (const Command& command : finder::commands()) add_command(app, command, options);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    if (e.get_exit_code() == 0) return app.exit(e);
    finder::complain(fmt::format("{}; see kestrel-find --help", e.what()));
    return static_cast<int>(Exit::usage);
  }
  std::string error;
  const auto time = finder::Milliseconds(static_cast<std::int64_t>(options.timeout_s * 1000));
  const finder::Network network{finder::open_ports(options.interfaces, error), time, options.broadcast};
  if (network.ports.empty()) throw finder::Failure{Exit::failed, error};
  const std::string name = app.get_subcommands().empty() ? "list" : app.get_subcommands().front()->get_name();
  for (const Command& command : finder::commands()) {
    if (name == command.name) return static_cast<int>(command.run(options, network));
  }
  return static_cast<int>(Exit::usage);
}

}  // namespace

int main(int argc, char** argv) {
  constexpr int interrupted_status = 130;
  try {
    return run(argc, argv);
  } catch (const finder::Failure& failure) {
    if (finder::interrupted()) return interrupted_status;
    finder::complain(failure.sentence);
    return static_cast<int>(failure.status);
  } catch (const std::exception& e) {
    finder::complain(e.what());
    return static_cast<int>(Exit::failed);
  }
}
