// Runs a fuzz target without a fuzzer: COUNT mutations of its seeds, the same ones every time. Each depends on its
// number alone, so a failure is repeated by "TARGET 1 NUMBER". "TARGET DIRECTORY" writes the seeds for a fuzzer.
#include <csignal>
#include <cstring>
#include <fstream>
#include <memory>
#include <random>
#include <string_view>

#include "fuzz.h"

extern "C" __attribute__((weak)) void __sanitizer_set_death_callback(void (*callback)());

namespace {

unsigned long number = 0;  // of the input at work

void tell_number() {
  std::fprintf(stderr, "input %lu\n", number);
}

std::string mutated(const Texts& seeds) {
  std::minstd_rand random(static_cast<std::uint_fast32_t>(number * 2654435761U + 1));
  random.discard(2);
  const auto below = [&](std::size_t end) { return random() / 7 % end; };
  const auto seed = [&] { return seeds[below(seeds.size())]; };
  constexpr std::string_view telling("\0\xff\x80\x7f\x01\"\\,=: \r\n\t<>&/A0", 20);
  std::string input = seed();
  for (std::size_t times = below(7); times > 0; --times) {
    const std::size_t cuts[] = {0, 1, 1, below(40), input.npos};
    const std::string other = seed(), part = other.substr(below(other.size() + 1));
    const char any = static_cast<char>(random() / 7), one = telling[below(telling.size())];
    const std::string pieces[] = {
        "", {any}, {one}, std::string(below(40) * (below(4) == 0 ? 30 : 1), one), part.substr(0, below(40)), part};
    input.replace(below(input.size() + 1), cuts[below(5)], pieces[below(6)]);
  }
  return input;
}

}  // namespace

int main(int argc, char** argv) {
  const Texts seeds = fuzz_seeds();
  const unsigned long count = argc > 1 ? std::strtoul(argv[1], nullptr, 10) : 0;
  for (std::size_t i = 0; argc > 1 && count == 0 && i < seeds.size(); ++i) {
    std::ofstream(argv[1] + ("/seed" + std::to_string(i)), std::ios::binary) << seeds[i];
  }
  if (__sanitizer_set_death_callback != nullptr) __sanitizer_set_death_callback(tell_number);
  for (const int fatal : {SIGABRT, SIGALRM}) {
    std::signal(fatal, [](int signal_number) {
      tell_number();
      std::signal(signal_number, SIG_DFL);
      std::raise(signal_number);
    });
  }
  const unsigned long first = argc > 2 ? std::strtoul(argv[2], nullptr, 10) : 1;
  for (number = first; number < first + count; ++number) {
    const std::string input = mutated(seeds);
    // Of exactly its size, so that reading past it is found.
    const std::unique_ptr<std::uint8_t[]> data(new std::uint8_t[input.size()]);
    std::memcpy(data.get(), input.data(), input.size());
    alarm(10);  // no input may hang
    LLVMFuzzerTestOneInput(data.get(), input.size());
  }
  std::printf("%lu inputs\n", count);
}
