#include "options.h"

#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

namespace skyport {
namespace {

constexpr int usage_error = 2;
constexpr int max_seconds = 86400;

using Set = std::string (*)(Settings&, const std::string&);  // what is wrong with the value, or ""

std::string set_endpoint(const std::string& value, Endpoint& out) {
  return parse_endpoint(value, out) ? "" : "is not ADDR:PORT with a dotted IPv4 address";
}

std::string set_listen(Settings& s, const std::string& value) {
  return set_endpoint(value, s.listen.emplace_back());
}
std::string set_relay(Settings& s, const std::string& value) {
  return set_endpoint(value, s.relay.emplace_back());
}

std::string set_status(Settings& s, const std::string& value) {
  if (std::string error = set_endpoint(value, s.status); !error.empty()) return error;
  return s.status.address.starts_with("127.") ? ""
                                              : "is not a loopback address; the status port takes orders from anyone "
                                                "who reaches it, so use 127.0.0.1:PORT";
}

std::string set_database(Settings& s, const std::string& value) {
  s.database = value;
  return value.empty() ? "is empty; name a file or :memory:" : "";
}

std::string set_account(Settings& s, const std::string& value) {
  const size_t colon = value.find(':');
  if (colon == 0 || colon == std::string::npos) return "is not HID:PASSWORD";
  s.accounts[value.substr(0, colon)] = value.substr(colon + 1);
  return "";
}

std::string set_accounts(Settings& s, const std::string& value) {
  std::ifstream file(value);
  if (!file || file.peek() == EOF) return "can't be read, or is empty";
  int number = 0;
  for (std::string line; std::getline(file, line);) {
    ++number;
    if (line.empty()) continue;
    if (const std::string error = set_account(s, line); !error.empty())
      return "line " + std::to_string(number) + " " + error;
  }
  return "";
}

std::string set_data_server(Settings& s, const std::string& value) {
  s.data_server = value;
  return is_ipv4(value) ? "" : "is not a dotted IPv4 address";
}

std::string set_realm(Settings& s, const std::string& value) {
  s.realm = value;
  for (const char c : value)
    if (c < ' ' || c > '~' || c == '"' || c == '\\') return "holds more than plain characters without quotes";
  return value.empty() ? "is empty" : "";
}

std::string set_seconds(const std::string& value, uint64_t& out) {
  return parse_number(value, max_seconds, out) && out > 0 ? "" : "is not whole seconds from 1 to 86400";
}

std::string set_nonce_timeout(Settings& s, const std::string& value) {
  uint64_t seconds = 0;
  std::string error = set_seconds(value, seconds);
  s.nonce_timeout_s = static_cast<int>(seconds);
  return error;
}

std::string set_connect_timeout(Settings& s, const std::string& value) {
  uint64_t seconds = 0;
  std::string error = set_seconds(value, seconds);
  s.connect_timeout_s = static_cast<double>(seconds);
  return error;
}

std::string set_max_connections(Settings& s, const std::string& value) {
  constexpr uint64_t most = 100000;
  uint64_t number = 0;
  if (!parse_number(value, most, number) || number == 0) return "is not a number from 1 to 100000";
  s.max_connections = static_cast<unsigned>(number);
  return "";
}

std::string set_nonce_scope(Settings& s, const std::string& value) {
  s.nonce_per_path = value == "path";
  return value == "path" || value == "service" ? "" : "is neither 'service' nor 'path'";
}

std::string set_alias_taken(Settings& s, const std::string& value) {
  s.aliases_taken.push_back({value, ""});
  const std::string error = alias_error(value);
  return error.empty() ? "" : "is no alias: " + error;
}

std::string set_fault(Settings& s, const std::string& value) {
  std::string error;
  if (s.faults.size() == max_faults)
    return "is one too many: at most " + std::to_string(max_faults) + " can be in force";
  return parse_fault(value, s.faults.emplace_back(), error) ? "" : "is refused: " + error;
}

struct OptionRow {
  const char* name;
  Set set;
  const char* argument;
  const char* usual;  // default, for the help
  const char* help;
};

constexpr OptionRow option_rows[] = {
    {"--listen", set_listen, "ADDR:PORT", "0.0.0.0:80", "Listen for cameras (repeatable)"},
    {"--relay", set_relay, "ADDR:PORT", "", "Listen as a relay, for absolute URLs alone (repeatable)"},
    {"--status", set_status, "ADDR:PORT", "127.0.0.1:8089", "Status port, on loopback"},
    {"--database", set_database, "FILE", ":memory:", "Where registrations are kept"},
    {"--account", set_account, "HID:PASSWORD", "", "A camera's account (repeatable)"},
    {"--accounts", set_accounts, "FILE", "", "Accounts, one a line"},
    {"--data-server", set_data_server, "ADDR", "",
     "Answer of /daip.html (default: the address that the request was sent to)"},
    {"--realm", set_realm, "TEXT", "skyport", "Realm of the challenges"},
    {"--nonce-timeout", set_nonce_timeout, "SECONDS", "300", "Life of a nonce"},
    {"--nonce-scope", set_nonce_scope, "service|path", "service", "What one nonce is good for"},
    {"--connect-timeout", set_connect_timeout, "SECONDS", "5", "Limit of a connection back"},
    {"--max-connections", set_max_connections, "N", "4096", "Connections of a listener at a time; more are refused"},
    {"--alias-taken", set_alias_taken, "NAME", "", "An alias that nobody gets (repeatable)"},
    {"--fault", set_fault, "FAULT", "", "PATH:KIND[=ARG][@WHEN][*COUNT] (repeatable; see skyport(1))"},
};

void add_option(CLI::App& app, const OptionRow& row, Settings& settings) {
  const auto set = [&settings, row](const std::vector<std::string>& values) {
    for (const std::string& value : values) {
      const std::string error = row.set(settings, value);
      if (!error.empty()) throw CLI::ValidationError(row.name, std::string("'").append(value).append("' ") + error);
    }
  };
  const std::string usual = *row.usual == '\0' ? "" : std::string(" (default ") + row.usual + ")";
  app.add_option_function<std::vector<std::string>>(row.name, set, row.help + usual)
      ->type_name(row.argument)
      ->expected(1)
      ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
}

}  // namespace

int read_options(int argc, char** argv, Settings& settings) {
  CLI::App app("The bench service: the remote-access service's side for the desk and for tests.", "skyport");
  app.set_version_flag("--version", KESTREL_VERSION);
  for (const OptionRow& row : option_rows) add_option(app, row, settings);
  app.footer(
      "Exit status: 0 ended by SIGTERM or SIGINT, 1 a listener or the database can't be opened, 2 wrong option.");
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    if (error.get_exit_code() == 0) return app.exit(error);
    std::fprintf(stderr, "skyport: %s; --help lists the options\n", error.what());
    return usage_error;
  }
  if (settings.listen.empty()) settings.listen.push_back({"0.0.0.0", 80});
  return -1;
}

}  // namespace skyport
