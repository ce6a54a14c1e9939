// kestrel-find: finds cameras on the local network and changes their remote-access settings.
// This file is the command line only.
#include <fmt/format.h>

#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <cstdint>
#include <exception>
#include <string>

#include "commands.h"

namespace {

using finder::Command;
using finder::Exit;
using finder::Options;

void add_global_options(CLI::App& app, Options& options) {
  app.add_flag("--json", options.json, "Print JSON");
  app.add_option("--timeout", options.timeout_s, "Seconds to wait for answers")->check(CLI::Range(0.05, 60.0));
  app.add_option("--interface", options.interfaces, "Use this interface only (may be repeated)")->type_name("NAME");
  app.add_option("--user", options.user, "Administrator's name (default: admin)")->type_name("NAME");
  app.add_option("--password-file", options.password_file, "Read the password from the first line of FILE")
      ->type_name("FILE");
}

void add_command(CLI::App& app, const Command& command, Options& options) {
  CLI::App* sub = app.add_subcommand(command.name, command.help)->fallthrough();
  if (command.takes_camera) {
    sub->add_option("CAMERA", options.camera, "MAC address, IPv4 address or camera name")->required()->type_name("");
  }
  if (command.takes_value != finder::Value_arg::none) {
    auto* value = sub->add_option_function<std::string>(
        command.value_name, [&](const std::string& v) { options.value = v; }, "");
    value->required(command.takes_value == finder::Value_arg::required)->type_name("");
  }
  if (std::string_view(command.name) == "domain") sub->add_flag("--yes", options.yes, "Don't ask");
  if (std::string_view(command.name) == "watch") {
    sub->add_option("--interval", options.interval_s, "Seconds from one listing to the next")
        ->check(CLI::Range(0.1, 3600.0));
    sub->add_option("--rounds", options.rounds, "End after so many listings");
  }
}

int run(int argc, char** argv) {
  Options options;
  CLI::App app("Finds cameras on the local network and changes their remote-access settings.", "kestrel-find");
  app.require_subcommand(0, 1);
  app.set_version_flag("--version", KESTREL_VERSION);
  add_global_options(app, options);
  for (const Command& command : finder::commands()) add_command(app, command, options);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& e) {
    if (e.get_exit_code() == 0) return app.exit(e);
    finder::complain(fmt::format("{}; see kestrel-find --help", e.what()));
    return static_cast<int>(Exit::usage);
  }
  if (app.get_subcommands().empty()) {
    throw finder::Failure{Exit::usage, "no command was given; see kestrel-find --help"};
  }
  std::string error;
  const auto time = finder::Milliseconds(static_cast<std::int64_t>(options.timeout_s * 1000));
  const finder::Network network{finder::open_ports(options.interfaces, error), time};
  if (network.ports.empty()) throw finder::Failure{Exit::failed, error};
  const std::string name = app.get_subcommands().front()->get_name();
  for (const Command& command : finder::commands()) {
    if (name == command.name) return static_cast<int>(command.run(options, network));
  }
  return static_cast<int>(Exit::usage);
}

}  // namespace

int main(int argc, char** argv) {
  constexpr int kInterrupted = 130;
  try {
    return run(argc, argv);
  } catch (const finder::Failure& failure) {
    if (finder::interrupted()) return kInterrupted;
    finder::complain(failure.sentence);
    return static_cast<int>(failure.status);
  } catch (const std::exception& e) {
    finder::complain(e.what());
    return static_cast<int>(Exit::failed);
  }
}
