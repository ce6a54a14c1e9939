// What a bad service or whoever stands in its place may answer to each of the seven requests, once and again and again,
// until it is well: through the host's HTTP packets, over loopback.
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <filesystem>
#include <optional>
#include <thread>

#include "core/text.h"
#include "fake_platform/fixture.h"
#include "service/exchange_watch.h"
#include "service/requests.h"
#include "support/child.h"
#include "support/nettle_cipher.h"

namespace kestrel {

namespace {

using Text = std::string;

/// A listener on loopback that takes one connection and treats it as told.
class Peer {
 public:
  using Script = std::function<void(int fd)>;  // what it does with a connection before it closes it

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

enum Outcome { unanswered, challenged, taken, refused };
constexpr int bytes = -99;  // a result that is the number of bytes sent

const Text ok = "HTTP/1.1 200 OK\r\n", whole = ok + "Content-Length: #\r\n\r\n@", n2 = "\r\n\r\n";
const Text pieces = ok + "Transfer-Encoding: chunked\r\n\r\n";
const Text digest = "HTTP/1.1 401 No\r\nContent-Length: 0\r\nWWW-Authenticate: ";
const Text good = "198.51.100.7", marked = "<@>198.51.100.7</@>";

Text many(std::size_t count, const Text& text) {
  return count == 0 ? "" : text + many(count - 1, text);
}

// The manners of an answer; false when nobody wants it.

bool say(int fd, const Text& text) {
  return send(fd, text.data(), text.size(), MSG_NOSIGNAL) >= 0;
}
void says(int fd, const Text& text) {
  say(fd, text);
}
/// A byte at a time.
void drip(int fd, const Text& text, useconds_t us) {
  for (std::size_t i = 0; i < text.size() && say(fd, text.substr(i, 1)); ++i) usleep(us);
}
void drips(int fd, const Text& text) {
  drip(fd, text, 100);
}
/// Until the daemon has closed.
void keeps(int fd, const Text& text) {
  say(fd, text);
  for (char byte = 0; recv(fd, &byte, 1, 0) > 0;) continue;
}
/// As `keeps`, and the daemon waits for more.
void stays(int fd, const Text& text) {
  keeps(fd, text);
}
void drips_on(int fd, const Text& text) {
  drip(fd, text, 10'000);
  keeps(fd, "");
}
void resets(int fd, const Text& text) {
  say(fd, text);
  const linger at_once{1, 0};
  setsockopt(fd, SOL_SOCKET, SO_LINGER, &at_once, sizeof(at_once));
}
/// What stands behind the bar, until nobody reads it any more.
void floods(int fd, const Text& text) {
  const int room = 65536;              // bytes: a full socket takes more only when a good part of them is read
  const timeval patience{0, 200'000};  // some requests leave their socket open, and read no more of it
  setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &room, sizeof(room));
  setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof(patience));
  const std::size_t at = text.find('|');
  say(fd, text.substr(0, at));
  const Text more = many(20, text.substr(at + 1));
  while (say(fd, more)) continue;
}

struct Kind {
  const char* what;
  Outcome outcome = taken;
  Text text = whole;  // @ stands for the enciphered body, # for its length, #x for that in hexadecimal
  void (*manner)(int fd, const Text&) = says;
  Text plain = marked;               // the body laid open; @ stands for a tag
  std::optional<Text> value = good;  // what is stored; nothing: it stays as it was

