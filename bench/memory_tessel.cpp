// libtessel as small as it can be: the loopback interface, and HTTP over buffers of fixed sizes. What a benchmark
// counts with it is the daemon's own. Bodies have a Content-Length; the bench service's have.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <nettle/base64.h>
#include <nettle/md5.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>

#pragma GCC visibility push(default)
#include "platform/tessel.h"
#pragma GCC visibility pop

namespace {

constexpr std::size_t head_len = 1024;
constexpr std::size_t max_fields = 12;

/// A request's or an answer's head; the public part comes first.
struct Packet {
  packetheader head;
  packetheader_field_node fields[max_fields];
  int len;
  char text[head_len];
};
static_assert(sizeof(md5_ctx) <= sizeof(MD5_CTX));

/// With everything clear but the text.
Packet* new_packet() {
  auto* packet = static_cast<Packet*>(std::malloc(sizeof(Packet)));
  std::memset(packet, 0, offsetof(Packet, text));
  return packet;
}

md5_ctx* state_of(MD5_CTX* context) {
  return reinterpret_cast<md5_ctx*>(context->opaque);
}

void fill(ACT_IF_INFO* info, int* index) {
  std::strcpy(info->ip, "127.0.0.1");
  std::strcpy(info->mac, "02:4b:52:10:20:30");
  std::strcpy(info->mask, "255.0.0.0");
  std::strcpy(info->name, "lo");
  *index = 1;
}

void put(Packet& packet, const char* text) {
  const std::size_t len = std::strlen(text);
  std::memcpy(packet.text + packet.len, text, len + 1);
  packet.len += static_cast<int>(len);
}

/// The daemon names the service's port alone.
packetheader* build(const char* host, const char* path, const char* method, const char* authorization,
                    const char* length) {
  Packet* packet = new_packet();
  for (const char* part : {method, " ", path, " HTTP/1.1\r\nHost: ", host, ":80\r\nConnection: close\r\n"})
    put(*packet, part);
  if (*authorization != '\0') {
    for (const char* part : {"Authorization: ", authorization, "\r\n"}) put(*packet, part);
  }
  if (*length != '\0') {
    for (const char* part : {"Content-Length: ", length, "\r\n"}) put(*packet, part);
  }
  put(*packet, "\r\n");
  return &packet->head;
}

/// Cuts the head into its fields, in place. Returns the announced length of the body.
std::size_t parse(Packet& packet) {
  std::size_t body_len = 0;
  packet.head.StatusCode = std::atoi(packet.text + std::strlen("HTTP/1.1 "));
  char* line = std::strchr(packet.text, '\r');
  for (packetheader_field_node& field : packet.fields) {
    if (line == nullptr || line[2] == '\r') break;
    *line = '\0';
    char* name = line + 2;
    line = std::strchr(name, '\r');
    char* colon = std::strchr(name, ':');
    if (colon == nullptr || line == nullptr) break;
    *colon = '\0';
    field.Field = name;
    field.FieldData = colon + 2;
    field.NextField = packet.head.FirstField;
    packet.head.FirstField = &field;
    if (std::strcmp(name, "Content-Length") == 0) body_len = std::strtoul(field.FieldData, nullptr, 10);
  }
  if (line != nullptr) *line = '\0';
  return body_len;
}

/// Receives until the head is whole. Returns where the body begins; null when it did not come.
char* receive_head(int fd, Packet& packet) {
  char* end = nullptr;
  while (end == nullptr && packet.len < static_cast<int>(head_len) - 1) {
    const ssize_t n = recv(fd, packet.text + packet.len, head_len - 1 - static_cast<std::size_t>(packet.len), 0);
    if (n <= 0) break;
    packet.len += static_cast<int>(n);
    packet.text[packet.len] = '\0';
    end = std::strchr(packet.text, '\r');
    while (end != nullptr && std::strncmp(end, "\r\n\r\n", 4) != 0) end = std::strchr(end + 1, '\r');
  }
  return end != nullptr ? end + 4 : nullptr;
}

void take_parameter(const char* challenge, const char* name, char* out, std::size_t size) {
  const char* at = std::strstr(challenge, name);
  if (at == nullptr) return;
  at += std::strlen(name);
  if (*at == '"') ++at;
  const std::size_t len = std::min(std::strcspn(at, "\","), size - 1);
  std::memcpy(out, at, len);
  out[len] = '\0';
}

/// What each character of base64 stands for.
constexpr std::array<unsigned, 128> base64_values() {
  constexpr char alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::array<unsigned, 128> values{};
  for (unsigned i = 0; i < 64; ++i) values[static_cast<unsigned char>(alphabet[i])] = i;
  return values;
}

}  // namespace

