// Decoding and encoding; the cipher and base64 are nettle's, the XML check is pugixml's.
#include "body.h"

#include <fmt/format.h>
#include <nettle/base64.h>
#include <nettle/blowfish.h>
#include <nettle/cfb.h>
#include <nettle/md5.h>

#include <algorithm>
#include <array>
#include <clocale>
#include <cwchar>
#include <cwctype>
#include <iterator>
#include <pugixml.hpp>
#include <random>
#include <utility>

namespace decode {
namespace {

constexpr std::string_view kFirstSecret = "4RkMCwa7tebVLzo2H";
constexpr std::string_view kSecondSecret = "quilmore";
constexpr std::string_view kReferKey = "MorvbTUcwe5pidKrZhu8N216";
constexpr std::string_view kIv = "58585858";
static_assert(kFirstSecret.size() == 17 && kReferKey.size() == 24 && kIv.size() == BLOWFISH_BLOCK_SIZE);

constexpr std::size_t kDigits = 6;
constexpr std::size_t kBlock = 8;
constexpr std::size_t kTokenLength = 32;
constexpr std::size_t kTokenDigits = 30;  // six digits, five times over
constexpr std::size_t kReferMax = 31;
constexpr std::string_view kReferHead = "var data = \"";
constexpr std::string_view kReferTail = "\";";
constexpr std::string_view kBlanks = " \t\r\n";

const std::uint8_t* bytes(std::string_view text) {
  return reinterpret_cast<const std::uint8_t*>(text.data());
}

bool is_digit(char c) {
  return c >= '0' && c <= '9';
}
bool is_hex(char c) {
  return is_digit(c) || (c >= 'a' && c <= 'f');
}

// The key is the hexadecimal text of the digest itself, not its 16 bytes.
std::string service_key() {
  md5_ctx md5;
  std::array<std::uint8_t, MD5_DIGEST_SIZE> digest;
  md5_init(&md5);
  for (const std::string_view part : {kFirstSecret, std::string_view(":"), kSecondSecret}) {
    md5_update(&md5, part.size(), bytes(part));
  }
  md5_digest(&md5, digest.size(), digest.data());
  std::string key;
  for (const std::uint8_t byte : digest) key += fmt::format("{:02x}", byte);
  return key;
}

std::string key_of(Kind kind) {
  return kind == Kind::refer ? std::string(kReferKey) : service_key();
}

void block_encrypt(const void* context, std::size_t length, std::uint8_t* to, const std::uint8_t* from) {
  blowfish_encrypt(static_cast<const blowfish_ctx*>(context), length, to, from);
}

std::string cipher(Kind kind, std::string_view in, decltype(&cfb8_decrypt) mode) {
  const std::string key = key_of(kind);
  blowfish_ctx context;
  blowfish_set_key(&context, key.size(), bytes(key));
  std::array<std::uint8_t, BLOWFISH_BLOCK_SIZE> iv;
  std::copy(kIv.begin(), kIv.end(), iv.begin());
  std::string out(in.size(), '\0');
  if (in.empty()) return out;
  mode(&context, block_encrypt, iv.size(), iv.data(), in.size(), reinterpret_cast<std::uint8_t*>(out.data()),
       bytes(in));
  return out;
}

std::string trimmed(std::string_view text) {
  const std::size_t begin = std::min(text.find_first_not_of(kBlanks), text.size());
  return std::string(text.substr(begin, text.find_last_not_of(kBlanks) + 1 - begin));
}

// Decodes standard base64; a fault names the offset at which it stops being base64, counted from
// `start` characters before the text.
std::string from_base64(std::string_view input, std::vector<std::string>& faults, std::size_t start = 0) {
  std::string out(BASE64_DECODE_LENGTH(input.size()), '\0');
  base64_decode_ctx context;
  base64_decode_init(&context);
  std::size_t total = 0;
  for (std::size_t i = 0; i < input.size(); ++i) {
    std::uint8_t byte = 0;
    const int n = base64_decode_single(&context, &byte, input[i]);
    if (n < 0) {
      faults.push_back(
          fmt::format("not base64 at offset {}: byte 0x{:02X}", start + i, static_cast<std::uint8_t>(input[i])));
      return {};
    }
    if (n > 0) out[total++] = static_cast<char>(byte);
  }
  if (base64_decode_final(&context) != 1)
    faults.emplace_back("the base64 is cut short: its length is no multiple of 4");
  out.resize(total);
  return out;
}

std::string to_base64(std::string_view raw) {
  std::string out(BASE64_ENCODE_RAW_LENGTH(raw.size()), '\0');
  base64_encode_raw(out.data(), raw.size(), bytes(raw));
  return out;
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
    if (whole && (std::iswprint(static_cast<std::wint_t>(c)) != 0 || kBlanks.find(raw[at]) != std::string_view::npos)) {
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
  if (xml.substr(0, before).find_first_not_of(kBlanks) != std::string_view::npos) {
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
  const bool hopeless = bad > kBlock + plain.size() / 8 || bad * 2 > plain.size();
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
  std::string plain = cipher(Kind::body, from_base64(input, result.faults), cfb8_decrypt);
  if (plain.size() % kBlock != 0) {
    result.faults.push_back(fmt::format("a body's length is a multiple of 8, but this one has {} bytes", plain.size()));
  }
  if (!take_text(plain, result)) return result;
  if (digits_at_start(plain) >= kDigits) {
    result.notes.push_back("digits " + plain.substr(0, kDigits));
    plain.erase(0, kDigits);
  } else {
    result.faults.emplace_back("the six digits in front of the XML are missing");
  }
  check_xml(plain, result.faults);
  result.text = std::move(plain);
  return result;
}

Result decode_answer(std::string_view input) {
  Result result{Kind::answer, {}, {}, {}};
  std::string plain = cipher(Kind::answer, from_base64(input, result.faults), cfb8_decrypt);
  if (!take_text(plain, result)) return result;
  check_xml(plain, result.faults);
  result.text = std::move(plain);
  return result;
}

Result decode_refer(std::string_view input) {
  Result result{Kind::refer, {}, {}, {}};
  std::string content = trimmed(input);
  const std::size_t wrapping = kReferHead.size() + kReferTail.size();
  if (content.size() < wrapping || !content.starts_with(kReferHead) || !content.ends_with(kReferTail)) {
    result.faults.emplace_back("not a refer file: that is one statement, var data = \"...\";");
    return result;
  }
  content = content.substr(kReferHead.size(), content.size() - wrapping);
  std::string plain = cipher(Kind::refer, from_base64(content, result.faults, kReferHead.size()), cfb8_decrypt);
  if (!take_text(plain, result)) return result;
  if (plain.size() > kReferMax) {
    result.faults.push_back(fmt::format("it has {} characters, more than {}", plain.size(), kReferMax));
  }
  const std::size_t digits = std::min(digits_at_start(plain), kDigits);
  if (digits < kDigits) result.faults.emplace_back("the six digits of the timestamp are missing");
  result.text = fmt::format("timestamp {}\nhid {}\n", plain.substr(0, digits), plain.substr(digits));
  return result;
}

// How many bytes at the start repeat one group of six digits.
std::size_t repeated_digits(std::string_view plain) {
  std::size_t n = 0;
  while (n < plain.size() && is_digit(plain[n]) && (n < kDigits || plain[n] == plain[n - kDigits])) ++n;
  return n;
}

// A token keeps 24 bytes of the enciphered digits. When one of these bytes is zero, the cipher text
// ends before it and hexadecimal digits fill the token up; where that is can only be tried.
Result decode_token(std::string_view input) {
  Result result{Kind::token, {}, {}, {}};
  const std::string token = trimmed(input);
  if (token.size() != kTokenLength) {
    result.faults.push_back(fmt::format("a token has {} characters, but this one has {}", kTokenLength, token.size()));
    return result;
  }
  constexpr std::size_t kCarried = kTokenLength / 4 * 3;
  for (std::size_t length = kCarried + 1; length-- > 0;) {
    const std::size_t end = (length + 2) / 3 * 4;
    const std::string filler = token.substr(end);
    std::vector<std::string> faults;
    const std::string raw = from_base64(std::string_view(token).substr(0, end), faults);
    const std::string plain = cipher(Kind::token, raw, cfb8_decrypt);
    if (!faults.empty() || plain.size() != length || repeated_digits(plain) != length) continue;
    if (!std::ranges::all_of(filler, is_hex)) continue;
    std::string digits = plain.substr(0, kDigits);
    digits.resize(kDigits, '?');
    result.text = "digits " + digits + "\n";
    result.notes.push_back(fmt::format("{} of {} digits are in it", length, kTokenDigits));
    if (length < kCarried) result.notes.push_back("its cipher text ended at a zero byte; filled up with " + filler);
    return result;
  }
  from_base64(token, result.faults);
  if (result.faults.empty())
    result.faults.emplace_back("no repeated digits come out: it was made with another key, or is no token");
  return result;
}

bool six_digits(std::string_view text) {
  return text.size() == kDigits && digits_at_start(text) == kDigits;
}

Result encode_enciphered(Kind kind, std::string plain) {
  if (kind == Kind::body) plain.resize((plain.size() + kBlock - 1) / kBlock * kBlock);
  return {kind, to_base64(cipher(kind, plain, cfb8_encrypt)), {}, {}};
}

Result encode_token(std::string_view text) {
  const std::string digits = trimmed(text);
  if (!six_digits(digits)) return {Kind::token, {}, {}, {"a token is made of six digits"}};
  std::string plain;
  while (plain.size() < kTokenDigits) plain += digits;
  plain.resize(kTokenLength);
  std::string raw = cipher(Kind::token, plain, cfb8_encrypt);
  raw.resize(std::min(raw.find('\0'), raw.size()));
  std::string token = to_base64(raw);
  std::random_device random;
  while (token.size() < kTokenLength) token += fmt::format("{:x}", random());
  token.resize(kTokenLength);
  return {Kind::token, token, {}, {}};
}

Result encode_refer(std::string_view text) {
  const std::string plain = trimmed(text);
  if (plain.size() > kReferMax || digits_at_start(plain) < kDigits) {
    return {Kind::refer, {}, {}, {"a refer file is made of six digits and a host id, 31 characters at most"}};
  }
  Result result = encode_enciphered(Kind::refer, plain);
  result.text = std::string(kReferHead) + result.text + std::string(kReferTail);
  return result;
}

struct KindInfo {
  Kind kind;
  const char* name;
  Result (*decode)(std::string_view);
};

constexpr KindInfo kKinds[] = {
    {Kind::body, "body", decode_body},
    {Kind::answer, "answer", decode_answer},
    {Kind::token, "token", decode_token},
    {Kind::refer, "refer", decode_refer},
};

}  // namespace

const char* to_text(Kind kind) {
  return std::ranges::find(kKinds, kind, &KindInfo::kind)->name;
}

std::optional<Kind> parse_kind(std::string_view text) {
  const auto* row = std::ranges::find(kKinds, text, &KindInfo::name);
  return row == std::end(kKinds) ? std::nullopt : std::optional(row->kind);
}

Result decode(Kind kind, std::string_view input) {
  return std::ranges::find(kKinds, kind, &KindInfo::kind)->decode(input);
}

Result decode_any(std::string_view input) {
  const std::string text = trimmed(input);
  if (text.empty()) return {Kind::body, {}, {}, {"the input is empty"}};
  if (text.starts_with("var ")) return decode_refer(text);
  if (Result token = decode_token(text); !token.text.empty()) return token;
  std::vector<std::string> faults;
  const std::string plain = cipher(Kind::body, from_base64(input, faults), cfb8_decrypt);
  if (digits_at_start(plain) >= kDigits) return decode_body(input);
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
