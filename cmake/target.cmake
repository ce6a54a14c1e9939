# What the daemon takes of a target, checked before anything is built. A target that lacks it is told in one sentence.
include(CheckCXXSourceCompiles)

check_cxx_source_compiles("
#include <array>
#include <atomic>
#include <initializer_list>
#include <type_traits>
#if __cplusplus < 202002L
#error C++20
#endif
int main() { int word = 0; return std::atomic_ref<int>(word).load(std::memory_order_relaxed); }
" KESTREL_HAS_CXX20)
if(NOT KESTREL_HAS_CXX20)
  message(FATAL_ERROR "${CMAKE_CXX_COMPILER} lacks the headers of C++20 (std::atomic_ref among them): "
    "take GCC 10 or Clang 12 with its own library, or a later one.")
endif()

check_cxx_source_compiles("
#include <atomic>
#include <cstdint>
static_assert(std::atomic<std::uint32_t>::is_always_lock_free && std::atomic_ref<char>::is_always_lock_free);
int main() {}
" KESTREL_HAS_LOCK_FREE_WORDS)
if(NOT KESTREL_HAS_LOCK_FREE_WORDS)
  message(FATAL_ERROR "The target that ${CMAKE_CXX_COMPILER} builds for has no lock-free 32-bit atomics, which the "
    "daemon's signal handlers need: name one that has, on ARM by -march=armv6 or later in CMAKE_CXX_FLAGS.")
endif()

check_cxx_source_compiles("
#include <poll.h>
#include <spawn.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
int main() { return ppoll(nullptr, 0, nullptr, nullptr) + eventfd(0, EFD_CLOEXEC) + SOCK_CLOEXEC; }
" KESTREL_HAS_LINUX_CALLS)
if(NOT KESTREL_HAS_LINUX_CALLS)
  message(FATAL_ERROR "The target's C library lacks ppoll, eventfd or posix_spawn: take glibc 2.17, musl 1.2 or "
    "uClibc-ng 1.0.31, or a later one.")
endif()
