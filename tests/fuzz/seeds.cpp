// For libFuzzer's executables: writes the target's seeds, and a dictionary of their words, into the folder that
// KESTREL_FUZZ_SEEDS names, before the fuzzer begins.
#include <cctype>
#include <filesystem>
#include <fstream>
#include <set>

#include "fuzz.h"

namespace {

constexpr std::size_t shortest_word = 3, longest_word = 40;

void add_words(const std::string& seed, std::set<std::string>& words) {
  std::string word;
  for (const char c : seed + '\0') {
    const bool belongs = std::isalnum(static_cast<unsigned char>(c)) != 0 || std::string("_-/<>:=.").find(c) < 8;
    if (belongs) word += c;
    if (!belongs && word.size() >= shortest_word && word.size() <= longest_word) words.insert(word);
    if (!belongs) word.clear();
  }
}

}  // namespace

__attribute__((weak)) Texts fuzz_words() {
  return {};
}

extern "C" int LLVMFuzzerInitialize(int* /*argc*/, char*** /*argv*/) {
  const char* const folder = std::getenv("KESTREL_FUZZ_SEEDS");
  if (folder == nullptr) return 0;
  const std::filesystem::path at = folder;
  std::filesystem::create_directories(at / "corpus");
  std::set<std::string> words;
  int number = 0;
  for (const std::string& seed : fuzz_seeds()) {
    std::ofstream(at / "corpus" / ("seed-" + std::to_string(number++)), std::ios::binary) << seed;
    add_words(seed, words);
  }
  std::ofstream dictionary(at / "dictionary");
  for (const std::string& word : fuzz_words()) words.insert(word);
  for (const std::string& word : words) {
    dictionary << '"';
    for (const char c : word) {
      char escape[5];
      std::snprintf(escape, sizeof(escape), "\\x%02x", static_cast<unsigned>(static_cast<unsigned char>(c)));
      dictionary << escape;
    }
    dictionary << "\"\n";
  }
  return 0;
}
