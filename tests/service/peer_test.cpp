// service/ over real sockets and the host's HTTP packets, against a peer on loopback that misbehaves.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <filesystem>
#include <thread>

#include "core/text.h"
#include "fake_platform/fixture.h"
#include "service/exchange_watch.h"
#include "service/requests.h"
#include "support/child.h"
#include "support/nettle_cipher.h"
#include "support/sockets.h"

namespace kestrel {

namespace {

constexpr int bytes = -99;  // a result that is the number of bytes sent

std::string answer(const std::string& status, const std::string& body, const std::string& fields = "") {
  return "HTTP/1.1 " + status + "\r\n" + fields + "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body;
}

/// A listener on loopback that takes one connection and treats it as told.
class Peer {
 public:
  using Script = std::function<void(int fd)>;

  Peer() {
    fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    address_.sin_family = AF_INET;
    address_.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof(address_);
    bind(fd_, reinterpret_cast<const sockaddr*>(&address_), len);
    getsockname(fd_, reinterpret_cast<sockaddr*>(&address_), &len);
  }
  ~Peer() { close(fd_); }
  Peer(const Peer&) = delete;
  Peer& operator=(const Peer&) = delete;

  const sockaddr_in& address() const { return address_; }
  int port() const { return ntohs(address_.sin_port); }

  /// Runs `work` while a thread serves one connection; nobody listens without a script. The request, as received.
  std::string serve(const Script& script, const std::function<void()>& work) {
    std::string request;
    if (!script) work();
    if (!script) return request;
    listen(fd_, 1);
    std::thread server([&] {
      const timeval limit{10, 0};
      setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
      const int fd = accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC);
      request = read_request(fd);
      script(fd);
      close(fd);
    });
    work();
    server.join();
    return request;
  }

 private:
  static std::string read_request(int fd) {
    std::string text;
    char block[4096];
    for (std::size_t end = std::string::npos; text.size() < end;) {
      const ssize_t n = recv(fd, block, sizeof(block), 0);
      if (n <= 0) break;
      text.append(block, static_cast<std::size_t>(n));
      const std::size_t head = text.find("\r\n\r\n"), length = text.find("Content-Length: ");
      if (head == text.npos) continue;
      end = head + 4 + (length != text.npos ? std::strtoul(text.c_str() + length + 16, nullptr, 10) : 0);
    }
    return text;
  }

  int fd_ = -1;
  sockaddr_in address_{};
};

Peer::Script say(const std::string& text) {
  return [text](int fd) { send(fd, text.data(), text.size(), MSG_NOSIGNAL); };
}

Peer::Script drip(const std::string& text, int us) {
  return [text, us](int fd) {
    for (const char c : text) {
      if (send(fd, &c, 1, MSG_NOSIGNAL) != 1) return;
      std::this_thread::sleep_for(std::chrono::microseconds(us));
    }
  };
}

/// Ends the connection with a reset.
Peer::Script reset_after(const std::string& text) {
  return [text](int fd) {
    send(fd, text.data(), text.size(), MSG_NOSIGNAL);
    const linger at_once{1, 0};
    setsockopt(fd, SOL_SOCKET, SO_LINGER, &at_once, sizeof(at_once));
  };
}

/// Stays until the daemon has closed.
Peer::Script hold(const Peer::Script& first) {
  return [first](int fd) {
    char byte = 0;
    first(fd);
    while (recv(fd, &byte, 1, 0) > 0) continue;
  };
}

class BadPeer : public FakeTest {
 protected:
  void SetUp() override {
    FakeTest::SetUp();
    std::signal(SIGPIPE, SIG_IGN);
    zero(ctx);
    ctx.run = 1;
    copy_text(ctx.da_ip, "192.0.2.20");
    copy_text(ctx.redir_ip, "192.0.2.10");
    copy_text(ctx.auth_info.user, "HID00001");
    copy_text(ctx.auth_info.pass, "secret");
    ctx.e = {"203.0.113.5", "4444"};
    // Through the relay, whose port is free to choose.
    ctx.proxy_tested = 1;
    copy_text(ctx.proxy.ip, "127.0.0.1");
    format_text(ctx.proxy.port, sizeof(ctx.proxy.port), "%d", peer.port());
  }

  static long descriptors() {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), std::filesystem::directory_iterator());
  }

  Peer peer;
  DeviceContext ctx;
};

// These two first, while this process has no watch: a child has no thread of its parent.

