#include "http.h"

#include <microhttpd.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <exception>
#include <memory>
#include <stdexcept>

namespace skyport {
namespace {

constexpr size_t thread_stack_len = 262144;  // a thousand connections at once are no gigabytes
constexpr unsigned idle_s = 30;              // a connection that neither sends nor takes is closed
constexpr size_t connection_memory = 16384;  // bounds the head of a request
constexpr size_t max_body_len = 16384;
constexpr size_t max_swallowed_len = 1048576;  // of a body too large; then the connection is dropped without a 413

struct Pending {
  const Listener& listener;
  Request request;
  bool started = false;
  bool answered = false;
  size_t received = 0;  // bytes of body
};

/// A connection, as its listener sees it.
struct Peer {
  Request known;  // its addresses
  bool asked = false;
};

struct Streaming {
  Stream more;
  std::string text;
  size_t sent = 0;
};

Endpoint endpoint_of(const sockaddr_in& address) {
  std::array<char, INET_ADDRSTRLEN> text{};
  const uint32_t ip = ntohl(address.sin_addr.s_addr);
  std::snprintf(text.data(), text.size(), "%u.%u.%u.%u", ip >> 24, ip >> 16 & 255, ip >> 8 & 255, ip & 255);
  return {text.data(), ntohs(address.sin_port)};
}

std::string header(MHD_Connection* connection, const char* name) {
  const char* const value = MHD_lookup_connection_value(connection, MHD_HEADER_KIND, name);
  return value == nullptr ? "" : value;
}

void fill_addresses(Request& request, MHD_Connection* connection) {
  request.fd = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD)->connect_fd;
  sockaddr_in address{};
  socklen_t length = sizeof address;
  if (getpeername(request.fd, reinterpret_cast<sockaddr*>(&address), &length) == 0) request.peer = endpoint_of(address);
  length = sizeof address;
  if (getsockname(request.fd, reinterpret_cast<sockaddr*>(&address), &length) == 0)
    request.local = endpoint_of(address);
}

void fill(Request& request, MHD_Connection* connection, const char* method) {
  request.method = method;
  request.host = header(connection, MHD_HTTP_HEADER_HOST);
  request.origin = header(connection, MHD_HTTP_HEADER_ORIGIN);
  request.accept = header(connection, MHD_HTTP_HEADER_ACCEPT);
  request.authorization = header(connection, MHD_HTTP_HEADER_AUTHORIZATION);
  fill_addresses(request, connection);
}

/// Runs on the connection's own thread, so that it may wait.
ssize_t read_stream(void* context, uint64_t, char* buffer, size_t room) {
  auto& streaming = *static_cast<Streaming*>(context);
  try {
    while (streaming.sent == streaming.text.size()) {
      streaming.text.clear();
      streaming.sent = 0;
      if (!streaming.more(streaming.text)) return MHD_CONTENT_READER_END_OF_STREAM;
    }
  } catch (const std::exception&) {
    return MHD_CONTENT_READER_END_WITH_ERROR;
  }
  const size_t length = streaming.text.copy(buffer, room, streaming.sent);
  streaming.sent += length;
  return static_cast<ssize_t>(length);
}

void end_stream(void* context) {
  delete static_cast<Streaming*>(context);
}

MHD_Response* make_response(const Answer& answer) {
  constexpr size_t block_len = 16384;
  if (answer.stream) {
    auto streaming = std::make_unique<Streaming>(Streaming{answer.stream, "", 0});
    return MHD_create_response_from_callback(MHD_SIZE_UNKNOWN, block_len, read_stream, streaming.release(), end_stream);
  }
  // The library's prototype wants a mutable buffer; with MUST_COPY it only reads it.
  return MHD_create_response_from_buffer(answer.body.size(), const_cast<char*>(answer.body.data()),
                                         MHD_RESPMEM_MUST_COPY);
}

MHD_Result queue(MHD_Connection* connection, const Answer& answer) {
  MHD_Response* const response = make_response(answer);
  if (response == nullptr) return MHD_NO;
  MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_TYPE, answer.type);
  if (answer.policy != nullptr)
    MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_SECURITY_POLICY, answer.policy);
  if (answer.own_pages_only) {
    MHD_add_response_header(response, "Cross-Origin-Resource-Policy", "same-origin");
    MHD_add_response_header(response, MHD_HTTP_HEADER_X_CONTENT_TYPE_OPTIONS, "nosniff");
    MHD_add_response_header(response, MHD_HTTP_HEADER_CACHE_CONTROL, "no-store");
  }
  if (!answer.challenge.empty())
    MHD_add_response_header(response, MHD_HTTP_HEADER_WWW_AUTHENTICATE, answer.challenge.c_str());
  const MHD_Result result = MHD_queue_response(connection, answer.status, response);
  MHD_destroy_response(response);
  return result;
}

