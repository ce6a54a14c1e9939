// A copy of a log without its secrets.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "reader.h"

namespace explain {

/// Which IPv4 addresses are replaced: those of the internet, all, or none. Private ones stay private, so that the copy
/// is explained as the log is. Masks, 0.0.0.0 and loopback stay.
enum class Addresses { none, public_only, all };

/// Replaces what must not be mailed by words that tell its kind and number, equal values by equal words. Lines are
/// shown to it twice: first all to learn from, then each to be rewritten.
class Redactor {
 public:
  explicit Redactor(Addresses addresses) : addresses_(addresses) {}
  void learn(const Line& line);
  std::string rewrite(const Line& line);
  /// Whether a line was the daemon's: of another text, nobody knows what is secret in it.
  [[nodiscard]] bool is_daemons() const { return is_daemons_; }
  /// Values that are words of the log itself: they are replaced only where they stand as a secret.
  [[nodiscard]] bool has_common_word() const { return common_word_; }

 private:
  std::string word_for(std::string_view kind, std::string_view value);
  std::string fields_replaced(std::string_view line);
  [[nodiscard]] std::string globals_replaced(std::string text) const;
  std::string enclosed_replaced(std::string text);
  std::string tokens_replaced(std::string_view text, bool with_addresses);
  std::string token_replaced(std::string_view& rest, char before, bool with_addresses);
  std::string address_for(std::string_view ip, std::uint32_t number);
  void learn_global(std::string_view kind, std::string_view value);
  Addresses addresses_;
  std::map<std::string, std::map<std::string, std::size_t, std::less<>>, std::less<>> words_;  // kind, value, number
  std::vector<std::pair<std::string, std::string>> globals_;  // replaced wherever they stand, and by what; long first
  std::size_t known_ = 0;
  bool common_word_ = false;
  bool is_daemons_ = false;
  bool in_body_ = false;  // between the marks of an answer's body
};

/// What became of a copy.
enum class Redacted {
  not_a_log,    // nothing was written
  common_word,  // a secret was a word of the log, see above
  done,
};

/// Reads the files ("-": standard input) and writes a redacted copy to `output` ("-": standard output): all of it or
/// nothing. Throws std::runtime_error.
Redacted redact_files(const std::vector<std::string>& paths, const std::string& output, Addresses addresses);

}  // namespace explain
