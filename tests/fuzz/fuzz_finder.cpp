// A datagram to the LAN finder, on a platform whose texts fill their fields without an end.
#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>

#include "core/text.h"
#include "fake_platform/fake_platform.h"
#include "finder/finder.h"
#include "finder/packet.h"
#include "finder/record.h"
#include "fuzz.h"
#include "support/nettle_cipher.h"

using namespace kestrel;

extern "C" int kill(pid_t /*pid*/, int /*number*/) noexcept {
  return 0;
}

namespace kestrel {
int conn_report(DeviceContext* /*ctx*/, AuthenticateInfo* /*auth*/, char* /*last_report*/) {
  return 0;
}
}  // namespace kestrel

namespace {

std::string request(FinderOpcode opcode, const std::string& user, const std::string& argument) {
  std::string text(at_arg, '\0');
  const auto put = [&](std::size_t at, const std::string& bytes) { text.replace(at, bytes.size(), bytes); };
  const auto put_word = [&](std::size_t at, unsigned value) {
    put(at, {static_cast<char>(value & 0xFF), static_cast<char>(value >> 8)});
  };
  put_word(at_magic, finder_request_magic);
  put_word(at_opcode, opcode);
  put_word(at_length, static_cast<unsigned>(at_arg + argument.size() - finder_header_len));
  put(at_mac, user.empty() ? "\xff\xff\xff\xff\xff\xff" : std::string("\x00\x11\x22\x0a\x0b\x0c", 6));
  put(at_user, nettle_cipher::base64(user));
  put(at_password, nettle_cipher::base64(fake.admin_password));
  return text + argument;
}

int loopback_socket(sockaddr_in& at) {
  const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  at.sin_family = AF_INET;
  at.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof(at);
  require(bind(fd, reinterpret_cast<const sockaddr*>(&at), len) == 0, "bind");
  getsockname(fd, reinterpret_cast<sockaddr*>(&at), &len);
  return fd;
}

void set_up() {
  fake_reset();
  const std::string endless(70, 't');
  for (std::string* text :
       {&fake.model, &fake.firmware, &fake.spt_version, &fake.oem_version, &fake.brand, &fake.product,
        &fake.camera_name, &fake.http_url, &fake.domain, &fake.domain_ip, &fake.alias, &fake.last_alias}) {
    *text = endless;
  }
  fake.users = {"guest", endless};
}

/// Whether the request carries the administrator's password.
bool has_password(const std::string& text) {
  const std::string field = text.size() > at_password ? text.substr(at_password, finder_credential_len).c_str() : "";
  char plain[256];
  b64_decode(field.data(), static_cast<unsigned>(field.size()), plain);
  return fake.admin_password == plain;
}

}  // namespace

Texts fuzz_seeds() {
  const std::string off(1, '\0');
  Texts seeds{request(op_survey, "", ""), request(op_spt_survey, "", ""), request(op_set_enable, "guest", off)};
  for (const FinderOpcode opcode : {op_get_url, op_list, op_self_conf_result, op_get_alias, op_alias_status}) {
    seeds.push_back(request(opcode, "admin", ""));
  }
  for (const FinderOpcode opcode : {op_set_enable, op_set_alias, op_set_domain}) {
    seeds.push_back(request(opcode, "admin", opcode == op_set_enable ? off : "rose.test"));
  }
  return seeds;
}

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static sockaddr_in camera{}, tool{};
  static const int camera_fd = loopback_socket(camera), tool_fd = loopback_socket(tool);
  static DeviceContext record{};
  set_up();
  Finderd_CST();
  finder.ctx = &record;
  finder.checks = {};  // every input may have its password looked at
  finder.served.iIfNum = 1;
  finder.fd[0] = camera_fd;
  copy_text(finder.served.present_if.mac, "00:11:22:0A:0B:0C");
  if (sendto(tool_fd, data, size, 0, reinterpret_cast<const sockaddr*>(&camera), sizeof(camera)) < 0) return 0;
  Finderd_handle_request();
  const bool changed = !fake_calls({"cre_set", "srv_update", "srv_set", "run_shell"}).empty();
  require(!changed || has_password(text_of(data, size)), "settings are the administrator's");
  // A reply may take its time; then a later turn takes it.
  std::vector<std::uint8_t> reply(1024);
  for (ssize_t len = 0; (len = recv(tool_fd, reply.data(), reply.size(), MSG_DONTWAIT)) > 0;) {
    require(len >= static_cast<ssize_t>(finder_header_len), "a reply has its header");
    require(reply[0] == 0xEE && reply[1] == 0xFE, "a reply has its magic");
    require(len == static_cast<ssize_t>(finder_header_len) + reply[at_length] + 256 * reply[at_length + 1],
            "its length");
  }
  return 0;
}
