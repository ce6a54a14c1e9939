// service/ over real sockets and the host's HTTP packets, against a peer on loopback that misbehaves.
#include <sys/time.h>

#include <csignal>

#include "core/text.h"
#include "fake_platform/fixture.h"
#include "service/exchange_watch.h"
#include "service/requests.h"
#include "support/child.h"
#include "support/peer.h"
#include "support/sockets.h"

namespace kestrel {

namespace {

class BadPeer : public FakeTest {
 protected:
  void SetUp() override {
    FakeTest::SetUp();
    std::signal(SIGPIPE, SIG_IGN);
    begin_record(ctx, peer);
  }

  Peer peer;
  DeviceContext ctx;
};

// This one first, while this process has no watch: a child has no thread of its parent.

TEST_F(BadPeer, AnExchangeEndsWithTheDaemonWhateverThePeerDoes) {
  const std::string head = "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n";
  struct Row {
    const char* what;
    Peer::Script script;
    int result;
  };
  const Row rows[] = {
      {"an answer in time", say("HTTP/1.1 200 OK\r\nContent-Length: 4\r\n\r\nbody"), 1},
      {"a connection that hangs", nullptr, 0},
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
        const int port = row.script ? peer.port() : listen_without_room(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        copy_text(ctx.proxy.port, std::to_string(port).c_str());
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
