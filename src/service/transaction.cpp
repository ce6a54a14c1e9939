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
#include <string_view>

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

constexpr int status_ok = 200;
constexpr int status_unauthorized = 401;
constexpr int status_not_found = 404;

/// Where an exchange goes. The path is what the request line and the Digest name.
struct Route {
  char connect_ip[ip_len];
  std::uint16_t connect_port;
  char server[ip_len];
  char path[sizeof(AuthenticateInfo::uri)];
};

/// Copies the relay's address and port; false when requests go direct. The main thread may forget the relay
/// while the finder thread reads it, so the copy is judged, not the record.
bool find_relay(const DeviceContext& ctx, char (&ip)[ip_len], char (&port)[port_len]) {
  load_text(ip, ctx.proxy.ip);
  load_text(port, ctx.proxy.port);
  return load_word(ctx.proxy_tested) == 1 && std::strlen(ip) >= min_proxy_ip_len;
}

Route choose_route(const DeviceContext& ctx, const Request& request, const char (&server)[ip_len]) {
  Route route;
  load_text(route.server, server);
  char port[port_len];
  if (find_relay(ctx, route.connect_ip, port)) {
    route.connect_port = static_cast<std::uint16_t>(std::atoi(port));
    format_text(route.path, sizeof(route.path), "http://%s:%d/%s", route.server, service_port, request.path + 1);
  } else {
    copy_text(route.connect_ip, route.server);
    route.connect_port = service_port;
    copy_text(route.path, request.path);
  }
  return route;
}

void fresh_cnonce(AuthenticateInfo& auth) {
  unsigned len = 0;
  make_token(auth.cnonce, &len);
}