extern "C" {

int tessel_get_lock(const char* /*name*/) {
  return 1;
}
int tessel_get_active_iface(ACT_IF_INFO* info, int* index) {
  fill(info, index);
  return 1;
}
int tessel_get_present_iface(ACT_IF_INFO* info, int* index) {
  fill(info, index);
  return 1;
}
const IF_METRIC* dev_get_if_metric(int* count) {
  static const IF_METRIC only{0, "lo"};
  *count = 1;
  return &only;
}
int get_active_interface(const char* /*name*/, IFINFO* out) {
  *out = {{0x02, 0x4B, 0x52, 0x10, 0x20, 0x30}, {}, htonl(INADDR_LOOPBACK), htonl(0xFF000000), 0, 0};
  return 1;
}
int fillActIfInfo(ACT_IF_INFO* out, IFINFO* /*in*/) {
  int index = 0;
  fill(out, &index);
  return 1;
}
int tessel_get_mac3(char* text, unsigned int /*size*/) {
  std::strcpy(text, "102030");
  return 1;
}
int tessel_get_skyport_url(const char* /*domain*/, char* host) {
  std::strcpy(host, "127.0.0.1");
  return 1;
}
int tessel_get_skyport_http_url(char* url) {
  std::strcpy(url, "http://10203040.skyport.test");
  return 1;
}

packetheader* httpBuildPacket(char* /*user*/, char* host, int /*port*/, char* path, char* method) {
  return build(host, path, method, "", "");
}
packetheader* httpBuildPacket3(char* /*user*/, char* host, int /*port*/, char* path, char* method, char* length,
                               int /*length_len*/) {
  return build(host, path, method, "", length);
}
packetheader* httpBuildPacket_Auth_Encrypt(char* /*user*/, char* host, int /*port*/, char* uri, char* method,
                                           int content_length, char* authorization, int /*authorization_len*/,
                                           int with_body) {
  char length[12] = "";
  if (with_body != 0) std::snprintf(length, sizeof(length), "%d", content_length);
  return build(host, uri, method, authorization, length);
}
int ILibGetRawPacket(packetheader* packet, char** raw) {
  const auto* whole = reinterpret_cast<const Packet*>(packet);
  *raw = static_cast<char*>(std::malloc(static_cast<std::size_t>(whole->len)));
  std::memcpy(*raw, whole->text, static_cast<std::size_t>(whole->len));
  return whole->len;
}
void ILibDestructPacket(packetheader* packet) {
  std::free(packet);
}
unsigned short ILibGetStreamSocket(int /*local_addr*/, unsigned short /*local_port*/, int* sock) {
  *sock = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  return 0;
}
void ILibProcessSocketRecv(ILibHCHTTPReaderObject* reader) {
  Packet* packet = new_packet();
  const char* body = receive_head(reader->ClientSocket, *packet);
  if (body == nullptr) {
    std::free(packet);
    return;
  }
  const char* end = packet->text + packet->len;
  const std::size_t len = parse(*packet);
  auto have = static_cast<std::size_t>(end - body);
  reader->PacketHeader = &packet->head;
  reader->Body = static_cast<char*>(std::malloc(len + 1));
  std::memcpy(reader->Body, body, std::min(have, len));
  while (have < len) {
    const ssize_t n = recv(reader->ClientSocket, reader->Body + have, len - have, 0);
    if (n <= 0) break;
    have += static_cast<std::size_t>(n);
  }
  reader->Body_Read = reader->Body_Size = static_cast<int>(std::min(have, len));
}
void ILibForceClose(void* reader) {
  auto* object = static_cast<ILibHCHTTPReaderObject*>(reader);
  if (object->ClientSocket >= 0) close(object->ClientSocket);
  object->ClientSocket = -1;
}
void GetAuthenticateInfo(packetheader_field_node* field, AuthenticateInfo* auth) {
  while (field != nullptr && std::strcmp(field->Field, "WWW-Authenticate") != 0) field = field->NextField;
  if (field == nullptr) return;
  take_parameter(field->FieldData, "realm=", auth->realm, sizeof(auth->realm));
  take_parameter(field->FieldData, "nonce=", auth->nonce, sizeof(auth->nonce));
  take_parameter(field->FieldData, "algorithm=", auth->algorithm, sizeof(auth->algorithm));
  take_parameter(field->FieldData, "qop=", auth->qop, sizeof(auth->qop));
}

void MD5Init(MD5_CTX* context) {
  md5_init(state_of(context));
}
void MD5Update(MD5_CTX* context, unsigned char* data, unsigned int len) {
  md5_update(state_of(context), len, data);
}
void MD5Final(unsigned char digest[16], MD5_CTX* context) {
  md5_digest(state_of(context), MD5_DIGEST_SIZE, digest);
}
int b64_encode(const void* in, unsigned int len, void* out) {
  const std::size_t encoded = BASE64_ENCODE_RAW_LENGTH(std::size_t{len});
  base64_encode_raw(static_cast<char*>(out), len, static_cast<const std::uint8_t*>(in));
  static_cast<char*>(out)[encoded] = '\0';
  return static_cast<int>(encoded);
}
int b64_decode(const void* in, unsigned int len, void* out) {
  static constexpr auto values = base64_values();
  const auto* text = static_cast<const unsigned char*>(in);
  auto* bytes = static_cast<unsigned char*>(out);
  int count = 0;
  unsigned padding = 0;
  for (unsigned i = 0; i + 3 < len; i += 4) {
    const unsigned word = values[text[i] & 127U] << 18 | values[text[i + 1] & 127U] << 12 |
                          values[text[i + 2] & 127U] << 6 | values[text[i + 3] & 127U];
    bytes[count++] = static_cast<unsigned char>(word >> 16);
    bytes[count++] = static_cast<unsigned char>(word >> 8);
    bytes[count++] = static_cast<unsigned char>(word);
  }
  while (padding < len && text[len - 1 - padding] == '=') ++padding;
  count -= static_cast<int>(padding);
  bytes[count] = '\0';
  return count;
}

}  // extern "C"