double seconds_of(const std::function<void()>& work) {
  const auto start = std::chrono::steady_clock::now();
  work();
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

TEST_F(BadPeer, AnExchangeEndsWithTheDaemonWhateverThePeerDoes) {
  const Peer::Script answers = say(answer("200 OK", "body"));
  const std::string head = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n";
  struct Row {
    const char* what;
    Peer::Script script;
    int result;
  };
  const Row rows[] = {
      {"an answer in time", answers, 1},
      {"silence", hold(say("")), 0},
      {"a drip without an end", hold(drip(std::string(400, 'x'), 10'000)), 0},
      {"a chunk that never ends", hold(say(head + "ffff\r\n0\r\n\r\n")), 0},
      {"an answer without a length, left open", hold(say("HTTP/1.0 200 OK\r\n\r\nbody")), 1},
      {"a last chunk in another form", hold(say(head + "4\r\nbody\r\n000;ext\r\n\r\n")), 1},
  };
  for (const Row& row : rows) {
    for (const bool under_way : {false, true}) {  // the request to end comes before the exchange, or in it
      if (under_way && row.result != 0) continue;
      const Child child = run_child([&] {
        ctx.run = under_way ? 1 : 0;
        std::signal(SIGALRM, [](int) { end_exchanges(); });
        const itimerval once{{0, 0}, {0, 300'000}};
        if (under_way) setitimer(ITIMER_REAL, &once, nullptr);
        double took = 0;
        peer.serve(row.script, [&] { took = seconds_of([&] { EXPECT_EQ(srv_get_eip(&ctx), row.result); }); });
        EXPECT_LT(took, 0.9);
        return 0;
      });
      EXPECT_EQ(child.status, 0) << row.what << under_way << child.out << child.err;
    }
  }
}

TEST_F(BadPeer, AConnectionThatHangsEndsWithTheDaemon) {
  const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const int port = listen_without_room(listener);
  format_text(ctx.proxy.port, sizeof(ctx.proxy.port), "%d", port);
  for (const bool under_way : {false, true}) {
    const Child child = run_child([&] {
      ctx.run = under_way ? 1 : 0;
      std::signal(SIGALRM, [](int) { end_exchanges(); });
      const itimerval once{{0, 0}, {0, 300'000}};
      if (under_way) setitimer(ITIMER_REAL, &once, nullptr);
      EXPECT_LT(seconds_of([&] { EXPECT_EQ(srv_get_eip(&ctx), 0); }), 0.9);
      return 0;
    });
    EXPECT_EQ(child.status, 0) << child.out;
  }
  close(listener);
}

TEST_F(BadPeer, EveryAnswerEndsInItsResult) {
  struct Row {
    const char* what;
    Peer::Script script;
    int queried, updated, enabled;  // results of an address query, of an update, of an enable report
  };
  const std::string sealed = nettle_cipher::seal("<ext_ip>198.51.100.1</ext_ip><ext_port>51000</ext_port>");
  // clang-format off
  const Row rows[] = {
      {"nobody there", nullptr, 0, 0, 0},
      {"closes without a word", say(""), 0, 0, 3},
      {"resets", reset_after(""), 0, 0, 3},
      {"garbage", say("\x16\x03\x01\x02\x00 not HTTP at all\r\n\r\n"), 0, 0, 3},
      {"a line without an end", say(std::string(40000, 'x')), 0, 0, 3},
      {"a head over the limit", say("HTTP/1.1 200 OK\r\nX: " + std::string(20000, 'x') + "\r\n\r\n"), 0, 0, 3},
      {"a body over the limit", say(answer("200 OK", std::string(200000, 'A'))), 0, 0, 3},
      {"a body that breaks off", say("HTTP/1.1 200 OK\r\nContent-Length: 100\r\n\r\nAAAA"), 0, 0, 3},
      {"a body that is no cipher text", say(answer("200 OK", "<html>hello</html>")), 1, 1, 1},
      {"dripping, but in time", drip(answer("200 OK", sealed), 200), 1, 1, 1},
      {"an answer up to the end", say("HTTP/1.0 200 OK\r\n\r\n" + sealed), 1, 1, 1},
      {"404", say(answer("404 Not Found", "no")), bytes, bytes, 3},
      {"a challenge that fills everything", say(answer("401 No", "",
        "WWW-Authenticate: Digest realm=\"" + std::string(3000, 'r') + "\", nonce=\"" + std::string(3000, 'n') + "\"\r\n")), 2, 2, 2},
      {"the answer", say(answer("200 OK", sealed)), 1, 1, 1},
  };
  // clang-format on
  ExchangeWatch(STDIN_FILENO).limit(1000);  // starts the watch, which has a descriptor
  const long before = descriptors();
  const auto start = std::chrono::steady_clock::now();
  for (const Row& row : rows) {
    const std::pair<std::function<int()>, int> requests[] = {
        {[&] { return srv_get_eip(&ctx); }, row.queried},
        {[&] { return srv_update(&ctx, nullptr, &ctx.auth_info); }, row.updated},
        {[&] { return srv_enable_dev_account(&ctx, 1, &ctx.auth_info); }, row.enabled},
    };
    for (const auto& [send, expected] : requests) {
      int result = -1;
      const std::string request = peer.serve(row.script, [&] { result = send(); });
      EXPECT_EQ(result, expected == bytes ? static_cast<int>(request.size()) : expected) << row.what;
    }
    EXPECT_LE(descriptors(), before + 2) << row.what;  // what the update and the report leave open
  }
  EXPECT_EQ(descriptors(), before);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(15));
  EXPECT_STREQ(ctx.e.ip, "198.51.100.1");
  EXPECT_STREQ(ctx.e.port, "51000");
}

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

TEST(Watch, WithoutAWatcherTheSocketsOwnTimeOutsServe) {
  const int sock = socket(AF_INET, SOCK_STREAM, 0);
  const ExchangeWatch first(sock), second(sock), third(sock);  // one more than there are threads
  third.limit(1500);
  for (const int option : {SO_RCVTIMEO, SO_SNDTIMEO}) {
    timeval limit{};
    socklen_t len = sizeof(limit);
    getsockopt(sock, SOL_SOCKET, option, &limit, &len);
    EXPECT_EQ(limit.tv_sec * 1000 + limit.tv_usec / 1000, 1500);
  }
  close(sock);
}

}  // namespace

}  // namespace kestrel