  bool is_flood() const { return manner == floods; }
  /// Ended by the shorter limit of a daemon's end.
  bool is_slow() const { return manner == stays || manner == drips_on; }
};

// clang-format off
const Kind kinds[] = {
    // In every odd form.
    {"drip", taken, whole, drips},
    {"names in small letters", taken, ok + "content-length:#\r\n\r\n@"},
    {"HTTP/1.0, to the end", taken, "HTTP/1.0 200 OK\r\n\r\n@"},
    {"no reason, no blank", unanswered, "HTTP/1.1 200\r\nContent-Length: #\r\n\r\n@"},
    {"folded field", taken, ok + "X: a\r\n  b\r\nContent-Length: #\r\n\r\n@", keeps},
    {"interim answers", taken, "HTTP/1.1 100 Continue\r\n\r\nHTTP/1.1 103 Hints\r\nLink: x\r\n\r\n" + whole, keeps},
    {"more behind it", taken, whole + "HTTP/1.1 404 No" + many(500, "x"), keeps},
    {"chunks", taken, pieces + "#x\r\n@\r\n0\r\n\r\n", keeps},
    {"chunks, zeros, extension, trailer", taken, pieces + "000#x;a=\"b\"\r\n@\r\n00;c\r\nX: Content-Length: 5\r\n\r\n", keeps},
    {"the longest body", taken, ok + "Content-Length: 65536\r\n\r\n" + Text(65536, 'x'), keeps, marked, {}},
    {"both lengths alike", taken, ok + "Content-Length: #\r\nContent-Length: #\r\n\r\n@"},
    {"bare line feeds", unanswered, "HTTP/1.1 200 OK\nContent-Length: #\n\n@"},
    {"empty line first", unanswered, "\r\n" + whole},
    {"chunks and a length", unanswered, ok + "Content-Length: 3\r\nTransfer-Encoding: chunked\r\n\r\n#x\r\n@\r\n0\r\n\r\n"},
    // In every wrong form.
    {"nothing", unanswered, ""},
    {"reset", unanswered, "", resets},
    {"reset in the body", unanswered, ok + "Content-Length: 5000\r\n\r\n@", resets},
    {"TLS", unanswered, Text("\x15\x03\x03\0\2\2\x28", 7)},
    {"binary", unanswered, Text("\0\xff\x1b[2J%n%s\r\n\r\n", 14)},
    {"status of letters", unanswered, "HTTP/1.1 2x0 OK\r\n\r\n@"},
    {"another version", unanswered, "HTTP/2.y 200 OK\r\n\r\n@"},
    {"no colon", unanswered, ok + "Content-Length #\r\n\r\n@"},
    {"status 0", unanswered, "HTTP/1.1 000 OK\r\n\r\n@"},
    {"zero byte in the head", unanswered, ok + Text("X: \0\r\n\r\n@", 9)},
    {"head too long", unanswered, ok + "X: " + Text(20000, 'x') + n2 + "@"},
    {"lengths that differ", unanswered, ok + "Content-Length: 3\r\nContent-Length: #\r\n\r\n@"},
    {"length below zero", unanswered, ok + "Content-Length: -1\r\n\r\n@"},
    {"length beyond 64 bits", unanswered, ok + "Content-Length: 18446744073709551617\r\n\r\n@"},
    {"length too large", unanswered, ok + "Content-Length: 99999999\r\n\r\n@"},
    {"body too long", unanswered, ok + "Content-Length: 65537\r\n\r\n" + Text(65537, 'x')},
    {"cut in the head", unanswered, ok},
    {"cut behind the head", unanswered, ok + "Content-Length: #\r\n\r\n"},
    {"cut behind an interim answer", unanswered, "HTTP/1.1 100 Continue\r\n\r\n"},
    {"cut", unanswered, ok + "Content-Length: 5000\r\n\r\n@"},
    {"chunk cut", unanswered, pieces + "ffff\r\n@"},
    {"chunks without the last", unanswered, pieces + "#x\r\n@\r\n"},
    {"trailers cut", unanswered, pieces + "#x\r\n@\r\n0\r\nX: y\r\n"},
    {"chunk longer than it says", unanswered, pieces + "3\r\n@\r\n0\r\n\r\n"},
    {"chunk size beyond 64 bits", unanswered, pieces + "10000000000000003\r\n@\r\n0\r\n\r\n"},
    {"flood of head", unanswered, ok + "|X: y\r\n", floods},
    {"flood of interim answers", unanswered, "|HTTP/1.1 100 Continue\r\n\r\n", floods},
    {"flood of body", unanswered, pieces + "|1\r\nA\r\n", floods},
    {"flood of body without a length", unanswered, ok + "\r\n|" + Text(4000, 'A'), floods},
    {"flood of a chunk's extension", unanswered, pieces + "1;|" + Text(4000, 'x'), floods},
    {"flood of trailers", unanswered, pieces + "0\r\n|" + many(500, "X: y\r\n"), floods},
    {"silent", unanswered, "", stays},
    {"drip for ever", unanswered, Text(1000, 'x'), drips_on},
    {"stops in the body", unanswered, ok + "Content-Length: 5000\r\n\r\n@", stays},
    {"stops in a chunk", unanswered, pieces + "ffff\r\n@", stays},
    {"no length, left open", taken, "HTTP/1.0 200 OK\r\n\r\n@", stays},
    {"a last chunk in another form, left open", taken, pieces + "#x\r\n@\r\n000;ext\r\n\r\n", stays},
    // Other statuses.
    {"204", refused, "HTTP/1.1 204 No\r\n\r\n", keeps},
    {"302", refused, "HTTP/1.1 302 No\r\nLocation: http://127.0.0.1:1/\r\nContent-Length: 0\r\n\r\n"},
    {"404", refused, "HTTP/1.1 404 No\r\nContent-Length: #\r\n\r\n@"},
    {"407", refused, "HTTP/1.1 407 No\r\nProxy-Authenticate: Digest realm=\"p\", nonce=\"p\"\r\nContent-Length: 0\r\n\r\n"},
    // Challenges.
    {"401 without a challenge", challenged, "HTTP/1.1 401 No\r\n\r\n"},
    {"empty", challenged, digest + "Digest" + n2},
    {"another algorithm", challenged, digest + "Digest realm=\"r\", nonce=\"n\", algorithm=SHA-256, qop=\"auth-int\"" + n2},
    {"no nonce", challenged, digest + "Digest realm=\"r\", qop=\"auth\"" + n2},
    {"twenty", challenged, digest + many(20, "Digest realm=\"r\", nonce=\"n\", ") + n2},
    {"over-long texts", challenged, digest + "Digest realm=\"" + Text(1500, 'r') + "\", nonce=\"" + Text(1500, 'n') +
        "\", algorithm=" + Text(1500, 'a') + ", qop=\"" + many(100, "auth-int,") + "\"" + n2},
    {"texts for a shell and a format", challenged, digest + "Digest realm=\"$(reboot)`x`;%n%s\", nonce=\"';%99999d\"" + n2},
    {"control characters", challenged, digest + "Digest realm=\"a\tb\x80\", nonce=\"n\tn\"" + n2},
    // Values.
    {.what = "no body", .text = ok + "Content-Length: 0" + n2, .manner = keeps, .value = {}},
    {.what = "empty", .plain = "<@></@>", .value = ""},
    {.what = "missing", .plain = "<x>1</x>", .value = {}},
    {.what = "unclosed", .plain = "<@>1", .value = {}},
    {.what = "crossed", .plain = "</@>1<@>", .value = {}},
    {.what = "crossed, and another", .plain = "</@><@>1</@>", .value = {}},
    {.what = "two", .plain = "<@>1</@><@>2</@>", .value = "1"},
    {.what = "nested", .plain = "<@><@>1</@></@>", .value = "<@>1"},
    {.what = "over-long", .plain = "<@>" + Text(9000, '9') + "</@>", .value = Text(9000, '9')},
    {.what = "binary", .plain = "<@>\x01\xff\r\n\x1b[2J</@>", .value = "\x01\xff\r\n\x1b[2J"},
    {.what = "for a shell and a format", .plain = "<@>%n%s$(reboot)`x`</@>", .value = "%n%s$(reboot)`x`"},
    {.what = "zero byte inside", .plain = Text("<@>1\0</@>", 9), .value = {}},
};
// clang-format on

Text replaced(Text text, const Text& from, const Text& to) {
  for (std::size_t at = 0; (at = text.find(from, at)) != text.npos; at += to.size()) text.replace(at, from.size(), to);
  return text;
}

struct Asked {
  const char* name;
  int (*send)(DeviceContext& ctx, char* verdict);
  std::initializer_list<int> reads = {};  // which of the four fields
  int unanswered = 0, refused = bytes;
};

const Asked requests[] = {
    {"data server", [](DeviceContext& ctx, char*) { return srv_get_daip(&ctx); }, {0}},
    {"address", [](DeviceContext& ctx, char*) { return srv_get_eip(&ctx); }, {1, 2}},
    {"update", [](DeviceContext& ctx, char*) { return srv_update(&ctx, nullptr, &ctx.auth_info); }},
    {"connect-back", [](DeviceContext& ctx, char*) { return srv_connectback(&ctx); }},
    {"alias", [](DeviceContext& ctx, char* verdict) { return srv_alias(&ctx, "yard", verdict); }, {3}},
    {"switch", [](DeviceContext& ctx, char*) { return srv_enable_dev_account(&ctx, 1, &ctx.auth_info); }, {}, 3, 3},
    {"report", [](DeviceContext& ctx,
                  char*) { return conn_report(&ctx, &ctx.auth_info, Text(first_connection_len, '\0').data()); }},
};

long descriptors() {
  return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), std::filesystem::directory_iterator());
}

class Camera {
 public:
  explicit Camera(const Asked& asked) : asked_(asked) {
    zero(ctx_);
    ctx_.run = ctx_.proxy_tested = 1;  // through the relay, whose port is free to choose
    copy_text(ctx_.proxy.ip, "127.0.0.1");
    copy_text(ctx_.proxy.port, std::to_string(peer_.port()).c_str());
    copy_text(ctx_.da_ip, "192.0.2.20");
    copy_text(ctx_.redir_ip, "192.0.2.10");
    copy_text(ctx_.auth_info.user, "HID00001");
    copy_text(ctx_.auth_info.pass, "secret");
    copy_text(ctx_.ue.port, "51000");
  }

