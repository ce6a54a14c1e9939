// What a fuzz target is: LLVMFuzzerTestOneInput and the inputs that mutation starts from.
#ifndef KESTREL_TESTS_FUZZ_H
#define KESTREL_TESTS_FUZZ_H

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

using Texts = std::vector<std::string>;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

/// Well-formed inputs of the target.
Texts fuzz_seeds();

/// What must hold for every input.
inline void require(bool holds, const char* what) {
  if (holds) return;
  std::fprintf(stderr, "does not hold: %s\n", what);
  std::abort();
}

inline std::string text_of(const std::uint8_t* data, std::size_t size) {
  return {reinterpret_cast<const char*>(data), size};
}

inline Texts split(const std::string& text, char at) {
  Texts parts(1);
  for (const char c : text) c == at ? parts.emplace_back() : parts.back() += c;
  return parts;
}

#endif
