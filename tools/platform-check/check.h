// kestrel-platform-check: the camera's own platform libraries, called as the daemon calls them and watched. A function
// is a row of a table; most rows are outputs with sizes, which one probe judges.
#pragma once

#include <array>
#include <cstddef>

namespace platform_check {

enum class Kind { none, text, secret, bytes, number };  // a secret is a text that is not shown

/// An output of a function.
struct Out {
  Kind kind = Kind::none;
  std::size_t stated = 0;  // bytes that the contract allows
  std::size_t room = 0;    // bytes that the daemon has there
};

/// What a function's result tells.
enum class Result {
  zero_fails,
  zero_succeeds,
  unread,  // 0 is failure, and the daemon does not look at it
  unused,  // nothing, by the contract
};

/// What came of a row.
struct Finding {
  char came[96];       // in words
  char broken[128];    // what of the contract is broken; empty for nothing
  const char* daemon;  // what the daemon does about that
};

constexpr std::size_t max_outs = 4;
constexpr int quick_ms = 1000;
constexpr int router_ms = 9000;  // the time-out that the daemon gives a call, and a second

/// A function. Either `call` and its outputs, or `examine` for what takes more than that.
struct Row {  // NOLINT(clang-analyzer-optin.performance.Padding): in the order in which a row is read
  const char* name;
  const char* asked;
  int (*call)(void* const out[], std::size_t size);  // size: that of the first output
  std::array<Out, max_outs> outs;
  Result result;
  const char* without;  // what the daemon does when the function fails
  bool sized = false;   // the first output's size is an argument
  void (*examine)(Finding&) = nullptr;
  bool writes = false;
  int limit_ms = quick_ms;
};

/// The rows of a library, in the order in which they are tried.
struct Rows {
  const Row* first;
  std::size_t count;
};

Rows setting_rows();
Rows interface_rows();
Rows packet_rows();
Rows algorithm_rows();
Rows router_rows();
Rows writing_rows();

/// Probes one row.
void probe(const Row& row, Finding& finding);

/// Notes what is broken, of several things the first; `daemon` is what the daemon does then.
[[gnu::format(printf, 3, 4)]] void note(Finding& finding, const char* daemon, const char* format, ...);

/// Notes in words what came.
[[gnu::format(printf, 2, 3)]] void tell(Finding& finding, const char* format, ...);

/// Bytes of which a function may write those in the middle; the rest is looked over.
struct Guarded {
  static constexpr std::size_t front = 64, back = 2048, middle = 4096;
  alignas(16) unsigned char bytes[front + middle + back];  // for every type that is put there

  unsigned char* at() { return bytes + front; }
  char* text() { return reinterpret_cast<char*>(at()); }
  void fill(unsigned char pattern);
  /// Bytes up to the last one that is not the pattern; -1 when one in front of the middle is not.
  int written(unsigned char pattern) const;
};

/// Descriptors that this process has open.
int open_descriptors();

inline constexpr char overwritten[] = "has its memory overwritten: mend the library before anything else";

}  // namespace platform_check
