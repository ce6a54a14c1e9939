// service/ without its exchanges: digest, cipher, token, bodies, refer file, XML values, connecting.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "child.h"
#include "fake_platform/fixture.h"
#include "nettle_cipher.h"
#include "service/blowfish.h"
#include "service/body_cipher.h"
#include "service/connect.h"
#include "service/digest.h"
#include "service/post_body.h"
#include "service/srv_util.h"
#include "service/token.h"
#include "service/xml_value.h"

namespace kestrel {

namespace {

using nettle_cipher::md5_hex;

// ---- Digest ----

TEST(Digest, Response) {
  struct Row {
    const char* what;
    const char *user, *realm, *pass, *nonce;
    std::uint32_t nc;
    const char *qop, *method, *uri, *cnonce;
    std::string expected;
  };
  const std::string ha1 = md5_hex("u:r:p");
  const std::string ha2 = md5_hex("POST:/iupd.html");
  const Row rows[] = {
      // Its count is 00000001, the same in decimal and in hexadecimal.
      {"the example of RFC 2617", "Mufasa", "testrealm@host.com", "Circle Of Life",
       "dcd98b7102dd2f0e8b11d0f600bfb0c093", 1, "auth", "GET", "/dir/index.html", "0a4f113b",
       "6629fae49393a05397450978507c4ef1"},
      {"the count is decimal", "u", "r", "p", "n", 12, "auth", "POST", "/iupd.html", "c",
       md5_hex(ha1 + ":n:00000012:c:auth:" + ha2)},
      {"a count of nine digits", "u", "r", "p", "n", 123456789, "auth", "POST", "/iupd.html", "c",
       md5_hex(ha1 + ":n:123456789:c:auth:" + ha2)},
      {"no qop", "u", "r", "p", "n", 12, "", "POST", "/iupd.html", "c", md5_hex(ha1 + ":n:" + ha2)},
      {"auth-int hashes an empty body", "u", "r", "p", "n", 2, "auth-int", "POST", "/iupd.html", "c",
       md5_hex(ha1 + ":n:00000002:c:auth-int:" + md5_hex("POST:/iupd.html:" + md5_hex("")))},
      {"everything empty", "", "", "", "", 0, "", "", "", "", md5_hex(md5_hex("::") + "::" + md5_hex(":"))},
  };
  for (const Row& row : rows) {
    char out[34];
    std::memset(out, '#', sizeof(out));
    digest_calc_response(row.user, row.realm, row.pass, row.nonce, row.nc, row.qop, row.method, row.uri, row.cnonce,
                         out);
    EXPECT_EQ(std::string(out), row.expected) << row.what;
    digest_calc_response(row.user, row.realm, row.pass, row.nonce, row.nc, row.qop, row.method, row.uri, row.cnonce,
                         nullptr);
  }
}

TEST(Digest, HeaderTextIsExact) {
  AuthenticateInfo info{1, "u", "p", 7, "GET", "r", "n", "MD5", "", "/ext.html", "c", "x"};
  char header[digest_header_len];
  const std::string expected =
      "Digest username=\"u\", realm=\"r\", qop=\"\", algorithm=\"MD5\", uri=\"/ext.html\" , nonce=\"n\", nc=00000007, "
      "cnonce=\"c\", response=\"x\"";
  EXPECT_EQ(make_digest_header(&info, header), static_cast<int>(expected.size()));
  EXPECT_EQ(header, expected);
  std::memset(info.nonce, 'n', sizeof(info.nonce) - 1);
  std::memset(info.uri, 'u', sizeof(info.uri) - 1);
  std::memset(info.cnonce, 'c', sizeof(info.cnonce) - 1);
  std::memset(info.realm, 'r', sizeof(info.realm) - 1);
  EXPECT_EQ(make_digest_header(&info, header), -1);
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
      {"3000000000000000", "1000000000000001", "7D856F9A613063F2"},
      {"0123456789ABCDEF", "1111111111111111", "61F9C3802281B096"},
      {"FEDCBA9876543210", "0123456789ABCDEF", "0ACEAB0FC6A0A28D"},
      {"7CA110454A1A6E57", "01A1D6D039776742", "59C68245EB05282B"},
      {"0131D9619DC1376E", "5CD54CA83DEF57DA", "B1B8CC0B250F09A0"},
      {"1C587F1C13924FEF", "305532286D6F295A", "55CB3774D13EF201"},
      {"E0FEE0FEF1FEF1FE", "0123456789ABCDEF", "C39E072D9FAC631D"},
      {"FEDCBA9876543210", "FFFFFFFFFFFFFFFF", "6B5C5A9C5D9E0A5A"},
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

TEST(Blowfish, ImpossibleArgumentsChangeNothing) {
  std::string buffer = "text";
  for (const auto& [len, key_len, iv_len] : {std::array{4, 0, 8}, {4, -1, 8}, {4, 32, 0}, {4, 32, 7}, {-1, 32, 8}}) {
    bf_cfb8_encrypt(nettle_cipher::bytes(buffer), len, raw(nettle_cipher::service_key), key_len, cipher_iv, iv_len);
    EXPECT_EQ(buffer, "text");
  }
}

class Service : public FakeTest {};

TEST_F(Service, KeyIsTheDigestInHexadecimal) {
  char key[service_key_len + 1];
  make_service_key(key);
  EXPECT_EQ(key, nettle_cipher::service_key);
}

// ---- Token ----

TEST_F(Service, TokenStopsAtTheFirstZeroByteAndIsFilledUp) {
  struct Row {
    const char* what;
    long us;
    std::size_t zero_at;  // of the cipher text; 32: nowhere
  };
  const Row rows[] = {
      {"no zero: base64 is cut", 100, 32},       {"36 characters are cut", 151, 25},
      {"exactly 32, none to fill", 355, 24},     {"28 and a cut piece", 344, 21},
      {"8 characters and three pieces", 280, 6}, {"4 characters and four pieces", 0, 3},
      {"a zero in the padding alone", 346, 31},  {"as any", 123456, 32},
  };
  for (const Row& row : rows) {
    fake_reset();
    fake.unix_time_us = row.us;
    char digits[7];
    random_digits6(digits);
    std::string plain;
    for (int i = 0; i < 5; ++i) plain += digits;
    const std::string cipher = nettle_cipher::cfb8(true, nettle_cipher::service_key, plain + std::string(2, '\0'));
    ASSERT_EQ(std::min(cipher.find('\0'), cipher.size()), row.zero_at) << row.what;
    std::string expected = nettle_cipher::base64(cipher.substr(0, row.zero_at));
    Texts log = {" ecnode bodylen=30\n"};
    std::srand(static_cast<unsigned>(fake.unix_time_s));
    char piece[9];
    std::snprintf(piece, sizeof(piece), "%x", static_cast<unsigned>(std::rand()));
    while (expected.size() < 32) {
      expected += piece;
      log.push_back("outlen2=(" + std::to_string(expected.size()) + ")\n");
    }
    char token[token_len + 1];
    unsigned len = 0;
    EXPECT_EQ(make_token(token, &len), token);
    EXPECT_EQ(token, expected.substr(0, 32)) << row.what;
    EXPECT_EQ(len, 32U);
    EXPECT_EQ(fake.log, log) << row.what;
  }
}

TEST_F(Service, RandomDigitsAreAlwaysSix) {
  for (const auto& [us, expected] : {std::pair{0L, "000000"}, {7L, "000007"}, {999999L, "999999"}}) {
    fake.unix_time_us = us;
    char digits[7];
    random_digits6(digits);
    EXPECT_STREQ(digits, expected);
  }
}

// ---- Bodies ----

TEST_F(Service, BodiesArePaddedEncipheredAndEncoded) {
  for (std::size_t len = 0; len <= 200; len += len < 20 ? 1 : 13) {
    fake.log.clear();
    std::string plain(len, 'x');
    for (std::size_t i = 0; i < len; ++i) plain[i] = static_cast<char>('!' + i % 90);
    const std::size_t padded = (len + 7) / 8 * 8;
    char body[512] = "";
    std::memcpy(body, plain.data(), len);
    const int result = encipher_body(body, sizeof(body), "ecnode bodylen=%d\n");
    EXPECT_EQ(result, static_cast<int>((padded + 2) / 3 * 4)) << len;
    EXPECT_EQ(std::strlen(body), static_cast<std::size_t>(result));
    EXPECT_EQ(nettle_cipher::unseal(body), plain + std::string(padded - len, '\0')) << len;
    EXPECT_EQ(fake.log, Texts{"ecnode bodylen=" + std::to_string(padded) + "\n"});
  }
}

TEST_F(Service, ABodyThatDoesNotFitIsRefused) {
  struct Row {
    std::size_t len, size;
    int result;
  };
  const Row rows[] = {{8, 13, 12},     {8, 12, 0},         {1528, 2048, 2040},
                      {1536, 2048, 0}, {4096, 5632, 5464}, {4097, 8192, 0}};
  for (const Row& row : rows) {
    std::string body(row.size, '\0');
    std::fill_n(body.begin(), std::min(row.len, row.size - 1), 'x');
    EXPECT_EQ(encipher_body(body.data(), row.size, "%d"), row.result) << row.len << " in " << row.size;
    EXPECT_EQ(std::strlen(body.c_str()), static_cast<std::size_t>(row.result));
  }
  char body[16];
  EXPECT_EQ(write_body(body, sizeof(body), "<a>%s</a>", "12"), 1);
  EXPECT_STREQ(body, "123456<a>12</a>");
  EXPECT_EQ(write_body(body, sizeof(body), "<a>%s</a>", "123"), 0);
  EXPECT_EQ(body[15], '\0');
}

TEST_F(Service, AnswersAreDecipheredWhateverTheyAre) {
  struct Row {
    const char* what;
    std::string body, plain;
  };
  const std::string sealed = nettle_cipher::seal("<a>192.0.2.1</a>");
  const std::string half = nettle_cipher::cfb8(false, nettle_cipher::service_key, nettle_cipher::unbase64("AAAA"));
  const Row rows[] = {
      {"an answer", sealed, "<a>192.0.2.1</a>"},  {"an answer and a line end", sealed + "\r\n", "<a>192.0.2.1</a>"},
      {"cut", sealed.substr(0, 8), "<a>192"},     {"no base64", "<html>", ""},
      {"base64 and then none", "AAAA<<<<", half}, {"a lone character", "A", ""},
  };
  for (const Row& row : rows) {
    const std::vector<char> unterminated(row.body.begin(), row.body.end());
    char* plain = decipher_body(unterminated.data(), static_cast<std::int32_t>(unterminated.size()));
    ASSERT_NE(plain, nullptr);
    EXPECT_EQ(plain, row.plain) << row.what;
    std::free(plain);
  }
}

TEST(XmlValue, Table) {
  struct Row {
    const char* what;
    const char *text, *tag;
    std::size_t size;
    int result;
    const char* value;
  };
  const Row rows[] = {
      {"usual", "<x><ip>1.2.3.4</ip></x>", "ip", 16, 1, "1.2.3.4"},
      {"with lines around", "<?xml?>\n<ip>\n1\n</ip>\n", "ip", 16, 1, "\n1\n"},
      {"empty", "<ip></ip>", "ip", 16, 1, ""},
      {"fills its field", "<ip>123</ip>", "ip", 4, 1, "123"},
      {"longer than its field", "<ip>1234</ip>", "ip", 4, 1, "123"},
      {"no field at all", "<ip>1234</ip>", "ip", 1, 1, ""},
      {"absent", "<x>1</x>", "ip", 16, 0, "old"},
      {"empty text", "", "ip", 16, 0, "old"},
      {"another tag that begins so", "<ipx>1</ipx>", "ip", 16, 0, "old"},
      {"unclosed", "<ip>1.2.3.4", "ip", 16, 0, "old"},
      {"half closed", "<ip>1.2.3.4</ip", "ip", 16, 0, "old"},
      {"crossed", "</ip>1.2.3.4<ip>", "ip", 16, 0, "old"},
      {"closed before and behind", "</ip><ip>1.2.3.4</ip>", "ip", 16, 0, "old"},
      {"twice: the first", "<ip>1</ip><ip>2</ip>", "ip", 16, 1, "1"},
      {"other letters", "<IP>1</IP>", "ip", 16, 0, "old"},
  };
  for (const Row& row : rows) {
    char out[16] = "old";
    EXPECT_EQ(get_xml_value(row.text, row.tag, static_cast<unsigned>(std::strlen(row.tag)), out, row.size), row.result)
        << row.what;
    EXPECT_STREQ(out, row.value) << row.what;
  }
}

// ---- The refer file ----

TEST_F(Service, ReferFileHoldsTimestampAndHostIdEnciphered) {
  fake.refer_path = "/tmp/kestrel_refer_" + std::to_string(getpid() % 10000);
  const std::pair<std::string, std::string> rows[] = {
      {"012345", "HID00001"}, {"", ""}, {"012345", std::string(60, 'h')}, {std::string(60, 't'), "HID00001"},
      {"012%s5", "%n"},
  };
  for (const auto& [timestamp, hid] : rows) {
    write_file(fake.refer_path, std::string(100, '!'));
    EXPECT_EQ(write_refer_file(hid.c_str(), timestamp.c_str()), 1);
    const std::string statement = read_file(fake.refer_path);
    ASSERT_TRUE(statement.starts_with("var data = \"") && statement.ends_with("\";")) << statement;
    const std::string encoded = statement.substr(12, statement.size() - 14);
    const std::string plain = (timestamp + hid).substr(0, 31);
    EXPECT_EQ(nettle_cipher::cfb8(false, nettle_cipher::refer_key, nettle_cipher::unbase64(encoded)), plain);
    EXPECT_EQ(encoded.size(), (plain.size() + 2) / 3 * 4);
  }
  EXPECT_EQ(fake.log, Texts{});
  unlink(fake.refer_path.c_str());
}

TEST_F(Service, ReferFileFailuresAreLogged) {
  struct Row {
    std::string path, log;
  };
  const Row rows[] = {
      {"", "dev get refer file path failed\r\n"},
      {"/no such directory/refer", "fopen failed\r\n"},
      {"/dev/full", "fputs failed\r\n"},
  };
  for (const Row& row : rows) {
    fake_reset();
    fake.refer_path = row.path;
    EXPECT_EQ(write_refer_file("HID00001", "012345"), 0) << row.path;
    ASSERT_EQ(fake.log.size(), 1U) << row.path;
    EXPECT_TRUE(fake.log[0].starts_with("srv_util ") && fake.log[0].ends_with(" " + row.log)) << fake.log[0];
  }
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
  bool blocking() const { return (fcntl(sock_, F_GETFL) & O_NONBLOCK) == 0; }

  sockaddr_in peer_{};
  int listener_ = -1, sock_ = -1;
};

TEST_F(Connect, Accepted) {
  listen(listener_, 1);
  for (const int timeout_s : {20, 0}) {
    fake.log.clear();
    EXPECT_EQ(connect_within(timeout_s), 0);
    EXPECT_TRUE(blocking());
    EXPECT_TRUE(fake.log.back() == " Connect success\n" || fake.log.back() == " connect ok\n") << fake.log.back();
    close(sock_);
    sock_ = socket(AF_INET, SOCK_STREAM, 0);
  }
}

TEST_F(Connect, Refused) {
  EXPECT_EQ(connect_within(20), -1);
  EXPECT_FALSE(blocking());
  EXPECT_EQ(fake.console, Texts{" Strange bug"});
}

TEST_F(Connect, NobodyAnswersInTime) {
  // A full queue: further connections hang.
  listen(listener_, 0);
  std::vector<int> queue;
  for (int i = 0; i < 4; ++i) {
    queue.push_back(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0));
    connect(queue.back(), address(), sizeof(peer_));
  }
  EXPECT_EQ(connect_within(1), -1);
  EXPECT_EQ(errno, ETIMEDOUT);
  EXPECT_EQ(fake.log, (Texts{" rc=-1 errno=" + std::to_string(EINPROGRESS) + "\n", " WaitConnect timeout\n"}));
  for (const int fd : queue) close(fd);
}

TEST_F(Connect, FailsAtOnce) {
  EXPECT_EQ(WaitConnect(-1, address(), sizeof(peer_), 20), -1);
  EXPECT_EQ(fake.log, Texts{"WaitConnect2 connect() errno=" + std::to_string(EBADF) + "\n"});
  peer_.sin_family = AF_INET6;
  EXPECT_EQ(connect_within(20), -1);
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

TEST_F(Connect, AnExchangeIsBounded) {
  bound_exchange(sock_, 20);
  for (const int option : {SO_RCVTIMEO, SO_SNDTIMEO}) {
    timeval limit{};
    socklen_t len = sizeof(limit);
    getsockopt(sock_, SOL_SOCKET, option, &limit, &len);
    EXPECT_EQ(limit.tv_sec, 20);
  }
}

}  // namespace

}  // namespace kestrel
