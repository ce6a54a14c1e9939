// service/ without its exchanges: digest, cipher, token, bodies, refer file, XML values, connecting.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "fake_platform/fixture.h"
#include "service/blowfish.h"
#include "service/body_cipher.h"
#include "service/connect.h"
#include "service/digest.h"
#include "service/post_body.h"
#include "service/requests.h"
#include "service/token.h"
#include "support/child.h"
#include "support/nettle_cipher.h"
#include "support/sockets.h"

namespace kestrel {

namespace {

using nettle_cipher::md5_hex;

// ---- Digest ----

TEST(Digest, Response) {
  char out[34];
  digest_calc_response("Mufasa", "testrealm@host.com", "Circle Of Life", "dcd98b7102dd2f0e8b11d0f600bfb0c093", 1,
                       "auth", "GET", "/dir/index.html", "0a4f113b", out);
  EXPECT_STREQ(out, "6629fae49393a05397450978507c4ef1") << "the example of RFC 2617";
  struct Row {
    std::uint32_t nc;
    const char *qop, *middle;
    std::string ha2;
  };
  const std::string ha2 = md5_hex("POST:/iupd.html");
  const Row rows[] = {
      {12, "auth", ":n:00000012:c:auth:", ha2},  // decimal
      {123456789, "auth", ":n:123456789:c:auth:", ha2},
      {12, "", ":n:", ha2},
      {2, "auth-int", ":n:00000002:c:auth-int:", md5_hex("POST:/iupd.html:" + md5_hex(""))},
  };
  for (const Row& row : rows) {
    digest_calc_response("u", "r", "p", "n", row.nc, row.qop, "POST", "/iupd.html", "c", out);
    EXPECT_EQ(out, md5_hex(md5_hex("u:r:p") + row.middle + row.ha2)) << row.nc << row.qop;
  }
}

// ---- Cipher ----

std::string unhex(const std::string& hex) {
  std::string out;
  for (std::size_t i = 0; i + 1 < hex.size(); i += 2) {
    out += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
  }
  return out;
}

const unsigned char* raw(const std::string& text) {
  return nettle_cipher::bytes(text);
}

TEST(Blowfish, PublishedVectors) {
  struct Row {
    const char *key, *plain, *cipher;
  };
  const Row rows[] = {
      {"0000000000000000", "0000000000000000", "4EF997456198DD78"},
      {"FFFFFFFFFFFFFFFF", "FFFFFFFFFFFFFFFF", "51866FD5B85ECB8A"},
      {"FEDCBA9876543210", "0123456789ABCDEF", "0ACEAB0FC6A0A28D"},
      {"7CA110454A1A6E57", "01A1D6D039776742", "59C68245EB05282B"},
      {"F0E1D2C3B4A5968778695A4B3C2D1E0F", "FEDCBA9876543210", "93142887EE3BE15C"},
      {"F0E1D2C3B4A5968778695A4B3C2D1E0F0011223344556677", "FEDCBA9876543210", "05044B62FA52D080"},
  };
  for (const Row& row : rows) {
    const std::string key = unhex(row.key);
    std::string block = unhex(row.plain);
    BlowfishState state;
    bf_key_schedule(&state, raw(key), static_cast<std::int16_t>(key.size()));
    bf_encrypt_block(&state, nettle_cipher::bytes(block));
    EXPECT_EQ(block, unhex(row.cipher)) << row.key;
  }
}

TEST(Blowfish, Cfb8IsNettlesForEveryLengthOfTextAndKey) {
  std::string text;
  for (std::size_t len = 0; len <= 80; ++len) {
    std::string key(8 + len % 49, '\0');  // 8 to 56 bytes
    for (std::size_t i = 0; i < key.size(); ++i) key[i] = static_cast<char>(i * 37 + len);
    std::string buffer = text;
    const auto size = static_cast<std::int32_t>(buffer.size());
    const auto key_len = static_cast<int>(key.size());
    bf_cfb8_encrypt(nettle_cipher::bytes(buffer), size, raw(key), key_len, cipher_iv, cipher_iv_len);
    EXPECT_EQ(buffer, nettle_cipher::cfb8(true, key, text)) << len;
    bf_cfb8_decrypt(nettle_cipher::bytes(buffer), size, raw(key), key_len, cipher_iv, cipher_iv_len);
    EXPECT_EQ(buffer, text) << len;
    text += static_cast<char>(len * 73 + 11);
  }
}

class Service : public FakeTest {};

// ---- Token ----

TEST_F(Service, TokenStopsAtTheFirstZeroByteAndIsFilledUp) {
  // The microseconds, and where the first zero byte of the cipher text stands; 32: nowhere.
  const std::pair<long, std::size_t> rows[] = {{100, 32}, {355, 24}, {344, 21}, {280, 6}, {0, 3}, {346, 31}};
  for (const auto& [us, zero_at] : rows) {
    fake_reset();
    fake.unix_time_us = us;
    const std::string digits = std::to_string(1'000'000 + us).substr(1);
    const std::string plain = digits + digits + digits + digits + digits;
    const std::string cipher = nettle_cipher::cfb8(true, nettle_cipher::service_key, plain + std::string(2, '\0'));
    ASSERT_EQ(std::min(cipher.find('\0'), cipher.size()), zero_at);
    std::string expected = nettle_cipher::base64(cipher.substr(0, zero_at));
    std::srand(static_cast<unsigned>(fake.unix_time_s));
    char piece[9];
    std::snprintf(piece, sizeof(piece), "%x", static_cast<unsigned>(std::rand()));
    while (expected.size() < 32) expected += piece;
    char token[token_len + 1];
    unsigned len = 0;
    EXPECT_EQ(make_token(token, &len), token);
    EXPECT_EQ(token, expected.substr(0, 32)) << us;
    EXPECT_EQ(len, 32U);
  }
}

// ---- Bodies ----

TEST(Cipher, PaddingFillsUpToWholeBlocksWithZeros) {
  const std::pair<std::int32_t, std::int32_t> rows[] = {{0, 0}, {1, 8}, {7, 8}, {8, 8}, {13, 16}, {-3, -3}};
  for (const auto& [len, expected] : rows) {
    unsigned char buffer[32];
    std::memset(buffer, 0xEE, sizeof(buffer));
    std::int32_t now = len;
    pad_to_block(buffer + 8, &now);
    EXPECT_EQ(now, expected) << len;
    for (std::int32_t i = -8; i < 24; ++i)
      EXPECT_EQ(buffer[i + 8], i >= len && i < expected ? 0 : 0xEE) << len << " at " << i;
  }
}

TEST_F(Service, BodiesArePaddedEncipheredAndEncoded) {
  for (std::size_t len = 0; len <= 200; len += len < 20 ? 1 : 13) {
    const std::size_t padded = (len + 7) / 8 * 8;
    const std::string plain(len, 'x');
    char body[512] = "";
    std::memcpy(body, plain.data(), len);
    const int result = encipher_body(body, sizeof(body), "ecnode bodylen=%d\n");
    EXPECT_EQ(result, static_cast<int>(std::strlen(body))) << len;
    EXPECT_EQ(nettle_cipher::unseal(body), plain + std::string(padded - len, '\0')) << len;
    EXPECT_EQ(fake.log.back(), "ecnode bodylen=" + std::to_string(padded) + "\n");
  }
}

TEST_F(Service, ABodyThatDoesNotFitIsRefused) {
  struct Row {
    std::size_t len, size;
    int result;
  };
  for (const Row& row : {Row{8, 13, 12}, {8, 12, 0}, {1536, 2048, 0}, {4096, 5632, 5464}, {4097, 8192, 5472}}) {
    std::string body(row.size, '\0');
    std::fill_n(body.begin(), std::min(row.len, row.size - 1), 'x');
    EXPECT_EQ(encipher_body(body.data(), row.size, nullptr), row.result) << row.len << " in " << row.size;
    EXPECT_EQ(std::strlen(body.c_str()), static_cast<std::size_t>(row.result));
  }
  char text[16];
  for (const char* value : {"12", "123"}) {
    PostBody body = begin_body(text, sizeof(text), sizeof(text));
    put(body, "<a>");
    put(body, "%s</a>", value);
    EXPECT_EQ(body.fits, std::strlen(value) == 2) << text;
    EXPECT_TRUE(std::string(text).starts_with("123456<a>12")) << text;
  }
}

// ---- The refer file ----

TEST_F(Service, ReferFileHoldsTimestampAndHostIdEnciphered) {
  fake.refer_path = "/tmp/kestrel_refer_" + std::to_string(getpid() % 10000);
  const std::pair<std::string, std::string> rows[] = {
      {"", ""}, {"012345", std::string(60, 'h')}, {"000056", "HID00001"} /* a zero byte */, {"012%s5", "%n"}};
  for (const auto& [timestamp, hid] : rows) {
    write_file(fake.refer_path, std::string(100, '!'));
    EXPECT_EQ(write_refer_file(hid.c_str(), timestamp.c_str()), 1);
    const std::string statement = read_file(fake.refer_path);
    ASSERT_TRUE(statement.starts_with("var data = \"") && statement.ends_with("\";")) << statement;
    const std::string encoded = statement.substr(12, statement.size() - 14);
    EXPECT_EQ(nettle_cipher::cfb8(false, nettle_cipher::refer_key, nettle_cipher::unbase64(encoded)),
              (timestamp + hid).substr(0, 31));
  }
  EXPECT_EQ(fake.log, Texts{});
  unlink(fake.refer_path.c_str());
  const int lowest = dup(STDERR_FILENO);
  close(lowest);
  const std::tuple<const char*, int, const char*> failures[] = {{"/dev/null", 0, "dev get refer file path failed\r\n"},
                                                                {"/nonexistent/refer", 1, "fopen failed\r\n"},
                                                                {"/dev/full", 1, "fputs failed\r\n"}};
  for (const auto& [path, known, line] : failures) {
    fake.refer_path = path;
    fake.always["dev_get_refer_file_path"] = known;
    EXPECT_EQ(write_refer_file("HID00001", "012345"), 0) << path;
    EXPECT_TRUE(fake.log.back().starts_with("srv_util ") && fake.log.back().ends_with(line)) << fake.log.back();
  }
  const int next = dup(STDERR_FILENO);
  EXPECT_EQ(next, lowest) << "the file is closed on every path";
  close(next);
}

// ---- Connecting ----

class Connect : public FakeTest {
 protected:
  void SetUp() override {
    FakeTest::SetUp();
    listener_ = socket(AF_INET, SOCK_STREAM, 0);
    peer_.sin_family = AF_INET;
    peer_.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(listener_, address(), sizeof(peer_));
    socklen_t len = sizeof(peer_);
    getsockname(listener_, reinterpret_cast<sockaddr*>(&peer_), &len);
    sock_ = socket(AF_INET, SOCK_STREAM, 0);
  }
  void TearDown() override {
    close(listener_);
    close(sock_);
    FakeTest::TearDown();
  }
  const sockaddr* address() const { return reinterpret_cast<const sockaddr*>(&peer_); }
  int connect_within(int timeout_s) const { return WaitConnect(sock_, address(), sizeof(peer_), timeout_s); }

