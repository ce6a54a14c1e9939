// What the two threads and the signal handlers share: single words and a few short texts of the
// current record, read and written as relaxed atomics over plain fields. Nothing is ordered by them and
// no lock exists; a reader sees each word whole, and a text always terminated.
#pragma once

#include <atomic>
#include <cstddef>

namespace kestrel {

/// Reads a word that another thread or a signal handler may write. Async-signal-safe.
template <typename T>
T load_word(const T& word) {
  static_assert(std::atomic_ref<T>::is_always_lock_free);
  return std::atomic_ref<T>(const_cast<T&>(word)).load(std::memory_order_relaxed);
}

/// Writes a word that another thread or a signal handler may read or write. Async-signal-safe.
template <typename T, typename V>
void store_word(T& word, V value) {
  static_assert(std::atomic_ref<T>::is_always_lock_free);
  std::atomic_ref<T>(word).store(static_cast<T>(value), std::memory_order_relaxed);
}

/// Writes a text that the other thread may read meanwhile, cut to fit; bytes behind it become zero.
template <std::size_t N>
void store_text(char (&to)[N], const char* from) {
  bool ended = false;
  for (std::size_t i = 0; i < N; ++i) {
    ended = ended || i == N - 1 || from[i] == '\0';
    store_word(to[i], ended ? '\0' : from[i]);
  }
}

/// Reads a text that the other thread may write meanwhile: defined and terminated, though it may mix
/// the old text and the new one.
template <std::size_t N>
void load_text(char (&to)[N], const char (&from)[N]) {
  for (std::size_t i = 0; i < N; ++i) to[i] = load_word(from[i]);
  to[N - 1] = '\0';
}

}  // namespace kestrel
