// The bound of an exchange from outside: whatever library reads an answer, and whatever the peer does, the
// conversation is closed when its time is over or when the daemon is to end.
#pragma once

namespace kestrel {

struct WatchSlot;

/// Watches one exchange for as long as it lives. It works on a descriptor of its own for the same socket, so
/// that no other socket is ever closed, also when a library closes the exchange's early and its number is given
/// anew. Each of the two threads may have one at a time.
struct ExchangeWatch {
  /// From here on end_exchanges() ends the conversation of `sock`. A descriptor below 0 is not watched.
  explicit ExchangeWatch(int sock);
  ~ExchangeWatch();
  ExchangeWatch(const ExchangeWatch&) = delete;
  ExchangeWatch& operator=(const ExchangeWatch&) = delete;

  /// Ends the conversation in `ms` milliseconds from now; a later call replaces an earlier one. Where nobody can
  /// be had to watch, the socket's own time-outs have to do.
  void limit(unsigned ms) const;

  int socket;                 // the exchange's; not owned
  int own;                    // the same socket; -1 when there is none to watch
  WatchSlot* slot = nullptr;  // where the watch finds it; null for nowhere
};

}  // namespace kestrel
