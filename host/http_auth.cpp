// libtessel: the Digest challenge of a response.
#include <algorithm>
#include <array>
#include <string>
#include <utility>

#include "abi.h"

namespace host {

namespace {

constexpr std::string_view blanks = " \t\r\n";

char lower(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

bool same_word(std::string_view a, std::string_view b) {
  return std::ranges::equal(a, b, {}, lower, lower);
}

/// Walks over a field value of challenges: `Basic realm="x", Digest realm="y", qop=auth`.
class Cursor {
 public:
  explicit Cursor(std::string_view text) : rest_(text) {}

  [[nodiscard]] bool at_end() const { return rest_.empty(); }

  void skip_blanks() { rest_.remove_prefix(std::min(rest_.find_first_not_of(blanks), rest_.size())); }

  bool take(char c) {
    if (!rest_.starts_with(c)) return false;
    rest_.remove_prefix(1);
    return true;
  }

  void skip() { rest_.remove_prefix(1); }

  /// A run of characters without separators; may be empty.
  std::string_view token() {
    const std::size_t len = std::min(rest_.find_first_of(" \t\r\n,=\""), rest_.size());
    const std::string_view word = rest_.substr(0, len);
    rest_.remove_prefix(len);
    return word;
  }

  /// A token or a quoted text, its escapes taken away. A missing closing quote ends at the end.
  std::string value() {
    if (!take('"')) return std::string(value_token());
    std::string text;
    while (!rest_.empty() && !take('"')) {
      if (rest_.size() > 1) take('\\');
      text += rest_.front();
      rest_.remove_prefix(1);
    }
    return text;
  }

 private:
  /// Unquoted values may hold "=", as the ends of base64 texts do.
  std::string_view value_token() {
    const std::size_t len = std::min(rest_.find_first_of(" \t\r\n,"), rest_.size());
    const std::string_view word = rest_.substr(0, len);
    rest_.remove_prefix(len);
    return word;
  }

  std::string_view rest_;
};

struct Challenge {
  std::string realm, nonce, algorithm, qop;
};

/// Keeps a parameter that counts; the first of a name wins.
void keep(Challenge& challenge, std::string_view name, std::string value) {
  const std::array<std::pair<std::string_view, std::string*>, 4> places{{{"realm", &challenge.realm},
                                                                         {"nonce", &challenge.nonce},
                                                                         {"algorithm", &challenge.algorithm},
                                                                         {"qop", &challenge.qop}}};
  for (const auto& [known, place] : places) {
    if (!same_word(known, name)) continue;
    if (place->empty()) *place = std::move(value);
    return;
  }
}

/// The one of the offered qualities of protection to use: auth before auth-int, empty when neither is.
std::string_view choose_qop(std::string_view offered) {
  bool integrity = false;
  while (!offered.empty()) {
    offered.remove_prefix(std::min(offered.find_first_not_of(" \t,"), offered.size()));
    const std::size_t len = std::min(offered.find_first_of(" \t,"), offered.size());
    if (same_word(offered.substr(0, len), "auth")) return "auth";
    integrity = integrity || same_word(offered.substr(0, len), "auth-int");
    offered.remove_prefix(len);
  }
  return integrity ? "auth-int" : "";
}

/// Adds the Digest challenges of one field value to the list.
template <typename Take>
void for_each_digest(std::string_view field, Take&& take) {
  Cursor cursor(field);
  Challenge challenge;
  bool digest = false;
  const auto finish = [&] {
    if (digest) take(challenge);
    challenge = {};
  };
  while (cursor.skip_blanks(), !cursor.at_end()) {
    if (cursor.take(',')) continue;
    const std::string_view word = cursor.token();
    cursor.skip_blanks();
    if (cursor.take('=')) {
      cursor.skip_blanks();
      std::string value = cursor.value();
      if (digest) keep(challenge, word, std::move(value));
    } else if (word.empty()) {
      cursor.skip();  // a stray quote
    } else {
      finish();
      digest = same_word(word, "Digest");
    }
  }
  finish();
}

/// Whether the caller, who computes MD5, can answer it.
bool is_md5(const Challenge& challenge) {
  return challenge.algorithm.empty() || same_word(challenge.algorithm, "MD5") ||
         same_word(challenge.algorithm, "MD5-sess");
}

Challenge find_challenge(const packetheader_field_node* field) {
  Challenge chosen;
  bool found = false;
  for (; field != nullptr; field = field->NextField) {
    if (field->Field == nullptr || field->FieldData == nullptr) continue;
    if (!same_word(field->Field, "WWW-Authenticate")) continue;
    for_each_digest(field->FieldData, [&](const Challenge& challenge) {
      // The first counts, unless it asks for another algorithm and a later one does not.
      if (found && (is_md5(chosen) || !is_md5(challenge))) return;
      chosen = challenge;
      found = true;
    });
  }
  return chosen;
}

int fill(packetheader_field_node* first_header, AuthenticateInfo& auth) {
  const Challenge challenge = find_challenge(first_header);
  put_text(auth.realm, sizeof(auth.realm), challenge.realm);
  put_text(auth.nonce, sizeof(auth.nonce), challenge.nonce);
  put_text(auth.algorithm, sizeof(auth.algorithm), challenge.algorithm);
  put_text(auth.qop, sizeof(auth.qop), choose_qop(challenge.qop));
  return 1;
}

}  // namespace

}  // namespace host

extern "C" void GetAuthenticateInfo(packetheader_field_node* first_header, AuthenticateInfo* auth) {
  if (auth == nullptr) return;
  auth->realm[0] = auth->nonce[0] = auth->algorithm[0] = auth->qop[0] = '\0';
  host::guarded(0, [&] { return host::fill(first_header, *auth); });
}
