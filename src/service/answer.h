// Waiting for an answer with a deadline of the daemon's own, whatever library then reads it.
#ifndef KESTREL_SERVICE_ANSWER_H
#define KESTREL_SERVICE_ANSWER_H

#include <cstddef>

namespace kestrel {

/// The longest answer that is read, head and body together.
constexpr std::size_t max_answer_len = 16384;

/// Waits until one whole HTTP/1.x answer, or what came before the peer's end of the connection, is
/// in the socket, without taking it out. Returns true when there is something to read; false when the
/// answer was not whole within `timeout_s` seconds or is longer than max_answer_len. Signals do not end
/// the wait.
bool await_answer(int sock, int timeout_s);

/// True when `text` holds one whole answer: its head, and the body that the head announces. Informational
/// answers (1xx) before it are passed over. An answer without a length is whole at the end of the
/// connection only.
bool is_whole_answer(const char* text, std::size_t len);

}  // namespace kestrel

#endif
