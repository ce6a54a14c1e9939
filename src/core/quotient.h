// Division by a constant, as a multiplication. Compilers that optimise for size call a routine of the compiler's own
// instead where the processor cannot divide: 1.3 kB on 32-bit ARM, for three places.
#pragma once

#include <bit>
#include <cstdint>

namespace kestrel {

/// `number` divided by `by`, cut, for every number.
template <std::uint32_t by>
constexpr std::uint32_t quotient(std::uint32_t number) {
  // The greatest power of two whose rounded-up factor has 32 bits.
  constexpr int shift = 31 + std::bit_width(by);
  constexpr std::uint64_t factor = (std::uint64_t{1} << shift) / by + 1;
  static_assert(factor * by - (std::uint64_t{1} << shift) <= std::uint64_t{1} << (shift - 32), "not for every number");
  return static_cast<std::uint32_t>(number * factor >> shift);
}

static_assert(quotient<10>(0xFFFFFFFF) == 429496729 && quotient<10>(0xFFFFFFF9) == 429496728);
static_assert(quotient<1000>(0xFFFFFFFF) == 4294967 && quotient<1'000'000>(999'999'999) == 999);

}  // namespace kestrel
