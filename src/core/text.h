// Bounded texts: the one way in which the daemon copies and formats into its fixed-size fields.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstring>

namespace kestrel {

/// Copies `from` into `to` (of `size` bytes, at least 1), cut to fit and always terminated.
/// Returns true when all of it fitted. The texts may not overlap.
bool copy_text(char* to, std::size_t size, const char* from);

/// As copy_text, from the `len` bytes at `from`, which need no terminator; a zero byte among them ends
/// the text.
bool copy_bytes(char* to, std::size_t size, const char* from, std::size_t len);

/// Formats into `to` (of `size` bytes) as snprintf does. Returns the length, or -1 when it did not fit
/// (`to` is then cut and terminated).
[[gnu::format(printf, 3, 4)]] int format_text(char* to, std::size_t size, const char* format, ...);

/// Writes the microseconds of the present time as six decimal digits and a terminator to `out`
/// (random_digits_len + 1 bytes).
void random_digits6(char* out);
constexpr std::size_t random_digits_len = 6;

/// Whole-array forms, so that a size is never written twice.
template <std::size_t N>
bool copy_text(char (&to)[N], const char* from) {
  return copy_text(to, N, from);
}

/// What stands in a byte before a getter fills it, to tell whether it did: no platform's getter gives it.
constexpr char unfilled_byte = 0x5A;

/// Forces a terminator into a buffer that foreign code filled. `text` is the whole array.
template <std::size_t N>
void terminate(char (&text)[N]) {
  text[N - 1] = '\0';
}

/// Zeroes a whole record or array. Only for types whose all-zero bytes are a valid value.
template <typename T>
void zero(T& object) {
  std::memset(static_cast<void*>(&object), 0, sizeof(object));
}

}  // namespace kestrel