  sockaddr_in peer_{};
  int listener_ = -1, sock_ = -1;
};

TEST_F(Connect, AcceptedOrRefused) {
  EXPECT_EQ(connect_within(20), -1);
  EXPECT_EQ(fake.console, Texts{" Strange bug"});
  close(sock_);
  sock_ = socket(AF_INET, SOCK_STREAM, 0);
  listen(listener_, 1);
  EXPECT_EQ(connect_within(20), 0);
  EXPECT_EQ(fcntl(sock_, F_GETFL) & O_NONBLOCK, 0);
}

TEST_F(Connect, NobodyAnswersInTime) {
  const int other = socket(AF_INET, SOCK_STREAM, 0);
  peer_.sin_port = htons(static_cast<std::uint16_t>(listen_without_room(other)));
  EXPECT_EQ(connect_within(1), -1);
  EXPECT_EQ(errno, ETIMEDOUT);
  EXPECT_EQ(fake.log.back(), " WaitConnect timeout\n");
  close(other);
}

TEST_F(Connect, ADescriptorBeyondTheSetIsRefused) {
  listen(listener_, 1);
  rlimit limit{};
  getrlimit(RLIMIT_NOFILE, &limit);
  const rlimit wanted{std::min<rlim_t>(limit.rlim_max, FD_SETSIZE + 64), limit.rlim_max};
  setrlimit(RLIMIT_NOFILE, &wanted);
  const int last = fcntl(sock_, F_DUPFD, FD_SETSIZE - 1);
  const int beyond = fcntl(sock_, F_DUPFD, FD_SETSIZE);
  if (beyond < 0) GTEST_SKIP() << "this machine allows no descriptor beyond " << FD_SETSIZE;
  EXPECT_EQ(WaitConnect(beyond, address(), sizeof(peer_), 20), -1);
  EXPECT_EQ(fake.log, Texts{});
  EXPECT_EQ(WaitConnect(last, address(), sizeof(peer_), 20), 0);
  close(last);
  close(beyond);
}

}  // namespace

}  // namespace kestrel
