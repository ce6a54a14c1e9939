// The fake platform's HTTP packets: requests are recorded and serialised, responses come from the script, and a
// socket is one end of a pair whose other end the fake keeps.
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "fake_platform/fake_platform.h"

namespace {

struct Packet {
  packetheader head{};
  std::string raw;
  packetheader_field_node challenge{"WWW-Authenticate", "Digest", nullptr};
};

Packet* new_packet() {
  auto* packet = new Packet;
  packet->head.opaque = packet;
  ++fake.live_packets;
  return packet;
}

packetheader* build(FakeRequest request) {
  fake.requests.push_back(request);
  fake_record(request.builder);
  if (fake_result(request.builder.c_str(), 1) == 0) return nullptr;
  Packet* packet = new_packet();
  packet->raw = request.method + " " + request.path + " HTTP/1.1\r\nHost: " + request.host + ":" +
                std::to_string(request.port) + "\r\n";
  if (!request.authorization.empty()) packet->raw += "Authorization: " + request.authorization + "\r\n";
  if (request.content_length >= 0) packet->raw += "Content-Length: " + std::to_string(request.content_length) + "\r\n";
  packet->raw += "\r\n";
  if (fake.raw_len >= 0) packet->raw.resize(static_cast<std::size_t>(fake.raw_len), ' ');
  return &packet->head;
}

/// What the daemon has sent and nobody has read yet.
std::string drain() {
  static char bytes[1 << 20];
  const ssize_t n = fake.peers.empty() ? 0 : recv(fake.peers.back(), bytes, sizeof(bytes), MSG_DONTWAIT);
  return {bytes, static_cast<std::size_t>(std::max<ssize_t>(n, 0))};
}

}  // namespace

extern "C" {

packetheader* httpBuildPacket(char* user, char* host, int port, char* path, char* method) {
  return build({"httpBuildPacket", user, host, path, method, "", port, -1});
}
packetheader* httpBuildPacket3(char* user, char* host, int port, char* path, char* method, char* content_length_text,
                               int content_length_text_len) {
  const std::string length(content_length_text, static_cast<std::size_t>(content_length_text_len));
  return build({"httpBuildPacket3", user, host, path, method, "", port, std::stoi(length)});
}
packetheader* httpBuildPacket_Auth_Encrypt(char* user, char* host, int port, char* uri, char* method,
                                           int content_length, char* authorization, int authorization_len,
                                           int with_body) {
  const std::string value(authorization, static_cast<std::size_t>(authorization_len));
  const int length = with_body == 1 ? content_length : content_length == 0 ? -1 : -2;
  return build({"httpBuildPacket_Auth_Encrypt", user, host, uri, method, value, port, length});
}

int ILibGetRawPacket(packetheader* packet, char** raw) {
  const std::string& text = static_cast<Packet*>(packet->opaque)->raw;
  *raw = text.empty() ? nullptr : strdup(text.c_str());
  return static_cast<int>(text.size());
}

void ILibDestructPacket(packetheader* packet) {
  if (packet == nullptr) return;
  --fake.live_packets;
  delete static_cast<Packet*>(packet->opaque);
}

unsigned short ILibGetStreamSocket(int /*local_addr*/, unsigned short /*local_port*/, int* sock) {
  int ends[2] = {-1, -1};
  fake_record("ILibGetStreamSocket");
  *sock = -1;
  if (fake_result("ILibGetStreamSocket", 1) == 0) return 0;
  if (socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0) return 0;
  *sock = ends[0];
  fake.peers.push_back(ends[1]);
  if (fake.peer_gone) shutdown(ends[1], SHUT_RD);
  return 40000;
}

void ILibProcessSocketRecv(ILibHCHTTPReaderObject* reader) {
  fake_record("ILibProcessSocketRecv");
  fake.sent.push_back(drain());
  if (fake.responses.empty()) return;
  const FakeResponse response = fake.responses.front();
  fake.responses.pop_front();
  if (!response.body.empty()) {
    reader->Body = static_cast<char*>(std::malloc(response.body.size()));  // not terminated
    std::memcpy(reader->Body, response.body.data(), response.body.size());
    reader->Body_Read = reader->Body_Size = static_cast<int>(response.body.size());
  }
  if (!response.usable) return;
  Packet* packet = new_packet();
  packet->head.StatusCode = response.status;
  packet->head.FirstField = &packet->challenge;
  reader->PacketHeader = &packet->head;
}

void ILibForceClose(void* reader) {
  auto* object = static_cast<ILibHCHTTPReaderObject*>(reader);
  if (object->ClientSocket >= 0) close(object->ClientSocket);
  object->ClientSocket = -1;
}

void GetAuthenticateInfo(packetheader_field_node* first_header, AuthenticateInfo* auth) {
  fake_record("GetAuthenticateInfo " + std::string(first_header != nullptr ? first_header->Field : "none"));
  if (!fake.challenge_fills) return;
  fake_fill(auth->realm, sizeof(auth->realm), fake.challenge.realm);
  fake_fill(auth->nonce, sizeof(auth->nonce), fake.challenge.nonce);
  fake_fill(auth->algorithm, sizeof(auth->algorithm), fake.challenge.algorithm);
  fake_fill(auth->qop, sizeof(auth->qop), fake.challenge.qop);
}

}  // extern "C"
