// The one hand that holds signals back from a thread.
#pragma once

#include <pthread.h>

#include <csignal>
#include <initializer_list>

namespace kestrel {

/// Holds signals back from the calling thread for as long as it lives, and then puts the mask back as it was.
/// A signal that came meanwhile is delivered then.
struct SignalsBlocked {
  /// Holds all signals back.
  SignalsBlocked() {
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, &before);
  }

  /// Holds these alone back, beside what is held back already.
  explicit SignalsBlocked(std::initializer_list<int> signals) {
    sigset_t some;
    sigemptyset(&some);
    for (const int signal : signals) sigaddset(&some, signal);
    pthread_sigmask(SIG_BLOCK, &some, &before);
  }

  ~SignalsBlocked() { release(); }
  SignalsBlocked(const SignalsBlocked&) = delete;
  SignalsBlocked& operator=(const SignalsBlocked&) = delete;

  /// Puts the mask back before the end.
  void release() { pthread_sigmask(SIG_SETMASK, &before, nullptr); }

  sigset_t before;  // the mask that is put back
};

}  // namespace kestrel
