// An HTTP answer as the host's reader sees it. The first byte says in what pieces the rest arrives.
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>

#include "fuzz.h"
#include "platform/tessel.h"

Texts fuzz_seeds() {
  const std::string challenge = "WWW-Authenticate: Digest realm=\"sky\", nonce=\"abc\"\r\n";
  return {"\x01HTTP/1.1 401 Unauthorized\r\n" + challenge + "Content-Length: 10\r\n\r\nYWJjZGVmZw",
          "\x05HTTP/1.1 100 C\r\n\r\nHTTP/1.1 200 OK\r\nTransfer-Encoding: "
          "chunked\r\n\r\n4\r\nYWJj\r\n3;a=b\r\nZGV\r\n0\r\nX: y\r\n\r\n",
          "\x60HTTP/1.0 200 OK\r\nX: y\r\n  folded\r\n\r\nuntil the end",
          "\x20HTTP/1.1 204 No Content\r\n\r\nHTTP/1.1 404 x\r\n\r\n"};
}

namespace {

/// Reads one response from `fd`, which is closed: "STATUS|Name=value;...|body"; empty for none.
std::string read_response(int fd) {
  ILibHCHTTPReaderObject reader{};
  reader.ClientSocket = fd;
  ILibProcessSocketRecv(&reader);
  std::string seen;
  if (reader.PacketHeader != nullptr) {
    seen = std::to_string(reader.PacketHeader->StatusCode) + "|";
    for (auto* field = reader.PacketHeader->FirstField; field != nullptr; field = field->NextField) {
      seen += std::string(field->Field) + "=" + field->FieldData + ";";
    }
    seen += "|";
  }
  if (reader.Body != nullptr) seen.append(reader.Body, static_cast<std::size_t>(reader.Body_Read));
  ILibDestructPacket(reader.PacketHeader);
  std::free(reader.Body);
  ILibForceClose(&reader);
  return seen;
}

/// What the reader makes of a text that arrives in pieces of `len` bytes, its end behind it.
std::string read_answer(const std::string& text, std::size_t len) {
  int ends[2];
  // Whole packets: a receive gives one piece.
  require(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) == 0, "socketpair");
  for (std::size_t at = 0; at < text.size(); at += len) {
    const std::string piece = text.substr(at, len);
    require(send(ends[1], piece.data(), piece.size(), MSG_DONTWAIT | MSG_NOSIGNAL) > 0, "send");
  }
  close(ends[1]);
  const std::string seen = read_response(ends[0]);
  require(!seen.starts_with('1'), "interim answers are passed over");
  return seen;
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size == 0 || size > 16384) return 0;
  const std::string text = text_of(data + 1, size - 1);
  const std::size_t len = std::max<std::size_t>(data[0] % 97 + 1, text.size() / 100);  // few enough for the socket
  require(read_answer(text, len) == read_answer(text, 4096), "pieces make no difference");
  return 0;
}
