// Runs a piece of a test in a process of its own, and keeps what it prints.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>

/// Writes what a build for coverage has counted, which _exit does not; absent in the other builds.
extern "C" void __gcov_dump() __attribute__((weak));

struct Child {
  int status = -1;  // exit status; 128 and the signal's number when a signal ended it
  std::string out, err;
};

inline std::string read_file(const std::string& path) {
  std::ifstream file(path);
  return {std::istreambuf_iterator<char>(file), {}};
}

inline void write_file(const std::string& path, const std::string& text) {
  std::ofstream(path) << text;
}

/// How long `work` takes.
inline double seconds_of(const std::function<void()>& work) {
  const auto start = std::chrono::steady_clock::now();
  work();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

/// Its exit status is what `work` returns, or 99 when an expectation failed in it.
inline Child run_child(const std::function<int()>& work) {
  const int out = memfd_create("out", 0);
  const int err = memfd_create("err", 0);
  for (const int file : {out, err}) fcntl(file, F_SETFL, O_APPEND);  // two threads' lines would overwrite each other
  std::fflush(nullptr);
  const pid_t pid = fork();
  if (pid == 0) {
    dup2(out, STDOUT_FILENO);
    dup2(err, STDERR_FILENO);
    const int status = work();
    std::fflush(nullptr);
    if (__gcov_dump != nullptr) __gcov_dump();
    _exit(::testing::Test::HasFailure() ? 99 : status);
  }
  int status = 0;
  Child child;
  if (pid > 0 && waitpid(pid, &status, 0) == pid) {
    child.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }
  child.out = read_file("/proc/self/fd/" + std::to_string(out));
  child.err = read_file("/proc/self/fd/" + std::to_string(err));
  close(out);
  close(err);
  return child;
}

/// Gives the calling process namespaces of its own, the mounts' among them. False where that is not allowed.
inline bool own_namespaces(int wanted) {
  const auto root_is = [](unsigned id) { return "0 " + std::to_string(id) + " 1"; };
  const std::string user = root_is(getuid()), group = root_is(getgid());
  if (unshare(wanted | CLONE_NEWNS) != 0) {
    if (unshare(wanted | CLONE_NEWNS | CLONE_NEWUSER) != 0) return false;
    write_file("/proc/self/setgroups", "deny");
    write_file("/proc/self/uid_map", user);
    write_file("/proc/self/gid_map", group);
  }
  return mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
}

/// Gives the calling process a folder of its own, empty, which nobody else sees.
inline bool own_folder(const char* path) {
  return mount("none", path, "tmpfs", 0, nullptr) == 0;
}

inline bool own_tmp() {
  return own_namespaces(0) && own_folder("/tmp");
}
