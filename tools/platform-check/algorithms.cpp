// MD5 and base64 of libtessel, by values that are known.
#include <cstring>

#include "check.h"
#include "platform/tessel.h"

namespace platform_check {

namespace {

constexpr unsigned char pattern = 0xA5;
constexpr char not_known[] = "is refused by the service, which computes otherwise";

void digest(Finding& finding) {
  // RFC 1321's own example.
  constexpr unsigned char wanted[] = {0x90, 0x01, 0x50, 0x98, 0x3C, 0xD2, 0x4F, 0xB0,
                                      0xD6, 0x96, 0x3F, 0x7D, 0x28, 0xE1, 0x7F, 0x72};
  static Guarded state, out;
  state.fill(pattern);
  out.fill(pattern);
  auto* context = static_cast<MD5_CTX*>(static_cast<void*>(state.at()));
  unsigned char text[] = "abc";
  MD5Init(context);
  MD5Update(context, text, 1);
  MD5Update(context, text + 1, 2);
  MD5Final(out.at(), context);
  const int state_len = state.written(pattern);
  tell(finding, "a state of %d bytes", state_len);
  if (state_len < 0 || state_len > static_cast<int>(sizeof(MD5_CTX))) {
    note(finding, overwritten, "a state of more than %zu bytes", sizeof(MD5_CTX));
  }
  if (out.written(pattern) > static_cast<int>(sizeof(wanted))) note(finding, overwritten, "a digest beyond 16 bytes");
  if (std::memcmp(out.at(), wanted, sizeof(wanted)) != 0) note(finding, not_known, "another digest of \"abc\"");
}

struct Text {
  const char* plain;
  const char* encoded;
};
constexpr Text texts[] = {{"a", "YQ=="}, {"ab", "YWI="}, {"abc", "YWJj"}, {"\xFB\xFF\xFE", "+//+"}};

void encode(Finding& finding) {
  static Guarded out;
  for (const Text& text : texts) {
    out.fill(pattern);
    const auto wanted = static_cast<int>(std::strlen(text.encoded));
    const int len = b64_encode(text.plain, static_cast<unsigned>(std::strlen(text.plain)), out.at());
    const int width = out.written(pattern);
    tell(finding, "\"%.8s\", %d", out.text(), len);
    if (width > wanted + 1) note(finding, overwritten, "%d bytes, and %d are meant", width, wanted + 1);
    if (std::strncmp(out.text(), text.encoded, 5) != 0) note(finding, not_known, "another text, or no terminator");
    if (len != wanted) note(finding, "announces a wrong length", "result %d for %d characters", len, wanted);
  }
}

void decode(Finding& finding) {
  static Guarded out;
  constexpr struct {
    const char* encoded;
    const char* plain;
  } foreign[] = {{"YWJj!WJj", "abc"}, {"", ""}};
  const auto check = [&finding](const char* encoded, const char* plain) {
    out.fill(pattern);
    const auto in = static_cast<unsigned>(std::strlen(encoded));
    const auto wanted = static_cast<int>(std::strlen(plain));
    const int len = b64_decode(encoded, in, out.at());
    tell(finding, "%d bytes of \"%s\"", len, encoded);
    if (out.written(pattern) > static_cast<int>(3 * (in / 4) + 3)) {
      note(finding, overwritten, "more than its bound for %u characters", in);
    }
    if (len != wanted || std::memcmp(out.at(), plain, static_cast<std::size_t>(wanted)) != 0) {
      note(finding, "cannot read the service's answers", "another text of \"%s\"", encoded);
    } else if (out.at()[wanted] != 0) {
      note(finding, "compares a longer password", "no terminator behind the text");
    }
  };
  for (const Text& text : texts) check(text.encoded, text.plain);
  for (const auto& row : foreign) check(row.encoded, row.plain);
}

constexpr Row rows[] = {
    {"MD5Init, Update, Final", "\"abc\" in two parts", nullptr, {}, Result::unused, "", false, digest},
    {"b64_encode", "1 to 3 bytes", nullptr, {}, Result::unused, "", false, encode},
    {"b64_decode", "what belongs and not", nullptr, {}, Result::unused, "", false, decode},
};

}  // namespace

Rows algorithm_rows() {
  return {rows, sizeof(rows) / sizeof(rows[0])};
}

}  // namespace platform_check
