// skyport: the bench service. Listeners, and the end by a signal.
#include <sys/eventfd.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <memory>

#include "http.h"
#include "options.h"
#include "server.h"
#include "status.h"

namespace skyport {
namespace {

struct Opening {
  const char* name;
  Endpoint endpoint;
  Serve serve;
  bool for_cameras = true;
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
                      [&service](const Request& request) { return serve_status(service, request); }, false});
  for (Opening& opening : openings) {
    std::string error;
    const int fd = listen_on(opening.endpoint, error);
    const std::string at = opening.endpoint.address + ":" + std::to_string(opening.endpoint.port);
    if (fd < 0) {
      std::fprintf(stderr, "skyport: cannot listen on %s: %s; choose another with --%s\n", at.c_str(), error.c_str(),
                   opening.name);
      return false;
    }
    const Broken broken = [&service](const Request& request, unsigned status, const std::string& why) {
      note_broken(service, request, status, why);
    };
    listeners.push_back(std::make_unique<Listener>(fd, service.settings.max_connections, std::move(opening.serve),
                                                   opening.for_cameras ? broken : nullptr));
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
