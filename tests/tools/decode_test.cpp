// tools/decode: what it makes of good input is the daemon's own work undone; what it says of bad input is a table.
#include "body.h"

#include <cstring>

#include "fake_platform/fixture.h"
#include "service/body_cipher.h"
#include "service/requests.h"
#include "service/token.h"
#include "support/child.h"
#include "support/nettle_cipher.h"

namespace decode {

std::string all(const std::vector<std::string>& sentences) {
  std::string text;
  for (const std::string& sentence : sentences) text += sentence + '\n';
  return text;
}

class Decode : public FakeTest {};

TEST_F(Decode, UndoesWhatTheDaemonDoes) {
  for (std::size_t len = 0; len < 20; ++len) {
    const std::string xml = "<ldev>" + std::string(len, 'x') + "B\xc3\xbcro</ldev>";
    char plain[256] = "654321";
    std::strcat(plain, xml.c_str());
    const std::string body = kestrel::encipher_body(plain, "%d").get();
    for (const Result& result : {decode_any(body), decode(Kind::body, std::string(body).insert(17, "\r\n"))}) {
      EXPECT_EQ(result.kind, Kind::body);
      EXPECT_EQ(result.text + all(result.faults), xml);
      EXPECT_EQ(result.notes.back(), "digits 654321");
    }
    EXPECT_EQ(encode(Kind::body, xml, "654321").text, body);
  }
  for (fake.unix_time_us = 0; fake.unix_time_us < 1000000; fake.unix_time_us += 1237) {
    char token[kestrel::token_len + 1];
    unsigned length = 0;
    const Result result = decode_any(kestrel::make_token(token, &length));
    char digits[32];
    std::snprintf(digits, sizeof(digits), "digits %06ld\n", fake.unix_time_us);
    for (std::size_t i = 0; i < result.text.size(); ++i) {
      if (result.text[i] == '?') digits[i] = '?';  // cut off at a zero byte
    }
    EXPECT_EQ(result.text + all(result.faults), digits) << token;
  }
  fake.refer_path = "/tmp/kestrel_decode_test.js";
  ASSERT_EQ(kestrel::write_refer_file("HID00001", "123456"), 1);
  const std::string refer = read_file(fake.refer_path);
  unlink(fake.refer_path.c_str());
  EXPECT_EQ(decode_any(refer + "\n").text, "timestamp 123456\nhid HID00001\n");
  EXPECT_EQ(encode(Kind::refer, "123456HID00001", "").text, refer);
}

TEST_F(Decode, SaysWhatIsWrong) {
  using nettle_cipher::seal;
  struct Row {
    std::optional<Kind> kind;
    std::string input, text, faults;
  };
  const Row rows[] = {
      {{}, "", "", "the input is empty\n"},
      {{}, "abcd!fgh", "", "not base64 at offset 4: byte 0x21\n"},
      {{}, "abcdefgh", "", "neither a body, an answer, a token nor a refer file"},
      {Kind::body, seal("123456<ldev/>"), "<ldev/>", "a body's length is a multiple of 8, but this one has 13 bytes\n"},
      {Kind::body, seal(std::string("<ldev/>\0", 8)), "<ldev/>", "the six digits in front of the XML are missing\n"},
      {Kind::body, seal("123456<a><b></a>"), "<a><b></a>", "the XML is not well-formed at its offset"},
      {Kind::answer, seal("ok<ldev/>"), "ok<ldev/>", "2 characters stand before the XML\n"},
      {Kind::answer, seal("<l>\033[2J</l>"), "<l>?[2J</l>", "1 of 11 bytes are not printable, the first at offset 3\n"},
      {Kind::answer,
       nettle_cipher::base64(nettle_cipher::cfb8(true, nettle_cipher::refer_key, "<ldev>abcdefgh</ldev>")), "",
       "made with another key"},
      {Kind::token, "abc", "", "a token has 32 characters, but this one has 3\n"},
      {Kind::token, std::string(32, 'Z'), "", "no repeated digits come out"},
      {{}, "var data = \"AAAA\"", "", "not a refer file"},
      {{}, "var data = \"A#AA\";", "", "not base64 at offset 13: byte 0x23\n"}};
  for (const Row& row : rows) {
    const Result result = row.kind ? decode(*row.kind, row.input) : decode_any(row.input);
    EXPECT_EQ(result.text, row.text) << row.input;
    EXPECT_NE(all(result.faults).find(row.faults), std::string::npos) << all(result.faults);
  }
  const std::string whole = seal("123456<ldev>a text long enough to be read</ldev>");
  EXPECT_EQ(decode(Kind::answer, whole.substr(12)).text.substr(8), "t long enough to be read</ldev>");
}

}  // namespace decode