/// Called once a request, as soon as its request line is read.
void* on_target(void* listener, const char* target, MHD_Connection* connection) {
  auto* const info = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_SOCKET_CONTEXT);
  static_cast<Peer*>(info->socket_context)->asked = true;
  auto pending = std::make_unique<Pending>(Pending{*static_cast<const Listener*>(listener), {}});
  pending->request.target = target;
  return pending.release();
}

void on_completed(void*, MHD_Connection* connection, void** context, MHD_RequestTerminationCode) {
  const std::unique_ptr<Pending> done(static_cast<Pending*>(*context));
  *context = nullptr;
  if (!done || done->answered) return;
  fill_addresses(done->request, connection);
  done->listener.broke(done->request, "connection ended within the request, or its head was too large");
}

void on_connection(void* listener, MHD_Connection* connection, void** context, MHD_ConnectionNotificationCode code) {
  if (code == MHD_CONNECTION_NOTIFY_STARTED) {
    auto peer = std::make_unique<Peer>();
    fill_addresses(peer->known, connection);
    *context = peer.release();
    return;
  }
  const std::unique_ptr<Peer> peer(static_cast<Peer*>(*context));
  if (peer && !peer->asked)
    static_cast<const Listener*>(listener)->broke(peer->known, "connection ended without a request of HTTP");
}

/// The library tells what it refuses in words alone.
void on_library_words(void*, const char* format, va_list arguments) {
  std::array<char, 256> text{};
  std::vsnprintf(text.data(), text.size(), format, arguments);
  if (std::strstr(text.data(), "limit") != nullptr)
    std::fprintf(stderr, "skyport: a connection too many is refused; --max-connections allows more\n");
}

MHD_Result on_request(void*, MHD_Connection* connection, const char*, const char* method, const char*,
                      const char* upload, size_t* upload_size, void** context) {
  auto* const pending = static_cast<Pending*>(*context);
  if (pending == nullptr) return MHD_NO;
  if (!pending->started) {
    pending->started = true;
    return MHD_YES;
  }
  if (*upload_size > 0) {
    pending->received += *upload_size;
    if (pending->received <= max_body_len) pending->request.body.append(upload, *upload_size);
    *upload_size = 0;
    return pending->received <= max_swallowed_len ? MHD_YES : MHD_NO;
  }
  fill(pending->request, connection, method);
  pending->answered = true;
  if (pending->received > max_body_len) {
    pending->listener.broke(pending->request, "body is too large");
    return queue(connection, {413, "", "body is too large\n", "text/plain"});
  }
  const Answer answer = pending->listener.serve(pending->request);
  return answer.drop ? MHD_NO : queue(connection, answer);
}

}  // namespace

Listener::Listener(int fd, unsigned max_connections, Serve serve, Broken broken)
    : serve_(std::move(serve)),
      broken_(std::move(broken)),
      // The words' receiver comes first, so that the options behind it are told, too.
      daemon_(MHD_start_daemon(MHD_USE_THREAD_PER_CONNECTION | MHD_USE_POLL_INTERNAL_THREAD | MHD_USE_ERROR_LOG, 0,
                               nullptr, nullptr, on_request, nullptr, MHD_OPTION_EXTERNAL_LOGGER, on_library_words,
                               nullptr, MHD_OPTION_LISTEN_SOCKET, fd, MHD_OPTION_URI_LOG_CALLBACK, on_target, this,
                               MHD_OPTION_NOTIFY_COMPLETED, on_completed, nullptr, MHD_OPTION_NOTIFY_CONNECTION,
                               on_connection, this, MHD_OPTION_CONNECTION_LIMIT, max_connections,
                               MHD_OPTION_CONNECTION_TIMEOUT, idle_s, MHD_OPTION_CONNECTION_MEMORY_LIMIT,
                               connection_memory, MHD_OPTION_THREAD_STACK_SIZE, thread_stack_len, MHD_OPTION_END)) {
  if (daemon_ != nullptr) return;
  close(fd);
  throw std::runtime_error("the HTTP library does not start");
}

Listener::~Listener() {
  MHD_stop_daemon(daemon_);
}

Answer Listener::serve(const Request& request) const {
  try {
    return serve_(request);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "skyport: %s %s failed: %s\n", request.method.c_str(), request.target.c_str(), error.what());
    return {500, "", std::string(error.what()) + "\n", "text/plain"};
  }
}

void Listener::broke(const Request& request, const std::string& error) const {
  if (broken_) broken_(request, error);
}

std::string raw_answer(const Answer& answer, const std::string& length_header, const std::string& body) {
  std::string text = "HTTP/1.1 " + std::to_string(answer.status) + " " + MHD_get_reason_phrase_for(answer.status) +
                     "\r\nContent-Type: " + answer.type + "\r\n";
  if (!answer.challenge.empty()) text += "WWW-Authenticate: " + answer.challenge + "\r\n";
  return text + length_header + "Connection: close\r\n\r\n" + body;
}

}  // namespace skyport