  /// The peer is bad once, is well, and, unless that takes long, is bad three times, and well again.
  void suffer(const Kind& kind) {
    for (const int times : {1, 3}) {
      if ((kind.is_slow() || kind.is_flood()) && times > 1) break;
      for (int i = 0; i < times; ++i) attempt(kind, kind.is_slow() ? 0 : 1);
      const Text fresh = "Digest realm=\"fresh\", nonce=\"fresh\", algorithm=MD5, qop=\"auth\"";
      attempt({"fresh challenge", challenged, digest + fresh + n2}, 1);
      const Text request = attempt({"well again"}, 1);
      EXPECT_NE(request.find("\"HID00001\", realm=\"fresh\", qop=\"auth\", algorithm=\"MD5\""), request.npos)
          << request;
      EXPECT_NE(request.find("nonce=\"fresh\", nc=00000002"), request.npos) << request;
    }
  }

  /// The last exchange of a process: the daemon is to end while it is under way.
  void end_within(const Kind& kind) {
    std::signal(SIGALRM, [](int) { end_exchanges(); });
    is_last_ = true;
    attempt(kind, 1);
  }

 private:
  /// One exchange. The request as the peer read it.
  Text attempt(const Kind& kind, unsigned run) {
    SCOPED_TRACE(Text(asked_.name) + ": " + kind.what);
    Text body = "123456";
    for (const Field& field : fields_) {
      body += replaced(kind.plain, "@", field.tag);
      copy_text(field.text, field.size, "was");
    }
    body = nettle_cipher::seal(body);
    char hex[20];
    format_text(hex, sizeof(hex), "%zX", body.size());
    const Text head = replaced(replaced(kind.text, "#x", hex), "#", std::to_string(body.size()));
    ctx_.run = run;
    const DeviceContext before = ctx_;
    int result = -1;
    double took_s = 0;
    const Text request = peer_.serve(
        [&](int fd) {
          // From here, since a busy peer may come late.
          const itimerval once{{0, 0}, {0, 200'000}};
          if (is_last_) setitimer(ITIMER_REAL, &once, nullptr);
          kind.manner(fd, replaced(head, "@", body));
        },
        [&] { took_s = seconds_of([&] { result = asked_.send(ctx_, verdict_); }); });
    EXPECT_LT(took_s, 10);  // an answer may take 30
    const int expected[] = {asked_.unanswered, request_challenged, request_ok, asked_.refused};
    EXPECT_EQ(result, expected[kind.outcome] == bytes ? static_cast<int>(request.size()) : expected[kind.outcome]);
    check(before, kind);
    EXPECT_LE(descriptors(), descriptors_ + 1);  // of a request that leaves its socket to the next one
    return request;
  }

  /// Nothing of the record has changed but what the outcome allows.
  void check(DeviceContext before, const Kind& kind) {
    for (int i = 0; i < 4; ++i) {
      const bool stored = kind.outcome == taken && kind.value && std::ranges::count(asked_.reads, i) > 0;
      EXPECT_EQ(fields_[i].text,
                stored ? replaced(*kind.value, "@", fields_[i].tag).substr(0, fields_[i].size - 1) : "was");
    }
    AuthenticateInfo& auth = before.auth_info;
    const AuthenticateInfo& now = ctx_.auth_info;
    if (kind.outcome == challenged) {
      EXPECT_EQ(now.on, 1U);
      auth = now;  // but for the account
      copy_text(auth.user, "HID00001");
      copy_text(auth.pass, "secret");
    }
    auth.nc = now.nc;
    copy_text(auth.method, now.method);
    std::memcpy(auth.uri, now.uri, sizeof(now.uri) + sizeof(now.cnonce) + sizeof(now.response));
    before.e = ctx_.e;
    copy_text(before.da_ip, ctx_.da_ip);
    EXPECT_EQ(std::memcmp(&before, &ctx_, sizeof(ctx_)), 0) << "another field of the record";
  }

  struct Field {
    const char* tag;
    char* text;
    std::size_t size;
  };

  const Asked& asked_;
  Peer peer_;
  DeviceContext ctx_;
  char verdict_[verdict_len] = "";
  bool is_last_ = false;
  const Field fields_[4] = {{"da_eip", ctx_.da_ip, ip_len},
                            {"ext_ip", ctx_.e.ip, ip_len},
                            {"ext_port", ctx_.e.port, port_len},
                            {"ahret", verdict_, verdict_len}};
  const long descriptors_ = descriptors() + 1;  // the watch has one
};

TEST(Answers, EachHasItsResultAndLeavesNothingBehind) {
  std::signal(SIGPIPE, SIG_IGN);
  std::vector<Kind> slow;
  std::ranges::copy_if(kinds, std::back_inserter(slow), &Kind::is_slow);
  std::vector<pid_t> children;  // side by side: some of it is waiting
  for (const Asked& asked : requests) {
    children.push_back(fork());
    if (children.back() != 0) continue;
    fake.first_connection = "<fc>1</fc>";
    Camera camera(asked);
    for (const Kind& kind : kinds) camera.suffer(kind);
    camera.end_within(slow[(children.size() - 1) % slow.size()]);
    std::fflush(nullptr);
    _exit(HasFailure() ? 1 : 0);
  }
  for (const pid_t child : children) {
    int status = -1;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(status, 0);
  }
}

}  // namespace

}  // namespace kestrel
