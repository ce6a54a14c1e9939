// service/ without its exchanges: cipher, token, bodies, refer file, XML values, connecting.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <regex>

#include "fake_platform/fixture.h"
#include "service/blowfish.h"
#include "service/body_cipher.h"
#include "service/connect.h"
#include "service/exchange_watch.h"
#include "service/requests.h"
#include "service/token.h"
#include "service/xml_value.h"
#include "support/child.h"
#include "support/nettle_cipher.h"

static bool option_unknown = false;

// In the place of the C library's.
extern "C" int getsockopt(int fd, int level, int option, void* value, socklen_t* len) noexcept {
  return option_unknown ? -1 : static_cast<int>(syscall(SYS_getsockopt, fd, level, option, value, len));
}

namespace kestrel {

namespace {

// ---- Cipher ----

unsigned char* bytes(std::string& text) {
  return reinterpret_cast<unsigned char*>(text.data());
}

TEST(Blowfish, Cfb8IsNettlesForEveryLengthOfTextAndKey) {
  std::string text;
  for (std::size_t len = 0; len <= 80; ++len) {
    std::string key(8 + len % 49, '\0');  // 8 to 56 bytes
    for (std::size_t i = 0; i < key.size(); ++i) key[i] = static_cast<char>(i * 37 + len);
    std::string buffer = text;
    const auto size = static_cast<std::int32_t>(buffer.size());
    const auto key_len = static_cast<int>(key.size());
    bf_cfb8_encrypt(bytes(buffer), size, bytes(key), key_len, cipher_iv, cipher_iv_len);
    EXPECT_EQ(buffer, nettle_cipher::cfb8(true, key, text)) << len;
    bf_cfb8_decrypt(bytes(buffer), size, bytes(key), key_len, cipher_iv, cipher_iv_len);
    EXPECT_EQ(buffer, text) << len;
    text += static_cast<char>(len * 73 + 11);
  }
  const std::string before = text;
  bf_cfb8_encrypt(bytes(text), 1, bytes(text), 0, cipher_iv, cipher_iv_len);  // no key
  bf_cfb8_encrypt(bytes(text), 1, bytes(text), 8, cipher_iv, cipher_iv_len - 1);
  EXPECT_EQ(text, before);
}

TEST(XmlValue, IsThereWhenItsTagsAreInOrderAndNotTooLong) {
  const std::pair<const char*, const char*> rows[] = {{"<@>1</@>", "1"}, {"-<@></@>", ""},      {"<@>12", "-"},
                                                      {"1</@>", "-"},    {"</@><@>1</@>", "-"}, {"<@>123</@>", "12"}};
  for (const std::size_t len : {1U, 62U, 63U}) {  // the longest, and one whose end is too long
    const std::string tag(len, 't');
    for (const auto& [text, value] : rows) {
      char out[3] = "-";
      const std::string whole = std::regex_replace(text, std::regex("@"), tag);
      const std::string expected = len == 63 ? "-" : value;
      EXPECT_EQ(get_xml_value(whole.c_str(), tag.c_str(), static_cast<unsigned>(len), out, 3), expected != "-") << text;
      EXPECT_EQ(out, expected) << text;
    }
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
    Texts log{" ecnode bodylen=30\n"};
    while (expected.size() < 32) {
      expected += piece;
      log.push_back("outlen2=(" + std::to_string(expected.size()) + ")\n");
    }
    char token[token_len + 1];
    unsigned len = 0;
    EXPECT_EQ(make_token(token, &len), token);
    EXPECT_EQ(token, expected.substr(0, 32)) << us;
    EXPECT_EQ(len, 32U);
    EXPECT_EQ(fake.log, log);
  }
}

// ---- The refer file ----

TEST_F(Service, ReferFileHoldsTimestampAndHostIdEnciphered) {
  const std::string file = "/tmp/kestrel_refer_" + std::to_string(1'000'000'000'000 + getpid()).substr(1);
  fake.refer_path = file + ", cut here";
  const std::pair<std::string, std::string> rows[] = {
      {"", ""}, {"012345", std::string(60, 'h')}, {"000056", "HID00001"} /* a zero byte */, {"012%s5", "%n"}};
  for (const auto& [timestamp, hid] : rows) {
    write_file(file, std::string(100, '!'));
    EXPECT_EQ(write_refer_file(hid.c_str(), timestamp.c_str()), 1);
    const std::string statement = read_file(file);
    ASSERT_TRUE(statement.starts_with("var data = \"") && statement.ends_with("\";")) << statement;
    const std::string encoded = statement.substr(12, statement.size() - 14);
    EXPECT_EQ(nettle_cipher::cfb8(false, nettle_cipher::refer_key, nettle_cipher::unbase64(encoded)),
              (timestamp + hid).substr(0, 31));
  }
  EXPECT_EQ(fake.log, Texts{});
  unlink(file.c_str());
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
    renew_socket();
  }
  void TearDown() override {
    close(listener_);
    close(sock_);
    FakeTest::TearDown();
  }
  void renew_socket(int type = SOCK_STREAM) {
    close(sock_);
    sock_ = socket(AF_INET, type, 0);
  }
  /// Four more connections fill the listener's queue.
  void listen_to_nobody() const {
    listen(listener_, 0);
    for (int i = 0; i < 4; ++i) {
      connect(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0), address(), sizeof(peer_));
    }
  }
  const sockaddr* address() const { return reinterpret_cast<const sockaddr*>(&peer_); }
  int connect_within(int timeout_s) const { return WaitConnect(sock_, address(), sizeof(peer_), timeout_s); }

