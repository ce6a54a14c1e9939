// libtessel: requests are built and serialised, and sockets for them made.
#include "http_packet.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <memory>

#include "atomic_file.h"

namespace host {

namespace {

// Callers put head and body into buffers of one or two kilobytes: the head has only the fields it needs.
constexpr std::string_view common_fields = "User-Agent: kestrel\r\nConnection: close\r\n";
constexpr std::size_t max_head_len = 8192;  // bytes
constexpr int max_port = 65535;

struct Request {
  const char* host;
  int port;
  const char* path;
  const char* method;
  std::string_view authorization;  // empty for none
  std::string content_length;      // decimal; empty when there is no body
};

/// A text that cannot break out of its place in the head: not empty, no blanks, no control characters.
bool is_word(const char* text) {
  if (text == nullptr || *text == '\0') return false;
  return std::ranges::all_of(std::string_view(text), [](char c) { return c > ' ' && c != 0x7F; });
}

bool is_field_value(std::string_view text) {
  return std::ranges::none_of(text, [](char c) { return static_cast<unsigned char>(c) < ' ' || c == 0x7F; });
}

bool is_decimal(std::string_view text) {
  return std::ranges::all_of(text, [](char c) { return c >= '0' && c <= '9'; });
}

std::string serialise(const Request& request) {
  std::string raw = std::string(request.method) + " " + request.path + " HTTP/1.1\r\n";
  raw += std::string("Host: ") + request.host + ":" + std::to_string(request.port) + "\r\n";
  raw += common_fields;
  if (!request.authorization.empty()) raw.append("Authorization: ").append(request.authorization).append("\r\n");
  if (!request.content_length.empty()) raw += "Content-Length: " + request.content_length + "\r\n";
  return raw + "\r\n";
}

packetheader* build(const Request& request) {
  if (!is_word(request.host) || !is_word(request.path) || !is_word(request.method)) return nullptr;
  if (request.port < 1 || request.port > max_port) return nullptr;
  if (!is_field_value(request.authorization) || !is_decimal(request.content_length)) return nullptr;
  auto packet = std::make_unique<Packet>();
  packet->raw = serialise(request);
  if (packet->raw.size() > max_head_len) return nullptr;
  return &packet.release()->head;
}

/// A caller's text with its length, bounded by its terminator; empty when there is none.
std::string_view bounded(const char* text, int len) {
  if (text == nullptr || len <= 0) return {};
  return {text, strnlen(text, static_cast<std::size_t>(len))};
}

/// A bound socket, -1 on failure. Never one of the standard descriptors, so that a reader that was
/// cleared to zero holds no socket.
int bound_socket(int local_addr, unsigned short local_port) {
  const Descriptor fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (fd.get() < 0) return -1;
  sockaddr_in local{};
  local.sin_family = AF_INET;
  local.sin_addr.s_addr = static_cast<in_addr_t>(local_addr);
  local.sin_port = htons(local_port);
  if (bind(fd.get(), reinterpret_cast<const sockaddr*>(&local), sizeof(local)) != 0) return -1;
  return fcntl(fd.get(), F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
}

unsigned short port_of(int fd) {
  sockaddr_in local{};
  socklen_t len = sizeof(local);
  if (getsockname(fd, reinterpret_cast<sockaddr*>(&local), &len) != 0) return 0;
  return ntohs(local.sin_port);
}

}  // namespace

}  // namespace host

extern "C" {

// The user's name is part of the Authorization value; the head has no field of its own for it.
packetheader* httpBuildPacket(char* /*user*/, char* host, int port, char* path, char* method) {
  return host::guarded(static_cast<packetheader*>(nullptr), [&] {
    return host::build({host, port, path, method, {}, {}});
  });
}

packetheader* httpBuildPacket3(char* /*user*/, char* host, int port, char* path, char* method,
                               char* content_length_text, int content_length_text_len) {
  return host::guarded(static_cast<packetheader*>(nullptr), [&]() -> packetheader* {
    const std::string_view length = host::bounded(content_length_text, content_length_text_len);
    if (length.empty()) return nullptr;
    return host::build({host, port, path, method, {}, std::string(length)});
  });
}

packetheader* httpBuildPacket_Auth_Encrypt(char* /*user*/, char* host, int port, char* uri, char* method,
                                           int content_length, char* authorization, int authorization_len,
                                           int with_body) {
  return host::guarded(static_cast<packetheader*>(nullptr), [&]() -> packetheader* {
    if (content_length < 0) return nullptr;
    const std::string length = with_body != 0 ? std::to_string(content_length) : "";
    return host::build({host, port, uri, method, host::bounded(authorization, authorization_len), length});
  });
}

int ILibGetRawPacket(packetheader* packet, char** raw) {
  if (raw == nullptr) return 0;
  *raw = nullptr;
  if (packet == nullptr) return 0;
  const std::string& text = static_cast<host::Packet*>(packet->opaque)->raw;
  auto* copy = static_cast<char*>(std::malloc(text.size() + 1));
  if (copy == nullptr) return 0;
  std::memcpy(copy, text.c_str(), text.size() + 1);
  *raw = copy;
  return static_cast<int>(text.size());
}

void ILibDestructPacket(packetheader* packet) {
  if (packet != nullptr) delete static_cast<host::Packet*>(packet->opaque);
}

unsigned short ILibGetStreamSocket(int local_addr, unsigned short local_port, int* sock) {
  if (sock == nullptr) return 0;
  *sock = host::bound_socket(local_addr, local_port);
  return *sock < 0 ? 0 : host::port_of(*sock);
}

void ILibForceClose(void* reader) {
  auto* object = static_cast<ILibHCHTTPReaderObject*>(reader);
  if (object == nullptr) return;
  if (object->ClientSocket > STDERR_FILENO) close(object->ClientSocket);
  object->ClientSocket = -1;
}

}  // extern "C"
