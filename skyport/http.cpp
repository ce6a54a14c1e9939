#include "http.h"

#include <microhttpd.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstring>
#include <exception>
#include <memory>
#include <stdexcept>

namespace skyport {
namespace {

constexpr unsigned max_connections = 128;    // a listener's
constexpr unsigned idle_s = 30;              // a connection that neither sends nor takes is closed
constexpr size_t connection_memory = 16384;  // bounds the head of a request
constexpr size_t max_body_len = 16384;
constexpr size_t max_swallowed_len = 1048576;  // of a body too large; then the connection is dropped without a 413

struct Pending {
  Request request;
  bool started = false;
  size_t received = 0;  // bytes of body
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

void fill(Request& request, MHD_Connection* connection, const char* method) {
  request.method = method;
  request.host = header(connection, MHD_HTTP_HEADER_HOST);
  request.origin = header(connection, MHD_HTTP_HEADER_ORIGIN);
  request.authorization = header(connection, MHD_HTTP_HEADER_AUTHORIZATION);
  request.fd = MHD_get_connection_info(connection, MHD_CONNECTION_INFO_CONNECTION_FD)->connect_fd;
  sockaddr_in address{};
  socklen_t length = sizeof address;
  if (getpeername(request.fd, reinterpret_cast<sockaddr*>(&address), &length) == 0) request.peer = endpoint_of(address);
  length = sizeof address;
  if (getsockname(request.fd, reinterpret_cast<sockaddr*>(&address), &length) == 0)
    request.local = endpoint_of(address);
}

MHD_Result queue(MHD_Connection* connection, const Answer& answer) {
  // The library's prototype wants a mutable buffer; with MUST_COPY it only reads it.
  MHD_Response* const response =
      MHD_create_response_from_buffer(answer.body.size(), const_cast<char*>(answer.body.data()), MHD_RESPMEM_MUST_COPY);
  if (response == nullptr) return MHD_NO;
  MHD_add_response_header(response, MHD_HTTP_HEADER_CONTENT_TYPE, answer.type);
  if (!answer.challenge.empty())
    MHD_add_response_header(response, MHD_HTTP_HEADER_WWW_AUTHENTICATE, answer.challenge.c_str());
  const MHD_Result result = MHD_queue_response(connection, answer.status, response);
  MHD_destroy_response(response);
  return result;
}

/// Called once a request, as soon as its request line is read.
void* on_target(void*, const char* target, MHD_Connection*) {
  auto pending = std::make_unique<Pending>();
  pending->request.target = target;
  return pending.release();
}

void on_completed(void*, MHD_Connection*, void** context, MHD_RequestTerminationCode) {
  const std::unique_ptr<Pending> done(static_cast<Pending*>(*context));
  *context = nullptr;
}

MHD_Result on_request(void* listener, MHD_Connection* connection, const char*, const char* method, const char*,
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
  if (pending->received > max_body_len) return queue(connection, {413, "", "body is too large\n", "text/plain"});
  fill(pending->request, connection, method);
  const Answer answer = static_cast<const Listener*>(listener)->serve(pending->request);
  return answer.drop ? MHD_NO : queue(connection, answer);
}

}  // namespace

Listener::Listener(int fd, Serve serve)
    : serve_(std::move(serve)),
      daemon_(MHD_start_daemon(MHD_USE_THREAD_PER_CONNECTION | MHD_USE_POLL_INTERNAL_THREAD, 0, nullptr, nullptr,
                               on_request, this, MHD_OPTION_LISTEN_SOCKET, fd, MHD_OPTION_URI_LOG_CALLBACK, on_target,
                               nullptr, MHD_OPTION_NOTIFY_COMPLETED, on_completed, nullptr, MHD_OPTION_CONNECTION_LIMIT,
                               max_connections, MHD_OPTION_CONNECTION_TIMEOUT, idle_s,
                               MHD_OPTION_CONNECTION_MEMORY_LIMIT, connection_memory, MHD_OPTION_END)) {
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

std::string raw_answer(const Answer& answer, const std::string& length_header, const std::string& body) {
  std::string text = "HTTP/1.1 " + std::to_string(answer.status) + " " + MHD_get_reason_phrase_for(answer.status) +
                     "\r\nContent-Type: " + answer.type + "\r\n";
  if (!answer.challenge.empty()) text += "WWW-Authenticate: " + answer.challenge + "\r\n";
  return text + length_header + "Connection: close\r\n\r\n" + body;
}

}  // namespace skyport
