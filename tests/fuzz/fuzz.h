// What a fuzz target is: LLVMFuzzerTestOneInput and the inputs that mutation starts from.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>
#include <vector>

using Texts = std::vector<std::string>;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

/// Well-formed inputs of the target.
Texts fuzz_seeds();

/// Words for a fuzzer's dictionary, beside those that stand in the seeds; a target may do without.
Texts fuzz_words();

/// What must hold for every input.
inline void require(bool holds, const char* what) {
  if (holds) return;
  std::fprintf(stderr, "does not hold: %s\n", what);
  std::abort();
}

/// With clock.cpp: passes so much time of the monotonic clock.
void pass_ms(std::int64_t ms);

inline std::string text_of(const std::uint8_t* data, std::size_t size) {
  return {reinterpret_cast<const char*>(data), size};
}

inline Texts split(std::string_view text, std::string_view at) {
  Texts parts;
  for (std::size_t end = 0; (end = text.find(at)) != text.npos; text.remove_prefix(end + at.size())) {
    parts.emplace_back(text.substr(0, end));
  }
  parts.emplace_back(text);
  return parts;
}
