// Exhaustive exploration: a test runs once for every combination of what it chooses.
#ifndef KESTREL_TESTS_CHOICES_H
#define KESTREL_TESTS_CHOICES_H

#include <cstddef>
#include <utility>
#include <vector>

/// Walks a tree of choices, depth first: run the whole path, then next() until it says that all were taken.
class Choices {
 public:
  std::size_t choose(std::size_t count) {
    if (at_ == digits_.size()) digits_.emplace_back(0, count);
    return digits_[at_++].first;
  }
  bool next() {
    at_ = 0;
    while (!digits_.empty() && digits_.back().first + 1 == digits_.back().second) digits_.pop_back();
    if (digits_.empty()) return false;
    ++digits_.back().first;
    return true;
  }

 private:
  std::vector<std::pair<std::size_t, std::size_t>> digits_;  // what was chosen, of how many
  std::size_t at_ = 0;
};

#endif
