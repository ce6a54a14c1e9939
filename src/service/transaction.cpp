// The transaction with the service, see transaction.h.
#include "service/transaction.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <cstring>

#include "core/debug_log.h"
#include "core/signals_blocked.h"
#include "core/text.h"
#include "service/body_cipher.h"
#include "service/connect.h"
#include "service/digest.h"
#include "service/exchange_watch.h"
#include "service/token.h"

namespace kestrel {

namespace {

constexpr std::size_t url_len = 512;
constexpr int status_ok = 200;
constexpr int status_unauthorized = 401;
constexpr int status_not_found = 404;

/// Where an exchange goes. The path is what the request line and the Digest name.
struct Route {
  char connect_ip[ip_len];
  int connect_port;
  char server[ip_len];
  char path[url_len];
};

/// Copies the relay's address and port; false when requests go direct. The main thread may forget the relay
/// while the finder thread reads it, so the copy is judged, not the record.
bool find_relay(const DeviceContext& ctx, char (&ip)[ip_len], char (&port)[port_len]) {
  load_text(ip, ctx.proxy.ip);
  load_text(port, ctx.proxy.port);
  return load_word(ctx.proxy_tested) == 1 && std::strlen(ip) >= min_proxy_ip_len;
}

void choose_route(const DeviceContext& ctx, const Request& request, const char (&server)[ip_len], Route& route) {
  load_text(route.server, server);
  char port[port_len];
  if (!find_relay(ctx, route.connect_ip, port)) {
    copy_text(route.connect_ip, route.server);
    route.connect_port = service_port;
    copy_text(route.path, request.path);
    return;
  }
  route.connect_port = static_cast<std::uint16_t>(std::atoi(port));
  format_text(route.path, sizeof(route.path), "http://%s:%d/%s", route.server, service_port, request.path + 1);
}

void fresh_cnonce(AuthenticateInfo& auth) {
  unsigned len = 0;
  zero(auth.cnonce);
  make_token(auth.cnonce, &len);
}

packetheader* build_with_credentials(const Request& request, Route& route, int body_len, AuthenticateInfo& auth) {
  fresh_cnonce(auth);
  // The challenge set the count to 1, so the first request after it carries 00000002. The service counts so.
  ++auth.nc;
  copy_text(auth.method, request.method);
  copy_text(auth.uri, route.path);
  digest_calc_response(auth.user, auth.realm, auth.pass, auth.nonce, auth.nc, auth.qop, auth.method, auth.uri,
                       auth.cnonce, auth.response);
  char header[digest_header_len];
  const int header_len = make_digest_header(&auth, header);
  if (header_len < 0) return nullptr;
  log_if(request.builder_trace, request.name, __LINE__);
  return httpBuildPacket_Auth_Encrypt(auth.user, route.server, service_port, auth.uri, auth.method, body_len, header,
                                      header_len, body_len > 0 ? 1 : 0);
}

packetheader* build_packet(const Request& request, Route& route, const char* body, AuthenticateInfo& auth) {
  const int body_len = body != nullptr ? static_cast<int>(std::strlen(body)) : 0;
  if (auth.on == 1) return build_with_credentials(request, route, body_len, auth);
  char method[sizeof(auth.method)];
  copy_text(method, request.method);
  if (body == nullptr) return httpBuildPacket(auth.user, route.server, service_port, route.path, method);
  char length[12];
  const int length_len = format_text(length, sizeof(length), "%d", body_len);
  return httpBuildPacket3(auth.user, route.server, service_port, route.path, method, length, length_len);
}

/// Serialises the packet and appends the body. Returns the request, which the caller frees; null when it does not fit,
/// and when there is no memory, which sets `out_len` to 0.
char* make_out(const Request& request, packetheader* packet, const char* body, int& out_len) {
  if (packet == nullptr) return nullptr;
  char* raw = nullptr;
  const int raw_len = ILibGetRawPacket(packet, &raw);
  log_if(request.log->buffer_length, raw_len);
  ILibDestructPacket(packet);
  const std::size_t head_len = raw != nullptr && raw_len > 0 ? static_cast<std::size_t>(raw_len) : 0;
  const std::size_t len = head_len + (body != nullptr ? std::strlen(body) : 0);
  const bool fits = head_len > 0 && len <= request.send_len;
  char* out = fits ? static_cast<char*>(std::realloc(raw, len + 1)) : nullptr;
  if (out == nullptr) {
    if (fits) out_len = 0;
    std::free(raw);
    return nullptr;
  }
  if (body != nullptr) std::memcpy(out + head_len, body, len - head_len);
  out[len] = '\0';
  out_len = static_cast<int>(len);
  log_if(request.log->send_buffer, out);
  return out;
}

/// Makes the socket; -1 stands in the reader when none can be had.
void open_socket(const Request& request, ILibHCHTTPReaderObject& reader) {
  reader.ClientSocket = -1;
  const int portnum = ILibGetStreamSocket(static_cast<int>(htonl(0)), 0, &reader.ClientSocket);
  // What the shell starts must not inherit it.
  if (reader.ClientSocket >= 0) fcntl(reader.ClientSocket, F_SETFD, FD_CLOEXEC);
  log_if(request.log->portnum, portnum);
}

/// Opens the connection. 0 when it stands.
int connect_socket(const Request& request, const Route& route, int sock) {
  sockaddr_in peer{};
  peer.sin_family = AF_INET;
  peer.sin_addr.s_addr = inet_addr(route.connect_ip);
  peer.sin_port = htons(static_cast<std::uint16_t>(route.connect_port));
  log_if(request.connect_to, route.connect_ip, route.connect_port);
  // sockaddr_in is what connect takes in the guise of sockaddr.
  const int connected = WaitConnect(sock, reinterpret_cast<const sockaddr*>(&peer), sizeof(peer), connect_timeout_s);
  log_if(request.log->connected, connected);
  return connected;
}

/// The body as a terminated text of the log's width; the library need not terminate it.
void log_body(const Request& request, const ILibHCHTTPReaderObject& reader) {
  if (request.log->body_read_first) log_if(request.body_read, reader.Body_Read);
  if (reader.Body_Read > 0 && reader.Body != nullptr && request.log->body.text != nullptr) {
    char text[1536];
    copy_bytes(text, sizeof(text), reader.Body, static_cast<std::size_t>(reader.Body_Read));
    log_if(request.log->body, text);
  }
  if (!request.log->body_read_first) log_if(request.body_read, reader.Body_Read);
}

/// Takes the challenge's four texts. The library writes into a record of its own with room behind it, so
/// that one that does not keep to the sizes cannot reach the Digest state or what stands behind that; the record
/// begins with the present texts, so that one that leaves a missing parameter alone does not empty it.
void read_challenge(packetheader_field_node* fields, AuthenticateInfo& auth) {
  struct {
    AuthenticateInfo info;
    char room[1024];
  } taken;
  taken.info = auth;
  if (fields != nullptr) GetAuthenticateInfo(fields, &taken.info);
  copy_bytes(auth.realm, sizeof(auth.realm), taken.info.realm, sizeof(taken.info.realm));
  copy_bytes(auth.nonce, sizeof(auth.nonce), taken.info.nonce, sizeof(taken.info.nonce));
  copy_bytes(auth.algorithm, sizeof(auth.algorithm), taken.info.algorithm, sizeof(taken.info.algorithm));
  copy_bytes(auth.qop, sizeof(auth.qop), taken.info.qop, sizeof(taken.info.qop));
}

void take_challenge(const Request& request, packetheader_field_node* fields, AuthenticateInfo& auth) {
  const ExchangeLog& log = *request.log;
  auth.on = 1;
  log_if(log.challenge_taken);
  read_challenge(fields, auth);
  fresh_cnonce(auth);
  copy_text(auth.uri, request.challenge_uri);
  copy_text(auth.method, request.method);
  auth.nc = 1;
  log_if(log.algorithm, auth.algorithm);
  log_if(log.nonce, auth.nonce);
  log_if(log.qop, auth.qop);
  log_if(log.realm, auth.realm);
  log_if(log.uri, auth.uri);
  log_if(log.cnonce, auth.cnonce, static_cast<int>(std::strlen(auth.cnonce)));
}

/// Acts on the answer's status. `provisional` is the result of a status that has no meaning of its own.
int judge_answer(DeviceContext& ctx, const Request& request, const ILibHCHTTPReaderObject& reader,
                 AuthenticateInfo& auth, int provisional, AnswerReader read_answer, void* sink) {
  const int status = reader.PacketHeader->StatusCode;
  if (status == status_unauthorized) {
    take_challenge(request, reader.PacketHeader->FirstField, auth);
    return request_challenged;
  }
  if (status == status_ok) {
    log_if(request.ok);
    if (read_answer != nullptr && reader.Body_Read > 0 && reader.Body != nullptr) {
      char* plain = decipher_body(reader.Body, reader.Body_Read);
      if (plain != nullptr) read_answer(ctx, plain, sink);
      std::free(plain);
    }
    return request_ok;
  }
  if (status == 0 && request.no_status.text != nullptr) {
    log_if(request.no_status);
  } else if (status == status_not_found) {
    log_if(request.not_found, status);
  } else {
    log_if(request.other_status, status);
  }
  return request.other_status_result != 0 ? request.other_status_result : provisional;
}

void release_answer(ILibHCHTTPReaderObject& reader) {
  ILibDestructPacket(reader.PacketHeader);
  reader.PacketHeader = nullptr;
  std::free(reader.Body);
  reader.Body = nullptr;
  reader.Body_Size = 0;
  reader.Body_Offset = 0;
}

void remember(LeftoverSocket& leftover, int fd) {
  struct stat status {};
  if (fd < 0 || fstat(fd, &status) != 0) return;
  leftover = {fd, status.st_dev, status.st_ino};
}

void close_leftover(const Request& request) {
  if (request.leftover == nullptr || request.leftover->fd < 0) return;
  struct stat status {};
  const LeftoverSocket left = *request.leftover;
  *request.leftover = {};
  if (fstat(left.fd, &status) != 0 || status.st_dev != left.device || status.st_ino != left.inode) return;
  close(left.fd);
}

/// Nothing usable came. Some requests leave the socket open here; what they leave is remembered.
int give_up(const Request& request, ILibHCHTTPReaderObject& reader) {
  release_answer(reader);
  if (request.leftover == nullptr) {
    ILibForceClose(&reader);
  } else {
    remember(*request.leftover, reader.ClientSocket);
  }
  log_if(request.log->no_answer);
  return request.no_answer_result;
}

/// Sends and receives on the way to `route`. `out` is the whole request.
int exchange(DeviceContext& ctx, const Request& request, const Route& route, const char* out, int out_len,
             AuthenticateInfo& auth, AnswerReader read_answer, void* sink) {
  ILibHCHTTPReaderObject reader{};
  open_socket(request, reader);
  const ExchangeWatch watch(reader.ClientSocket);
  // Behind the watch's beginning: an exit request comes either before this look or upon a watched exchange.
  const bool exiting = exit_requested(ctx);
  if (exiting) watch.limit(exit_timeout_ms);
  if (connect_socket(request, route, reader.ClientSocket) != 0) {
    ILibForceClose(&reader);
    return request_no_answer;
  }
  if (!exiting) watch.limit(answer_timeout_ms);
  const auto sent = static_cast<int>(send(reader.ClientSocket, out, static_cast<std::size_t>(out_len), 0));
  log_if(request.log->sent, sent);
  if (sent < 0 && request.after_send_failure != AfterSendFailure::receive) {
    ILibForceClose(&reader);
    return request.after_send_failure == AfterSendFailure::send_result ? sent : request_no_answer;
  }
  ILibProcessSocketRecv(&reader);
  if (reader.PacketHeader == nullptr) return give_up(request, reader);
  log_body(request, reader);
  const int result = judge_answer(ctx, request, reader, auth, sent, read_answer, sink);
  release_answer(reader);
  ILibForceClose(&reader);
  return result;
}

}  // namespace

bool through_relay(const DeviceContext& ctx) {
  char ip[ip_len];
  char port[port_len];
  return find_relay(ctx, ip, port);
}

int run_exchange(DeviceContext& ctx, const Request& request, const char (&server)[ip_len], const char* body,
                 AuthenticateInfo& auth, AnswerReader read_answer, void* sink) {
  close_leftover(request);
  log_if(request.log->auth_on, static_cast<int>(auth.on));
  Route route;
  choose_route(ctx, request, server, route);
  int out_len = -1;
  char* out = make_out(request, build_packet(request, route, body, auth), body, out_len);
  if (out == nullptr && out_len < 0 && auth.on == 1) {
    // A challenge that cannot be answered must not end all requests: without credentials there is a new one.
    auth.on = 0;
    out = make_out(request, build_packet(request, route, body, auth), body, out_len);
  }
  if (out == nullptr) {
    debug_log("[kestreld] *** request does not fit into its buffer\n");
    return request.no_answer_result;
  }
  // A changed setting must not fail the exchange that it finds under way; an exit request may.
  const SignalsBlocked settings({SIGUSR1, SIGUSR2});
  const int result = exchange(ctx, request, route, out, out_len, auth, read_answer, sink);
  std::free(out);
  return result;
}

int post(DeviceContext& ctx, const Request& request, PostBody& body, AuthenticateInfo& auth, AnswerReader read_answer,
         void* sink) {
  if (!body.fits || encipher_body(body.text, body.size, request.body_len) == 0) return request.no_answer_result;
  return run_exchange(ctx, request, ctx.redir_ip, body.text, auth, read_answer, sink);
}

}  // namespace kestrel
