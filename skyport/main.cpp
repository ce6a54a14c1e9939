// skyport: the bench service. Options, listeners, and the end by a signal.
#include <getopt.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <memory>

#include "http.h"
#include "server.h"
#include "status.h"

namespace skyport {
namespace {

constexpr int kUsageError = 2;
constexpr int kMostSeconds = 86400;

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
  return parse_number(value, kMostSeconds, out) && out > 0 ? "" : "is not whole seconds from 1 to 86400";
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
  return parse_fault(value, s.faults.emplace_back(), error) ? "" : "is refused: " + error;
}

struct OptionRow {
  const char* name;
  Set set;
  const char* argument;
  const char* help;
};

constexpr OptionRow kOptions[] = {
    {"listen", set_listen, "ADDR:PORT", "listen for cameras (repeatable; default 0.0.0.0:80)"},
    {"relay", set_relay, "ADDR:PORT", "listen as a relay, for absolute URLs alone (repeatable)"},
    {"status", set_status, "ADDR:PORT", "status port, on loopback (default 127.0.0.1:8089)"},
    {"database", set_database, "FILE", "where registrations are kept (default :memory:)"},
    {"account", set_account, "HID:PASSWORD", "a camera's account (repeatable)"},
    {"data-server", set_data_server, "ADDR", "answer of /daip.html (default: where the request was sent)"},
    {"realm", set_realm, "TEXT", "realm of the challenges (default skyport)"},
    {"nonce-timeout", set_nonce_timeout, "SECONDS", "life of a nonce (default 300)"},
    {"nonce-scope", set_nonce_scope, "service|path", "what one nonce is good for (default service)"},
    {"connect-timeout", set_connect_timeout, "SECONDS", "limit of a connection back (default 5)"},
    {"alias-taken", set_alias_taken, "NAME", "an alias that nobody gets (repeatable)"},
    {"fault", set_fault, "FAULT", "PATH:KIND[=ARG][@WHEN][*COUNT] (repeatable; see the README)"},
};
constexpr size_t kOptionCount = std::size(kOptions);

void print_help() {
  std::puts("skyport: the bench service, the remote-access service's side for the desk and for tests\n");
  for (const OptionRow& row : kOptions) std::printf("  --%-16s %-13s %s\n", row.name, row.argument, row.help);
  std::printf("  --%-16s %-13s %s\n", "help", "", "print this");
}

/// Reads the command line; -1 to go on, otherwise the exit status.
int read_options(int argc, char** argv, Settings& settings) {
  option table[kOptionCount + 2] = {};
  for (size_t i = 0; i < kOptionCount; ++i)
    table[i] = {kOptions[i].name, required_argument, nullptr, static_cast<int>(i)};
  table[kOptionCount] = {"help", no_argument, nullptr, static_cast<int>(kOptionCount)};
  opterr = 0;
  for (int found = 0; (found = getopt_long(argc, argv, ":", table, nullptr)) != -1;) {
    if (found == '?' || found == ':') {
      std::fprintf(stderr, "skyport: '%s' %s; --help lists the options\n", argv[optind - 1],
                   found == ':' ? "wants a value" : "is not an option");
      return kUsageError;
    }
    if (static_cast<size_t>(found) == kOptionCount) return print_help(), 0;
    const OptionRow& row = kOptions[found];
    if (const std::string error = row.set(settings, optarg); !error.empty()) {
      std::fprintf(stderr, "skyport: --%s '%s' %s\n", row.name, optarg, error.c_str());
      return kUsageError;
    }
  }
  if (optind < argc) {
    std::fprintf(stderr, "skyport: '%s' is not an option; --help lists them\n", argv[optind]);
    return kUsageError;
  }
  if (settings.listen.empty()) settings.listen.push_back({"0.0.0.0", 80});
  return -1;
}

struct Opening {
  const char* name;
  Endpoint endpoint;
  Serve serve;
};

/// Opens every listener; `report` gets a line for each. False when one can't be opened.
bool open_all(Service& service, std::vector<std::unique_ptr<Listener>>& listeners, std::string& report) {
  const auto serve_as = [&service](bool relay) {
    return [&service, relay](const Request& request) { return serve_request(service, request, relay); };
  };
  std::vector<Opening> openings;
  for (const Endpoint& endpoint : service.settings.listen) openings.push_back({"listen", endpoint, serve_as(false)});
  for (const Endpoint& endpoint : service.settings.relay) openings.push_back({"relay", endpoint, serve_as(true)});
  openings.push_back({"status", service.settings.status,
                      [&service](const Request& request) { return serve_status(service, request); }});
  for (Opening& opening : openings) {
    std::string error;
    const int fd = listen_on(opening.endpoint, error);
    const std::string at = opening.endpoint.address + ":" + std::to_string(opening.endpoint.port);
    if (fd < 0) {
      std::fprintf(stderr, "skyport: cannot listen on %s: %s; choose another with --%s\n", at.c_str(), error.c_str(),
                   opening.name);
      return false;
    }
    listeners.push_back(std::make_unique<Listener>(fd, std::move(opening.serve)));
    report += std::string("skyport: ") + opening.name + " " + at + "\n";
  }
  return true;
}

int run(Settings settings) {
  // Every thread inherits the mask, so that only sigwait below takes these.
  sigset_t ends;
  sigemptyset(&ends);
  sigaddset(&ends, SIGTERM);
  sigaddset(&ends, SIGINT);
  pthread_sigmask(SIG_BLOCK, &ends, nullptr);
  std::signal(SIGPIPE, SIG_IGN);

  const int stop_fd = eventfd(0, EFD_CLOEXEC);
  if (stop_fd < 0) throw std::runtime_error("no descriptor left");
  int result = EXIT_FAILURE;
  {
    Service service(std::move(settings), stop_fd);
    std::vector<std::unique_ptr<Listener>> listeners;
    std::string report;
    if (open_all(service, listeners, report)) {
      std::printf("skyport: ready\n%s", report.c_str());
      std::fflush(stdout);
      int signal_number = 0;
      sigwait(&ends, &signal_number);
      result = EXIT_SUCCESS;
    }
    eventfd_write(stop_fd, 1);
    listeners.clear();
  }
  close(stop_fd);
  return result;
}

}  // namespace
}  // namespace skyport

int main(int argc, char** argv) {
  try {
    skyport::Settings settings;
    const int status = skyport::read_options(argc, argv, settings);
    return status >= 0 ? status : skyport::run(std::move(settings));
  } catch (const std::exception& error) {
    std::fprintf(stderr, "skyport: cannot start: %s\n", error.what());
    return EXIT_FAILURE;
  }
}
