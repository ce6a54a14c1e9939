// The resolver's file, read for the surveys: which DNS servers the camera uses.
#include <arpa/inet.h>
#include <netinet/in.h>

#include <cstdio>
#include <cstring>

#include "core/debug_log.h"
#include "finder/operations.h"
#include "finder/record.h"

namespace kestrel {

namespace {

/// Where Finderd_get_dns writes, seen from what it is given, the survey's camera name.
constexpr std::size_t dns_offset = 80;

/// Surveys come in bursts: what was read serves those of the next milliseconds.
constexpr std::uint64_t fresh_ms = 5;

struct DnsServers {
  std::uint64_t read_ms;  // on the monotonic clock
  std::size_t count;
  in_addr server[2];
};

void take_line(DnsServers& servers, const char* line) {
  char key[256];
  char value[256];
  if (std::sscanf(line, "%255s %255s", key, value) != 2 || std::strcmp(key, "nameserver") != 0) return;
  in_addr server{};
  if (inet_aton(value, &server) == 0) {
    print_error("Finderd_get_dns");
    return;
  }
  // Every later server takes the second place, so that it ends as the last of the file.
  if (servers.count < 2) ++servers.count;
  servers.server[servers.count - 1] = server;
}

}  // namespace

void Finderd_get_dns(std::uint8_t* base) {
  static DnsServers servers{};
  const std::uint64_t now = finder_now_ms();
  if (now - servers.read_ms >= fresh_ms) {
    std::FILE* file = std::fopen("/etc/resolv.conf", "re");
    if (file == nullptr) {
      print_error("Finderd_get_dns");
      return;
    }
    servers = {};
    servers.read_ms = now;
    char line[256];
    while (std::fgets(line, sizeof(line), file) != nullptr) take_line(servers, line);
    std::fclose(file);
  }
  std::memcpy(base + dns_offset, servers.server, servers.count * sizeof(in_addr));
}

}  // namespace kestrel