packetheader* build_with_credentials(const Request& request, Route& route, int body_len, AuthenticateInfo& auth) {
  fresh_cnonce(auth);
  // The challenge set the count to 1, so the first request after it carries 00000002. The service counts so.
  ++auth.nc;
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

packetheader* build_packet(const Request& request, Route& route, int body_len, AuthenticateInfo& auth) {
  copy_text(auth.method, body_len > 0 ? "POST" : "GET");
  if (auth.on == 1) return build_with_credentials(request, route, body_len, auth);
  if (body_len == 0) return httpBuildPacket(auth.user, route.server, service_port, route.path, auth.method);
  char length[12];
  const int length_len = format_text(length, sizeof(length), "%d", body_len);
  return httpBuildPacket3(auth.user, route.server, service_port, route.path, auth.method, length, length_len);
}

/// Makes the whole request: the serialised packet and the body. Null when it does not fit or cannot be had; `len` is
/// its length then, too, when all that it lacks is memory, and 0 otherwise.
HeapText make_out(const Request& request, Route& route, const char* body, AuthenticateInfo& auth, std::size_t& len) {
  const std::size_t body_len = std::strlen(body);
  packetheader* packet = build_packet(request, route, static_cast<int>(body_len), auth);
  if (packet == nullptr) return nullptr;
  char* raw = nullptr;
  const int raw_len = ILibGetRawPacket(packet, &raw);
  log_if(request.log->buffer_length, raw_len);
  ILibDestructPacket(packet);
  const HeapText head(raw);
  if (head == nullptr || raw_len <= 0) return nullptr;
  // The text's own end counts where the library says more.
  const std::size_t head_len = strnlen(raw, static_cast<std::size_t>(raw_len));
  if (head_len + body_len > request.send_len) return nullptr;
  len = head_len + body_len;
  HeapText out(static_cast<char*>(std::malloc(len + 1)));
  if (out == nullptr) return nullptr;
  std::memcpy(out.get(), raw, head_len);
  copy_text(out.get() + head_len, body_len + 1, body);
  log_if(request.log->send_buffer, out.get());
  return out;
}

/// Makes the socket; -1 stands in the reader when none can be had.
void open_socket(const Request& request, ILibHCHTTPReaderObject& reader) {
  reader.ClientSocket = -1;
  const int portnum = ILibGetStreamSocket(static_cast<int>(htonl(INADDR_ANY)), 0, &reader.ClientSocket);
  // What the shell starts must not inherit it.
  fcntl(reader.ClientSocket, F_SETFD, FD_CLOEXEC);
  log_if(request.log->portnum, portnum);
}

/// Opens the connection. 0 when it stands.
int connect_socket(const Request& request, const Route& route, int sock) {
  sockaddr_in peer{};
  peer.sin_family = AF_INET;
  peer.sin_addr.s_addr = inet_addr(route.connect_ip);
  peer.sin_port = htons(route.connect_port);
  log_if(request.connect_to, route.connect_ip, route.connect_port);
  // sockaddr_in is what connect takes in the guise of sockaddr.
  const int connected = WaitConnect(sock, reinterpret_cast<const sockaddr*>(&peer), sizeof(peer), connect_timeout_s);
  log_if(request.log->connected, connected);
  return connected;
}

/// The body as a terminated text of the log's width; the library need not terminate it.
void log_body(const Request& request, const ILibHCHTTPReaderObject& reader) {
  log_if(request.log->body_read, reader.Body_Read);
  if (reader.Body_Read > 0 && reader.Body != nullptr) {
    char text[1536];
    copy_bytes(text, sizeof(text), reader.Body, static_cast<std::size_t>(reader.Body_Read));
    log_if(request.log->body, text);
  }
  log_if(request.body_read_behind, reader.Body_Read);
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
  auth.nc = 1;
  log_if(log.algorithm, auth.algorithm);
  log_if(log.nonce, auth.nonce);
  log_if(log.qop, auth.qop);
  log_if(log.realm, auth.realm);
  log_if(log.uri, auth.uri);
  log_if(log.cnonce, auth.cnonce, static_cast<int>(std::strlen(auth.cnonce)));
}

/// Acts on the answer's status. `sent` is the byte count of the send.
int judge_answer(DeviceContext& ctx, const Request& request, const ILibHCHTTPReaderObject& reader,
                 AuthenticateInfo& auth, int sent, void* sink) {
  const int status = reader.PacketHeader->StatusCode;
  if (status == status_unauthorized) {
    take_challenge(request, reader.PacketHeader->FirstField, auth);
    return request_challenged;
  }
  if (status == status_ok) {
    log_if(request.ok);
    if (request.read_answer != nullptr && reader.Body_Read > 0 && reader.Body != nullptr) {
      const HeapText plain = decipher_body(reader.Body, reader.Body_Read);
      if (plain != nullptr) request.read_answer(ctx, plain.get(), sink);
    }
    return request_ok;
  }
  if (status == 0 && request.no_status.text != nullptr) {
    log_if(request.no_status);
  } else {
    const bool not_found = status == status_not_found && request.not_found.text != nullptr;
    log_if(not_found ? request.not_found : request.other_status, status);
  }
  return request.failure_result != 0 ? request.failure_result : sent;
}

void close_leftover(LeftoverSocket& left) {
  struct stat status {};
  const bool same = fstat(left.fd, &status) == 0 && status.st_dev == left.device && status.st_ino == left.inode;
  if (same) close(left.fd);
  left = {};
}

/// Some requests leave the socket open when nothing usable came; what they leave is remembered. `same` is a descriptor
/// of the daemon's own for it, if there is one: a library may have closed `fd` early, and its number may be somebody's.
void leave_open(LeftoverSocket& left, int fd, int same) {
  struct stat status {};
  if (fstat(same >= 0 ? same : fd, &status) == 0) left = {fd, status.st_dev, status.st_ino};
}

/// Sends and receives on the way to `route`. `out` is the whole request.
int exchange(DeviceContext& ctx, const Request& request, const Route& route, std::string_view out,
             AuthenticateInfo& auth, void* sink) {
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
  const auto sent = static_cast<int>(send(reader.ClientSocket, out.data(), out.size(), 0));
  log_if(request.log->sent, sent);
  if (sent == -1 && request.after_send_failure != AfterSendFailure::receive) {
    ILibForceClose(&reader);
    return request.after_send_failure == AfterSendFailure::send_result ? sent : request_no_answer;
  }
  ILibProcessSocketRecv(&reader);
  const bool answered = reader.PacketHeader != nullptr;
  int result = request.failure_result;
  if (answered) {
    log_body(request, reader);
    result = judge_answer(ctx, request, reader, auth, sent, sink);
    ILibDestructPacket(reader.PacketHeader);
    reader.PacketHeader = nullptr;
  } else {
    log_if(request.log->no_answer);
  }
  std::free(reader.Body);
  reader.Body = nullptr;
  reader.Body_Size = reader.Body_Offset = 0;
  if (!answered && request.leftover != nullptr) {
    leave_open(*request.leftover, reader.ClientSocket, watch.own);
  } else {
    ILibForceClose(&reader);
  }
  return result;
}

}  // namespace

bool through_relay(const DeviceContext& ctx) {
  char ip[ip_len];
  char port[port_len];
  return find_relay(ctx, ip, port);
}

int run_exchange(DeviceContext& ctx, const Request& request, const char (&server)[ip_len], const char* body,
                 AuthenticateInfo& auth, void* sink) {
  if (request.leftover != nullptr) close_leftover(*request.leftover);
  log_if(request.log->auth_on, static_cast<int>(auth.on));
  Route route = choose_route(ctx, request, server);
  std::size_t len = 0;
  HeapText out = make_out(request, route, body, auth, len);
  if (out == nullptr && len == 0 && auth.on == 1) {
    // A challenge that cannot be answered must not end all requests: without credentials there is a new one.
    auth.on = 0;
    out = make_out(request, route, body, auth, len);
  }
  if (out == nullptr) {
    debug_log("[kestreld] *** request does not fit into its buffer\n");
    return request.failure_result;
  }
  // A changed setting must not fail the exchange that it finds under way; an exit request may.
  const SignalsBlocked settings({SIGUSR1, SIGUSR2});
  return exchange(ctx, request, route, {out.get(), len}, auth, sink);
}

int post(DeviceContext& ctx, const Request& request, const PostBody& body, AuthenticateInfo& auth, void* sink) {
  if (!body.fits) return request.failure_result;
  const HeapText encoded = encipher_body(body.text, request.body_len);
  return encoded != nullptr ? run_exchange(ctx, request, ctx.redir_ip, encoded.get(), auth, sink)
                            : request.failure_result;
}

}  // namespace kestrel
