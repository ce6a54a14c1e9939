// libtessel: reads one HTTP response, within limits of time and size.
#include <poll.h>
#include <sys/socket.h>

#include <boost/asio/buffer.hpp>
#include <boost/beast/http/basic_parser.hpp>
#include <cerrno>
#include <cstdlib>
#include <memory>
#include <optional>

#include "deadline.h"
#include "http_packet.h"

namespace host {

namespace {

namespace http = boost::beast::http;
using boost::beast::string_view;
using boost::system::error_code;

constexpr std::int64_t deadline_ms = 30000;   // for the whole response, however it drips
constexpr std::uint32_t max_head_len = 8192;  // bytes of status line and fields
constexpr std::size_t max_body_len = 65536;   // bytes, chunk frames not counted
constexpr std::size_t max_raw_len =
    524288;  // bytes in all: a body cut into tiny chunks has frames of many times its size
constexpr std::size_t max_unparsed_len = 16384;  // bytes of a line that does not end

constexpr int first_final_status = 200;

/// Takes a response apart into a packet and a body.
class ResponseParser final : public http::basic_parser<false> {
 public:
  ResponseParser() {
    header_limit(max_head_len);
    body_limit(max_body_len);
    eager(true);
  }

  std::unique_ptr<Packet> packet = std::make_unique<Packet>();
  std::string body;

 private:
  void on_request_impl(http::verb /*method*/, string_view /*name*/, string_view /*target*/, int /*version*/,
                       error_code& error) override {
    error = http::error::bad_version;
  }
  void on_response_impl(int code, string_view /*reason*/, int /*version*/, error_code& /*error*/) override {
    packet->head.StatusCode = code;
  }
  void on_field_impl(http::field /*known*/, string_view name, string_view value, error_code& /*error*/) override {
    if (in_head_) packet->add_field({name.data(), name.size()}, {value.data(), value.size()});
  }
  void on_header_impl(error_code& /*error*/) override { in_head_ = false; }
  void on_body_init_impl(const boost::optional<std::uint64_t>& /*length*/, error_code& /*error*/) override {}
  std::size_t on_body_impl(string_view part, error_code& error) override { return take(part, error); }
  void on_chunk_header_impl(std::uint64_t /*size*/, string_view /*extensions*/, error_code& /*error*/) override {}
  std::size_t on_chunk_body_impl(std::uint64_t /*remain*/, string_view part, error_code& error) override {
    return take(part, error);
  }
  void on_finish_impl(error_code& /*error*/) override {}

  std::size_t take(string_view part, error_code& error) {
    if (body.size() + part.size() > max_body_len) {
      error = http::error::body_limit;
      return 0;
    }
    body.append(part.data(), part.size());
    return part.size();
  }

  bool in_head_ = true;  // trailer fields behind a chunked body are not the response's
};

/// Waits for bytes until the deadline and reads some. Their number; 0 at the end of the connection; -1
/// when nothing more can come. A receive time-out of the socket itself has no say.
ssize_t receive(int fd, char* block, std::size_t size, const Deadline& deadline) {
  for (;;) {
    const int left_ms = deadline.left_ms();
    if (left_ms == 0) return -1;
    pollfd wait{fd, POLLIN, 0};
    const int ready = poll(&wait, 1, left_ms);
    if (ready < 0 && errno != EINTR) return -1;
    if (ready <= 0) continue;
    const ssize_t n = recv(fd, block, size, MSG_DONTWAIT);
    if (n >= 0) return n;
    if (errno != EINTR && errno != EAGAIN && errno != EWOULDBLOCK) return -1;
  }
}

/// Feeds received bytes to parsers until a final response is whole.
class Reading {
 public:
  /// Takes bytes; false when no response can come of them.
  bool take(const char* bytes, std::size_t count) {
    received_ += count;
    if (received_ > max_raw_len) return false;
    unparsed_.append(bytes, count);
    return parse() && unparsed_.size() <= max_unparsed_len;
  }

  /// The connection ended: true when that completes the response.
  bool take_end() {
    error_code error;
    if (!parser_->is_header_done()) return false;
    parser_->put_eof(error);
    return !error && is_whole();
  }

  [[nodiscard]] bool is_whole() const { return parser_->is_done() && !is_interim(); }
  [[nodiscard]] ResponseParser& response() { return *parser_; }

 private:
  [[nodiscard]] bool is_interim() const { return parser_->packet->head.StatusCode < first_final_status; }

  bool parse() {
    while (!unparsed_.empty() && !is_whole()) {
      error_code error;
      const std::size_t used = parser_->put(boost::asio::const_buffer(unparsed_.data(), unparsed_.size()), error);
      unparsed_.erase(0, used);
      if (error == http::error::need_more) return true;
      if (error) return false;
      if (parser_->is_done() && is_interim()) {
        parser_.emplace();
      } else if (used == 0) {
        return true;
      }
    }
    return true;
  }

  std::optional<ResponseParser> parser_{std::in_place};
  std::string unparsed_;
  std::size_t received_ = 0;
};

bool read_response(int fd, Reading& reading) {
  const Deadline deadline(deadline_ms);
  char block[4096];
  while (!reading.is_whole()) {
    const ssize_t n = receive(fd, block, sizeof(block), deadline);
    if (n < 0) return false;
    if (n == 0) return reading.take_end();
    if (!reading.take(block, static_cast<std::size_t>(n))) return false;
  }
  return true;
}

void hand_over(ILibHCHTTPReaderObject& reader, ResponseParser& response) {
  const std::size_t len = response.body.size();
  if (len > 0) {
    // One byte more than announced, so that the text is terminated for those who forget.
    auto* body = static_cast<char*>(std::malloc(len + 1));
    if (body == nullptr) return;
    std::memcpy(body, response.body.c_str(), len + 1);
    reader.Body = body;
    reader.Body_Read = static_cast<int32_t>(len);
    reader.Body_Size = static_cast<int32_t>(len + 1);
  }
  reader.PacketHeader = &response.packet.release()->head;
}

}  // namespace

}  // namespace host

extern "C" void ILibProcessSocketRecv(ILibHCHTTPReaderObject* reader) {
  if (reader == nullptr) return;
  reader->PacketHeader = nullptr;
  reader->Body = nullptr;
  reader->Body_Read = reader->Body_Size = reader->Body_Offset = 0;
  host::guarded(0, [&] {
    host::Reading reading;
    if (host::read_response(reader->ClientSocket, reading)) host::hand_over(*reader, reading.response());
    return 0;
  });
}
