// What the exchanges of all cameras came to: counts and times by path, and a row for each where it is wanted.
#pragma once

#include <cstdio>
#include <map>
#include <mutex>
#include <string>
#include <vector>

#include "wire.h"

namespace load {

/// Any thread may call.
class Figures {
 public:
  /// `csv`: where a row for each exchange goes; null: nowhere. Not closed here.
  explicit Figures(std::FILE* csv);

  /// Notes one exchange; `at_s` since the run's start.
  void note(double at_s, const std::string& hid, const std::string& path, const Outcome& outcome);

  /// Exchanges so far, and those of them without an answer.
  struct Sum {
    std::size_t all = 0, failed = 0;
  };
  Sum sum() const;

  /// The table, a line a path, and what went wrong how often. Times in milliseconds; the last line is of all paths.
  std::string table() const;

 private:
  struct Row {
    std::vector<float> took_ms;  // of answered exchanges
    std::size_t done = 0, challenged = 0, refused = 0, failed = 0;
  };
  static std::string line(const std::string& name, Row row);

  mutable std::mutex mutex_;
  std::map<std::string, Row> rows_;
  std::map<std::string, std::size_t> errors_;
  std::FILE* csv_;
};

}  // namespace load
