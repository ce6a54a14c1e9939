// The HTTP packets of libtessel: requests are built, and answers read from a connection to this process itself.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "check.h"
#include "platform/tessel.h"

namespace platform_check {

namespace {

constexpr char sends_nothing[] = "sends no request, and counts it as no answer";
constexpr char response[] =
    "HTTP/1.1 401 Unauthorized\r\nContent-Length: 5\r\n"
    "WWW-Authenticate: Digest realm=\"skyport\", nonce=\"0123456789abcdef\", algorithm=MD5, qop=\"auth\"\r\n\r\nhello";

char user[] = "10203040", host[] = "192.0.2.1", path[] = "/upd.html", post[] = "POST", get[] = "GET";
char authorization[] = "Digest username=\"10203040\", realm=\"skyport\"";

/// Serialises and frees a packet, and looks for what must stand in it.
void look_over(packetheader* packet, const char* method, const char* wanted, Finding& finding) {
  char* raw = nullptr;
  const int len = packet != nullptr ? ILibGetRawPacket(packet, &raw) : 0;
  ILibDestructPacket(packet);
  tell(finding, "a head of %d bytes", len);
  if (packet == nullptr || raw == nullptr || len <= 0) {
    note(finding, sends_nothing, "no packet, or no text of it");
    std::free(raw);
    return;
  }
  char head[2048] = "";
  if (len < static_cast<int>(sizeof(head))) std::memcpy(head, raw, static_cast<std::size_t>(len));
  std::free(raw);
  const std::size_t end = std::strlen(head);
  if (static_cast<int>(end) != len) note(finding, sends_nothing, "more than 2047 bytes, or a zero among them");
  if (end < 4 || std::strcmp(head + end - 4, "\r\n\r\n") != 0) note(finding, "sends it so", "no empty line at the end");
  if (std::strncmp(head, method, std::strlen(method)) != 0) note(finding, "sends it so", "another method");
  if (std::strstr(head, path) == nullptr) note(finding, "sends it so", "the path is missing");
  if (std::strstr(head, wanted) == nullptr) note(finding, "sends it so", "\"%s\" is missing", wanted);
}

void plain(Finding& finding) {
  look_over(httpBuildPacket(user, host, 80, path, get), "GET ", host, finding);
}
void with_body(Finding& finding) {
  char length[] = "12";
  look_over(httpBuildPacket3(user, host, 80, path, post, length, 2), "POST ", ": 12\r\n", finding);
}
void with_credentials(Finding& finding) {
  packetheader* packet =
      httpBuildPacket_Auth_Encrypt(user, host, 80, path, post, 12, authorization, sizeof(authorization) - 1, 1);
  look_over(packet, "POST ", authorization, finding);
}

/// A connection from a socket of the library's to this process. `peer` is this process's end.
bool connect_reader(ILibHCHTTPReaderObject& reader, int& peer) {
  sockaddr_in at{};
  at.sin_family = AF_INET;
  at.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof(at);
  auto* address = reinterpret_cast<sockaddr*>(&at);
  const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  reader.ClientSocket = -1;
  ILibGetStreamSocket(0, 0, &reader.ClientSocket);
  const bool connected = bind(listener, address, len) == 0 && listen(listener, 1) == 0 &&
                         getsockname(listener, address, &len) == 0 && connect(reader.ClientSocket, address, len) == 0;
  peer = connected ? accept4(listener, nullptr, nullptr, SOCK_CLOEXEC) : -1;
  close(listener);
  return peer >= 0;
}

void release(ILibHCHTTPReaderObject& reader, Finding& finding) {
  ILibDestructPacket(reader.PacketHeader);
  std::free(reader.Body);
  ILibForceClose(&reader);
  if (reader.ClientSocket != -1)
    note(finding, "closes a number that may be another's", "the socket is not marked closed");
}

void stream_socket(Finding& finding) {
  int sock = -1;
  const unsigned port = ILibGetStreamSocket(0, 0, &sock);
  tell(finding, "descriptor %d, port %u", sock, port);
  if (sock < 0) note(finding, "counts it as no answer", "no socket");
  if (sock >= 0) close(sock);
}

void answer(Finding& finding) {
  ILibHCHTTPReaderObject reader{};
  int peer = -1;
  if (!connect_reader(reader, peer)) note(finding, "counts it as no answer", "its socket does not connect");
  static_cast<void>(!write(peer, response, sizeof(response) - 1));
  shutdown(peer, SHUT_WR);
  if (peer >= 0) ILibProcessSocketRecv(&reader);
  close(peer);
  const packetheader* packet = reader.PacketHeader;
  tell(finding, "status %d, %d bytes", packet != nullptr ? packet->StatusCode : 0, reader.Body_Read);
  if (packet == nullptr || packet->StatusCode != 401) {
    note(finding, "counts it as no answer", "a response of status 401 is not read");
  } else if (packet->FirstField == nullptr) {
    note(finding, "never has credentials", "no header fields");
  }
  if (reader.Body_Read != 5 || reader.Body == nullptr || std::memcmp(reader.Body, "hello", 5) != 0) {
    note(finding, "takes the answer as empty or as it is", "a body of 5 bytes is not read");
  }
  release(reader, finding);
}

/// The daemon's only hold over a reader is to shut its socket down.
void silence(Finding& finding) {
  ILibHCHTTPReaderObject reader{};
  int peer = -1;
  if (!connect_reader(reader, peer)) note(finding, "counts it as no answer", "its socket does not connect");
  const pid_t other = fork();
  if (other == 0) {
    usleep(300'000);
    shutdown(reader.ClientSocket, SHUT_RDWR);
    _exit(0);
  }
  if (peer >= 0) ILibProcessSocketRecv(&reader);
  waitpid(other, nullptr, 0);
  close(peer);
  tell(finding, reader.PacketHeader == nullptr ? "returns without a packet" : "returns with a packet");
  if (reader.PacketHeader != nullptr) note(finding, "takes it for an answer", "a packet though nothing came");
  release(reader, finding);
}

void challenge(Finding& finding) {
  char name[] = "WWW-Authenticate";
  char value[] = "Digest realm=\"skyport\", nonce=\"0123456789abcdef\", algorithm=MD5, qop=\"auth\"";
  packetheader_field_node node{name, value, nullptr};
  static Guarded buffer;
  buffer.fill(0);  // the texts that were there before are none
  auto* auth = static_cast<AuthenticateInfo*>(static_cast<void*>(buffer.at()));
  GetAuthenticateInfo(&node, auth);
  tell(finding, "\"%.31s\", \"%.31s\", %.31s, %.31s", auth->realm, auth->nonce, auth->algorithm, auth->qop);
  if (buffer.written(0) > static_cast<int>(sizeof(AuthenticateInfo))) {
    note(finding, "has 1024 bytes behind it", "writes behind the record");
  }
  const bool right = std::strcmp(auth->realm, "skyport") == 0 && std::strcmp(auth->nonce, "0123456789abcdef") == 0 &&
                     std::strcmp(auth->algorithm, "MD5") == 0 && std::strcmp(auth->qop, "auth") == 0;
  if (!right) note(finding, "never answers the challenge rightly", "a text of the challenge is wrong");
}

constexpr int reader_ms = 3000;

constexpr Row own(const char* name, const char* asked, void (*examine)(Finding&), int limit_ms = quick_ms) {
  return {name, asked, nullptr, {}, Result::unused, "", false, examine, false, limit_ms};
}

constexpr Row rows[] = {
    own("httpBuildPacket", "a GET", plain),
    own("httpBuildPacket3", "a POST of 12 bytes", with_body),
    own("httpBuildPacket_Auth_Encrypt", "a POST, credentials", with_credentials),
    own("ILibGetStreamSocket", "any port", stream_socket),
    own("ILibProcessSocketRecv", "a 401 with a body", answer, reader_ms),
    own("ILibProcessSocketRecv", "a peer that is silent", silence, reader_ms),
    own("GetAuthenticateInfo", "four texts", challenge),
};

}  // namespace

Rows packet_rows() {
  return {rows, sizeof(rows) / sizeof(rows[0])};
}

}  // namespace platform_check
