// Exhaustive exploration: a test runs once for every combination of what it chooses.
#ifndef KESTREL_TESTS_CHOICES_H
#define KESTREL_TESTS_CHOICES_H

#include <cstddef>
#include <vector>

/// Walks a tree of choices, depth first: run the whole path, then next() until it says that all were taken.
class Choices {
 public:
  std::size_t choose(std::size_t count) {
    if (at_ == digits_.size()) digits_.push_back({0, count});
    return digits_[at_++].chosen;
  }
  bool next() {
    at_ = 0;
    while (!digits_.empty() && digits_.back().chosen + 1 == digits_.back().count) digits_.pop_back();
    if (digits_.empty()) return false;
    ++digits_.back().chosen;
    return true;
  }

 private:
  struct Digit {
    std::size_t chosen, count;
  };
  std::vector<Digit> digits_;
  std::size_t at_ = 0;
};

#endif