  sockaddr_in peer_{};
  int listener_ = -1, sock_ = -1;
};

TEST_F(Connect, AcceptedOrRefused) {
  for (const char* said : {" Strange bug", " getsockopt: Operation now in progress\n"}) {
    EXPECT_EQ(connect_within(20), -1);
    EXPECT_EQ(fake.console.back(), said);
    option_unknown = !option_unknown;
    renew_socket();
  }
  listen(listener_, 1);
  struct Row {
    int type;
    unsigned len;
    int result;
    Texts log;
  };
  for (const Row& row : {Row{SOCK_STREAM, sizeof(peer_), 0, {" rc=-1 errno=115\n", " Connect success\n"}},
                         Row{SOCK_DGRAM, sizeof(peer_), 0, {" rc=0 errno=0\n", " connect ok\n"}},
                         Row{SOCK_STREAM, 1, -1, {"WaitConnect2 connect() errno=22\n"}}}) {
    fake.log.clear();
    renew_socket(row.type);
    EXPECT_EQ(WaitConnect(sock_, address(), row.len, 0), row.result);
    EXPECT_EQ((fcntl(sock_, F_GETFL) & O_NONBLOCK) == 0, row.result == 0);
    EXPECT_EQ(fake.log, row.log);
  }
}

TEST_F(Connect, NobodyAnswersInTimeOrWithinTheExchangesLimit) {
  listen_to_nobody();
  EXPECT_EQ(connect_within(1), -1);
  EXPECT_EQ(errno, ETIMEDOUT);
  EXPECT_EQ(fake.log.back(), " WaitConnect timeout\n");
  renew_socket();
  std::signal(SIGALRM, [](int) {});
  ualarm(50'000, 0);
  EXPECT_EQ(connect_within(20), -1);
  EXPECT_EQ(fake.log.back(), " select failed\n");
  renew_socket();
  const ExchangeWatch watch(sock_);
  watch.limit(200);
  EXPECT_LT(seconds_of([&] { EXPECT_EQ(connect_within(20), -1); }), 5);
}

// Run before the others by its name, while this process has no watch: its child has one of its own.
using ConnectDeathTest = Connect;

TEST_F(ConnectDeathTest, AnExitRequestBeforeTheConnectionEndsIt) {
  for (const bool begun : {false, true}) {
    EXPECT_EXIT(
        {
          listen_to_nobody();
          const ExchangeWatch watch(sock_);
          if (begun) watch.limit(30'000);
          poll(nullptr, 0, 50);
          end_exchanges();
          if (!begun) watch.limit(500);
          poll(nullptr, 0, 50);
          const double took_s = seconds_of([&] {
            connect_within(20);
            send(sock_, "x", 1, MSG_NOSIGNAL);
          });
          std::_Exit(took_s < 3 ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
  }
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

// ---- The watch ----

TEST(Watch, EndsItsOwnExchangeAtItsTimeAndNoOtherSocket) {
  int first[2], second[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, first), 0);
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, second), 0);
  char byte = 0;
  const auto has_ended = [&byte](int fd) { return recv(fd, &byte, 1, MSG_DONTWAIT) == 0; };
  {
    const ExchangeWatch late(first[0]);
    late.limit(60'000);
    late.limit(100);  // replaces it
    {
      const ExchangeWatch over(second[0]);
      over.limit(50);
    }
    // The library closed the socket early, and its number serves somebody else.
    const int taken = dup(first[0]);
    ASSERT_EQ(dup2(second[0], first[0]), first[0]);
    EXPECT_LT(seconds_of([&] { EXPECT_EQ(recv(taken, &byte, 1, 0), 0); }), 5);
    EXPECT_FALSE(has_ended(second[0]));
    EXPECT_FALSE(has_ended(second[1]));
    close(taken);
  }
  for (const int fd : {first[0], first[1], second[0], second[1]}) close(fd);
}

TEST(Watch, ALimitBehindALookIsKept) {
  for (const unsigned look_ms : {150U, 10U}) {  // due anyway; over, with nothing found to be due
    int sockets[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sockets), 0);
    ExchangeWatch(sockets[0]).limit(look_ms);
    poll(nullptr, 0, 40);
    const ExchangeWatch later(sockets[0]);
    later.limit(400);
    char byte = 0;
    const double took_s = seconds_of([&] { EXPECT_EQ(recv(sockets[0], &byte, 1, 0), 0); });
    EXPECT_TRUE(took_s > 0.25 && took_s < 5) << took_s;
    for (const int fd : sockets) close(fd);
  }
}

TEST(Watch, WithoutAWatcherTheSocketsOwnTimeOutsServe) {
  const int sock = socket(AF_INET, SOCK_STREAM, 0);
  const ExchangeWatch first(sock), second(sock), third(sock);  // one more than there are threads
  for (const ExchangeWatch* watch : {&first, &second, &third}) {
    watch->limit(1500);
    for (const int option : {SO_RCVTIMEO, SO_SNDTIMEO}) {
      timeval limit{};
      socklen_t len = sizeof(limit);
      getsockopt(sock, SOL_SOCKET, option, &limit, &len);
      EXPECT_EQ(limit.tv_sec * 1000 + limit.tv_usec / 1000, watch == &third ? 1500 : 0);
    }
  }
  close(sock);
}

}  // namespace

}  // namespace kestrel
