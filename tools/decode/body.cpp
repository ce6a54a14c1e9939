// Decoding and encoding; the XML check is pugixml's.
#include "body.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <clocale>
#include <cwchar>
#include <cwctype>
#include <iterator>
#include <pugixml.hpp>
#include <random>
#include <utility>

#include "service_cipher.h"

namespace decode {
namespace {

using service_cipher::base64, service_cipher::cfb8, service_cipher::refer_key, service_cipher::service_key;
using service_cipher::block_len, service_cipher::digits_len;

constexpr std::size_t token_len = 32;
constexpr std::size_t token_digits = 30;  // six digits, five times over
constexpr std::size_t refer_max = 31;
constexpr std::string_view refer_head = "var data = \"";
constexpr std::string_view refer_tail = "\";";
constexpr std::string_view blanks = " \t\r\n";

bool is_digit(char c) {
  return c >= '0' && c <= '9';
}
bool is_hex(char c) {
  return is_digit(c) || (c >= 'a' && c <= 'f');
}

std::string decipher(Kind kind, std::string_view in) {
  return cfb8(false, kind == Kind::refer ? refer_key : service_key, in);
}
std::string encipher(Kind kind, std::string_view in) {
  return cfb8(true, kind == Kind::refer ? refer_key : service_key, in);
}

std::string trimmed(std::string_view text) {
  const std::size_t begin = std::min(text.find_first_not_of(blanks), text.size());
  return std::string(text.substr(begin, text.find_last_not_of(blanks) + 1 - begin));
}

// Decodes standard base64; a fault names the offset at which it stops being base64, counted from
// `start` characters before the text.
std::string from_base64(std::string_view input, std::vector<std::string>& faults, std::size_t start = 0) {
  service_cipher::Unbase64 read = service_cipher::read_base64(input);
  if (read.bad_at != std::string::npos) {
    faults.push_back(fmt::format("not base64 at offset {}: byte 0x{:02X}", start + read.bad_at,
                                 static_cast<std::uint8_t>(input[read.bad_at])));
  }
  if (read.cut) faults.emplace_back("the base64 is cut short: its length is no multiple of 4");
  return std::move(read.raw);
}

// The bytes as UTF-8 text in which '?' stands for each byte or character that a terminal shouldn't
// get; `bad` counts them and `first_bad` is the offset of the first.
std::string readable(std::string_view raw, std::size_t& bad, std::size_t& first_bad) {
  std::setlocale(LC_CTYPE, "C.UTF-8");
  std::string out;
  std::mbstate_t state{};
  bad = 0;
  for (std::size_t at = 0; at < raw.size();) {
    wchar_t c = 0;
    std::size_t n = std::mbrtowc(&c, raw.data() + at, raw.size() - at, &state);
    const bool whole = n > 0 && n <= raw.size() - at;
    if (whole && (std::iswprint(static_cast<std::wint_t>(c)) != 0 || blanks.find(raw[at]) != std::string_view::npos)) {
      out += raw.substr(at, n);
    } else {
      if (bad++ == 0) first_bad = at;
      out += '?';
      if (!whole) {
        state = {};
        n = 1;
      }
    }
    at += n;
  }
  return out;
}

void check_xml(std::string_view xml, std::vector<std::string>& faults) {
  const std::size_t before = std::min(xml.find('<'), xml.size());
  if (xml.substr(0, before).find_first_not_of(blanks) != std::string_view::npos) {
    faults.push_back(fmt::format("{} characters stand before the XML", before));
  }
  pugi::xml_document document;
  const pugi::xml_parse_result parsed = document.load_buffer(xml.data(), xml.size());
  if (!parsed)
    faults.push_back(
        fmt::format("the XML is not well-formed at its offset {}: {}", parsed.offset, parsed.description()));
}

std::size_t digits_at_start(std::string_view text) {
  return static_cast<std::size_t>(std::ranges::find_if_not(text, is_digit) - text.begin());
}

// Makes a text of deciphered bytes: zero bytes at the end are cut off, and what isn't text is a
// fault. False when there is nothing to show.
bool take_text(std::string& plain, Result& result) {
  const std::size_t length = plain.find_last_not_of('\0') + 1;
  if (plain.size() > length) result.notes.push_back(fmt::format("{} zero bytes of padding", plain.size() - length));
  plain.resize(length);
  std::size_t bad = 0;
  std::size_t first_bad = 0;
  std::string text = readable(plain, bad, first_bad);
  // Damage in cipher feedback heals after one block, so a few bad bytes don't make the rest useless.
  const bool hopeless = bad > block_len + plain.size() / 8 || bad * 2 > plain.size();
  if (plain.empty()) {
    if (result.faults.empty()) result.faults.emplace_back("there is nothing in it");
  } else if (hopeless) {
    result.faults.emplace_back(
        "the deciphered bytes are not printable: it was made with another key, or isn't of this kind");
  } else if (bad > 0) {
    result.faults.push_back(
        fmt::format("{} of {} bytes are not printable, the first at offset {}", bad, length, first_bad));
  }
  plain = std::move(text);
  return !plain.empty() && !hopeless;
}

Result decode_body(std::string_view input) {
  Result result{Kind::body, {}, {}, {}};
  std::string plain = decipher(Kind::body, from_base64(input, result.faults));
  if (plain.size() % block_len != 0) {
    result.faults.push_back(fmt::format("a body's length is a multiple of 8, but this one has {} bytes", plain.size()));
  }
  if (!take_text(plain, result)) return result;
  if (digits_at_start(plain) >= digits_len) {
    result.notes.push_back("digits " + plain.substr(0, digits_len));
    plain.erase(0, digits_len);
  } else {
    result.faults.emplace_back("the six digits in front of the XML are missing");
  }
  check_xml(plain, result.faults);
  result.text = std::move(plain);
  return result;
}

Result decode_answer(std::string_view input) {
  Result result{Kind::answer, {}, {}, {}};
  std::string plain = decipher(Kind::answer, from_base64(input, result.faults));
  if (!take_text(plain, result)) return result;
  check_xml(plain, result.faults);
  result.text = std::move(plain);
  return result;
}

Result decode_refer(std::string_view input) {
  Result result{Kind::refer, {}, {}, {}};
  std::string content = trimmed(input);
  const std::size_t wrapping = refer_head.size() + refer_tail.size();
  if (content.size() < wrapping || !content.starts_with(refer_head) || !content.ends_with(refer_tail)) {
    result.faults.emplace_back("not a refer file: that is one statement, var data = \"...\";");
    return result;
  }
  content = content.substr(refer_head.size(), content.size() - wrapping);
  std::string plain = decipher(Kind::refer, from_base64(content, result.faults, refer_head.size()));
  if (!take_text(plain, result)) return result;
  if (plain.size() > refer_max) {
    result.faults.push_back(fmt::format("it has {} characters, more than {}", plain.size(), refer_max));
  }
  const std::size_t digits = std::min(digits_at_start(plain), digits_len);
  if (digits < digits_len) result.faults.emplace_back("the six digits of the timestamp are missing");
  result.text = fmt::format("timestamp {}\nhid {}\n", plain.substr(0, digits), plain.substr(digits));
  return result;
}

// How many bytes at the start repeat one group of six digits.
std::size_t repeated_digits(std::string_view plain) {
  std::size_t n = 0;
  while (n < plain.size() && is_digit(plain[n]) && (n < digits_len || plain[n] == plain[n - digits_len])) ++n;
  return n;
}

// A token keeps 24 bytes of the enciphered digits. When one of these bytes is zero, the cipher text
// ends before it and hexadecimal digits fill the token up; where that is can only be tried.
Result decode_token(std::string_view input) {
  Result result{Kind::token, {}, {}, {}};
  const std::string token = trimmed(input);
  if (token.size() != token_len) {
    result.faults.push_back(fmt::format("a token has {} characters, but this one has {}", token_len, token.size()));
    return result;
  }
  constexpr std::size_t carried_len = token_len / 4 * 3;
  for (std::size_t length = carried_len + 1; length-- > 0;) {
    const std::size_t end = (length + 2) / 3 * 4;
    const std::string filler = token.substr(end);
    std::vector<std::string> faults;
    const std::string raw = from_base64(std::string_view(token).substr(0, end), faults);
    const std::string plain = decipher(Kind::token, raw);
    if (!faults.empty() || plain.size() != length || repeated_digits(plain) != length) continue;
    if (!std::ranges::all_of(filler, is_hex)) continue;
    std::string digits = plain.substr(0, digits_len);
    digits.resize(digits_len, '?');
    result.text = "digits " + digits + "\n";
    result.notes.push_back(fmt::format("{} of {} digits are in it", length, token_digits));
    if (length < carried_len) result.notes.push_back("its cipher text ended at a zero byte; filled up with " + filler);
    return result;
  }
  from_base64(token, result.faults);
  if (result.faults.empty())
    result.faults.emplace_back("no repeated digits come out: it was made with another key, or is no token");
  return result;
}

bool six_digits(std::string_view text) {
  return text.size() == digits_len && digits_at_start(text) == digits_len;
}

Result encode_enciphered(Kind kind, std::string plain) {
  if (kind == Kind::body) plain.resize((plain.size() + block_len - 1) / block_len * block_len);
  return {kind, base64(encipher(kind, plain)), {}, {}};
}

Result encode_token(std::string_view text) {
  const std::string digits = trimmed(text);
  if (!six_digits(digits)) return {Kind::token, {}, {}, {"a token is made of six digits"}};
  std::string plain;
  while (plain.size() < token_digits) plain += digits;
  plain.resize(token_len);
  std::string raw = encipher(Kind::token, plain);
  raw.resize(std::min(raw.find('\0'), raw.size()));
  std::string token = base64(raw);
  std::random_device random;
  while (token.size() < token_len) token += fmt::format("{:x}", random());
  token.resize(token_len);
  return {Kind::token, token, {}, {}};
}

Result encode_refer(std::string_view text) {
  const std::string plain = trimmed(text);
  if (plain.size() > refer_max || digits_at_start(plain) < digits_len) {
    return {Kind::refer, {}, {}, {"a refer file is made of six digits and a host id, 31 characters at most"}};
  }
  Result result = encode_enciphered(Kind::refer, plain);
  result.text = std::string(refer_head) + result.text + std::string(refer_tail);
  return result;
}

struct KindInfo {
  Kind kind;
  const char* name;
  Result (*decode)(std::string_view);
};

constexpr KindInfo kinds[] = {
    {Kind::body, "body", decode_body},
    {Kind::answer, "answer", decode_answer},
    {Kind::token, "token", decode_token},
    {Kind::refer, "refer", decode_refer},
};

}  // namespace

const char* to_text(Kind kind) {
  return std::ranges::find(kinds, kind, &KindInfo::kind)->name;
}

std::optional<Kind> parse_kind(std::string_view text) {
  const auto* row = std::ranges::find(kinds, text, &KindInfo::name);
  return row == std::end(kinds) ? std::nullopt : std::optional(row->kind);
}

Result decode(Kind kind, std::string_view input) {
  return std::ranges::find(kinds, kind, &KindInfo::kind)->decode(input);
}

Result decode_any(std::string_view input) {
  const std::string text = trimmed(input);
  if (text.empty()) return {Kind::body, {}, {}, {"the input is empty"}};
  if (text.starts_with("var ")) return decode_refer(text);
  if (Result token = decode_token(text); !token.text.empty()) return token;
  std::vector<std::string> faults;
  const std::string plain = decipher(Kind::body, from_base64(input, faults));
  if (digits_at_start(plain) >= digits_len) return decode_body(input);
  Result result = decode_answer(input);
  if (result.text.empty() && faults.empty()) {
    result.faults = {
        "neither a body, an answer, a token nor a refer file: nothing printable comes out with the known keys"};
  }
  return result;
}

Result encode(Kind kind, std::string_view text, std::string_view digits) {
  if (kind == Kind::token) return encode_token(text);
  if (kind == Kind::refer) return encode_refer(text);
  if (kind == Kind::answer) return encode_enciphered(kind, std::string(text));
  if (!six_digits(digits)) return {kind, {}, {}, {"the digits in front of a body are six"}};
  return encode_enciphered(kind, std::string(digits) + std::string(text));
}

}  // namespace decode
