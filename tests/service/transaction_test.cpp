// service/: the seven requests and their one transaction, on scripted packets and sockets without a network.
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <csignal>
#include <regex>

#include "core/text.h"
#include "fake_platform/fixture.h"
#include "service/requests.h"
#include "service/transaction.h"
#include "support/nettle_cipher.h"

namespace kestrel {

namespace {

using nettle_cipher::md5_hex, nettle_cipher::seal;

char last_report[first_connection_len];

std::string with_xml_around(const std::string& elements) {
  return "123456<?xml version=\"1.0\" encoding=\"utf-8\" ?>\n<ldev>\n" + elements + "</ldev>\n";
}

int send_report(DeviceContext* ctx) {
  zero(last_report);
  fake.first_connection = "<t>1</t>\n";
  return conn_report(ctx, &ctx->auth_info, last_report);
}

int send_alias(DeviceContext* ctx) {
  char verdict[verdict_len] = "?";
  return srv_alias(ctx, "porch", verdict);
}

/// What tells the requests apart.
struct Subject {
  int (*send)(DeviceContext* ctx);
  const char *path, *challenge_uri;
  std::size_t send_len;
  int send_failed, failure;  // failure: of no answer, and of another status; there 0 is the number of bytes sent
  bool leaves_open;          // when nothing was answered
  std::string body;          // behind the six digits, within <ldev>; empty for a GET

  const char* method() const { return body.empty() ? "GET" : "POST"; }
  const char* server() const { return send == srv_get_eip ? "192.0.2.20" : "192.0.2.10"; }
  std::string path_by(bool relay) const { return relay ? std::string("http://") + server() + ":80" + path : path; }
};

enum { daip, eip, update, connectback, alias, enable, report };

// clang-format off
const Subject subjects[] = {
    {srv_get_daip, "/daip.html", "/ext.html", 1024, 0, 0, false, ""},
    {srv_get_eip, "/ext.html", "/ext.html", 1024, 0, 0, false, ""},
    {[](DeviceContext* ctx) { return srv_update(ctx, &ctx->update_word, &ctx->auth_info); },
     "/iupd.html", "/iupd.html", 2048, 0, 0, true,
     "<dev>\n<hid>HID00001</hid>\n<mac>02:00:00:00:00:02</mac>\n<ptype>1</ptype>\n<model>LC-100</model>\n"
     "<ver>1.2.3</ver>\n<sptver>3.0</sptver>\n<oif>eth0</oif>\n<mask>255.255.255.0</mask>\n<gw>192.168.1.1</gw>\n"
     "<eip>203.0.113.5</eip>\n<ueip>198.51.100.7</ueip>\n<iip>192.168.1.20</iip>\n<tch>1</tch>\n"
     "<tstamp>012345</tstamp>\n</dev>\n<ch>\n<chno>1</chno>\n<name>LC-100_0A0B0C-1.2-8080</name>\n<prot>T</prot>\n"
     "<stype>HTTP</stype>\n<eport>4444</eport>\n<ueport>8080</ueport>\n<iport>80</iport>\n<st>9</st>\n</ch>\n"},
    {srv_connectback, "/connectbk.html", "/connectbk.html", 2048, -1, 0, false,
     "<hid>HID00001</hid>\n<eip>198.51.100.7</eip>\n<ueport>8080</ueport>\n<tstamp>012345</tstamp>\n"},
    {send_alias, "/alias.html", "/alias.html", 1024, 0, 0, true,
     "<hid>HID00001</hid>\n<redirip>192.0.2.10</redirip>\n<ah>porch</ah>\n"},
    {[](DeviceContext* ctx) { return srv_enable_dev_account(ctx, 1, &ctx->auth_info); },
     "/enable.html", "/upd.html", 1024, 3, 3, true, "<hid>HID00001</hid>\n<enable>1</enable>\n"},
    {send_report, "/conn_report.html", "/conn_report.html", 8192, 0, 0, true, "<t>1</t>\n"},
};
// clang-format on

class Transaction : public FakeTest {
 protected:
  void SetUp() override {
    FakeTest::SetUp();
    std::signal(SIGPIPE, SIG_IGN);
    start();
  }

  /// A record in the middle of a cycle; the fake anew.
  void start() {
    fake_reset();
    zero(ctx);
    ctx.run = 1;
    zero(last_report);
    copy_text(ctx.hid, "HID00001");
    copy_text(ctx.uid, "LC-100_0A0B0C");
    copy_text(ctx.redir_ip, "192.0.2.10");
    copy_text(ctx.da_ip, "192.0.2.20");
    ctx.e = {"203.0.113.5", "4444"};
    ctx.i = {"192.168.1.20", "80"};
    ctx.ue = {"198.51.100.7", "8080"};
    ctx.proxy = {"1.2.3.4", "8888"};  // the shortest address
    copy_text(ctx.Timestamp, "012345");
    ctx.active_if = {"192.168.1.20", "02:00:00:00:00:01", "255.255.255.0", "192.168.1.1", "eth0"};
    copy_text(ctx.igd.friendlyName, "Router");
    ctx.state = NATU;
    copy_text(ctx.auth_info.user, "HID00001");
    copy_text(ctx.auth_info.pass, "secret");
    fake.interfaces = {{"192.168.1.20", "02:00:00:00:00:02", "255.255.255.0", "192.168.1.1", "eth1"}, {}};
  }

  /// One exchange that is answered so.
  int exchange(const Subject& subject, const FakeResponse& response) {
    fake.responses = {response};
    return subject.send(&ctx);
  }

  static std::string sent_body() {
    const std::string& sent = fake.sent.back();
    return sent.substr(sent.find("\r\n\r\n") + 4);
  }

  /// The plain text of the body sent; its padding is checked and taken away.
  static std::string sent_plain() {
    std::string plain = nettle_cipher::unseal(sent_body());
    EXPECT_EQ(plain.size() % 8, 0U);
    const std::size_t len = plain.find('\0');
    if (len == plain.npos) return plain;
    EXPECT_EQ(plain.substr(len), std::string(plain.size() - len, '\0'));
    EXPECT_LT(plain.size() - len, 8U);
    return plain.substr(0, len);
  }

  DeviceContext ctx;

  /// The log in one text, '|' for the ends of lines, with line numbers and fresh values replaced by names.
  std::string log() const {
    std::string text;
    for (const std::string& line : fake.log) text += line;
    const std::string& sent = fake.sent.back();
    const std::string plain = sent_plain();
    const std::size_t padded = (plain.size() + 7) / 8 * 8;
    const std::pair<std::string, const char*> rows[] = {
        {sent, "WHOLE"},
        {plain, "PLAIN"},
        {ctx.auth_info.cnonce, "CNONCE"},
        {"=(" + std::to_string(sent.size()) + ")", "=(SENT)"},
        {"=(" + std::to_string(sent.size() - sent_body().size()) + ")", "=(HEAD)"},
        {"send=" + std::to_string(sent.size()), "send=SENT"},
        {"bodylen=" + std::to_string(padded) + "\n", "bodylen=PADDED\n"},
        {"------------------------", "---"},
        {"\n", "|"},
    };
    for (const auto& [what, name] : rows) {
      for (std::size_t at = 0; !what.empty() && (at = text.find(what, at)) != text.npos;) {
        text.replace(at, what.size(), name);
      }
    }
    return std::regex_replace(text, std::regex(R"(\[( ?\w+):\d+( ?)\])"), "[$1$2]");
  }
};

TEST_F(Transaction, GoesToTheServiceOrThroughTheRelayWhenItFits) {
  for (const Subject& subject : subjects) {
    for (const bool relay : {false, true}) {
      start();
      ctx.proxy_tested = relay ? 1 : 0;
      EXPECT_EQ(exchange(subject, {}), 1) << subject.path;
      const bool post = !subject.body.empty();
      const int len = static_cast<int>(sent_body().size());
      const FakeRequest expected{post ? "httpBuildPacket3" : "httpBuildPacket",
                                 "HID00001",
                                 subject.server(),
                                 subject.path_by(relay),
                                 subject.method(),
                                 "",
                                 80,
                                 post ? len : -1};
      EXPECT_EQ(fake.requests, std::vector{expected}) << subject.path;
      const std::string peer = relay ? "1.2.3.4:8888" : std::string(subject.server()) + ":80";
      const Texts calls{"ILibGetStreamSocket",   "watch",     "connect " + peer + " 20", "limit 30000",
                        "ILibProcessSocketRecv", "watch ends"};
      EXPECT_EQ(fake_calls({"ILib", "connect", "watch", "limit"}), calls) << subject.path;
      const char* protocol = relay ? "<prot>TP<" : "<prot>T<";
      const std::string body = std::regex_replace(subject.body, std::regex("<prot>T<"), protocol);
      EXPECT_EQ(sent_plain(), post ? with_xml_around(body) : "");
      for (const int excess : {0, 1}) {
        fake.raw_len = static_cast<int>(subject.send_len) - len + excess;
        EXPECT_EQ(exchange(subject, {}), excess == 0 ? 1 : subject.failure) << subject.path;
      }
    }
  }
}

TEST_F(Transaction, Results) {
  enum Result { ok = 1, challenged = 2, of_send_failure = 100, of_no_answer, of_other_status };
  struct Row {
    const char* what;
    std::function<void()> given;
    FakeResponse response;
    int result;
    bool unsent = false;
  };
  const auto head_of = [](int size) { return [=] { fake.raw_len = size; }; };
  const auto nothing = [] {};
  const auto nothing_built = [] {
    for (const char* builder : {"", "3", "_Auth_Encrypt"}) fake.always[std::string("httpBuildPacket") + builder] = 0;
  };
  const Row rows[] = {
      {"no connection", [] { fake.always["connect"] = -1; }, {}, 0},
      {"send fails", [] { fake.peer_gone = true; }, {.usable = false}, of_send_failure},
      {"a body without a head", nothing, {.usable = false, .body = "lost"}, of_no_answer},
      {"200", nothing, {}, ok},
      {"200 with a body that is no cipher text", nothing, {.body = "<html>"}, ok},
      {"401", nothing, {.status = 401, .body = "denied"}, challenged},
      {"500", nothing, {.status = 500, .body = "sorry"}, of_other_status},
      {"no status", nothing, {.status = 0}, of_other_status},
      {"not built", nothing_built, {}, of_no_answer, true},
      {"an empty head", head_of(0), {}, of_no_answer, true},
      {"a head that is too long", head_of(8193), {}, of_no_answer, true},
  };
  for (const Subject& subject : subjects) {
    for (const Row& row : rows) {
      for (const std::uint32_t on : {0U, 1U}) {
        const std::string what = std::string(subject.path) + ", " + row.what + ", on " + std::to_string(on);
        start();
        ctx.auth_info.on = on;
        row.given();
        const int result = exchange(subject, row.response);
        int expected = row.result < of_send_failure ? row.result : subject.failure;
        if (row.result == of_send_failure) expected = subject.send_failed;
        if (row.result == of_other_status && expected == 0) expected = static_cast<int>(fake.sent.back().size());
        EXPECT_EQ(result, expected) << what;
        EXPECT_EQ(fake.live_packets, 0) << what;
        // Some go on to receive after a send that failed.
        const bool unanswered = (row.result == of_no_answer || row.result == of_send_failure) && !fake.sent.empty();
        EXPECT_EQ(fake_calls({"ILib", "connect"}).empty(), row.unsent) << what;
        EXPECT_EQ(fake_open_sockets(), unanswered && subject.leaves_open ? 1 : 0) << what;
        EXPECT_EQ(ctx.auth_info.on, row.result == challenged ? 1 : row.unsent ? 0 : on) << what;  // a bad challenge
      }
    }
  }
}

TEST_F(Transaction, AChallengeIsAnsweredWithTheNextRequest) {
  for (const Subject& subject : subjects) {
    for (const bool relay : {false, true}) {
      start();
      ctx.proxy_tested = relay ? 1 : 0;
      AuthenticateInfo& auth = ctx.auth_info;
      EXPECT_EQ(exchange(subject, {.status = 401}), 2);
      EXPECT_STREQ(auth.uri, subject.challenge_uri);
      EXPECT_STREQ(auth.method, subject.method());
      EXPECT_EQ(auth.nc, 1U);
      EXPECT_EQ(fake_calls({"GetAuth"}), Texts{"GetAuthenticateInfo WWW-Authenticate"});
      // Requests under the first nonce, a new challenge, and more of both; the count is decimal.
      struct Row {
        std::uint32_t counted;
        int status, result;
        std::string nonce, qop, nc;
      };
      const Row rows[] = {{1, 200, 1, "n0", "auth", "00000002"},
                          {11, 200, 1, "n0", "auth", "00000012"},
                          {123456788, 401, 2, "n0", "auth", "123456789"},
                          {1, 401, 2, "n1", "", "00000002"},
                          {1, 200, 1, "n2", "auth-int", "00000002"}};
      for (const Row& row : rows) {
        fake.challenge = row.qop.empty() ? decltype(fake.challenge){"sky", "n2", "MD5", "auth-int"}
                                         : decltype(fake.challenge){"sky", "n1", "MD5", ""};
        EXPECT_TRUE(auth.nc == 1 || row.counted > 1);
        auth.nc = row.counted;
        const std::string last_cnonce = auth.cnonce;
        ++fake.unix_time_us;
        EXPECT_EQ(exchange(subject, {.status = row.status}), row.result);
        const FakeRequest& request = fake.requests.back();
        EXPECT_EQ(request.builder, "httpBuildPacket_Auth_Encrypt");
        EXPECT_EQ(request.path, subject.path_by(relay));
        EXPECT_EQ(request.content_length, sent_body().empty() ? -1 : static_cast<int>(sent_body().size()));
        // A new challenge has its own, of the same microsecond.
        const std::string cnonce = auth.cnonce;
        EXPECT_TRUE(cnonce.size() == 32 && cnonce != last_cnonce) << cnonce;
        const std::string middle = row.qop.empty() ? "" : row.nc + ":" + cnonce + ":" + row.qop + ":";
        const std::string entity = row.qop == "auth-int" ? ":" + md5_hex("") : "";
        const std::string response = md5_hex(md5_hex("HID00001:sky:secret") + ":" + row.nonce + ":" + middle +
                                             md5_hex(subject.method() + (":" + request.path) + entity));
        EXPECT_EQ(request.authorization, "Digest username=\"HID00001\", realm=\"sky\", qop=\"" + row.qop +
                                             "\", algorithm=\"MD5\", uri=\"" + request.path + "\" , nonce=\"" +
                                             row.nonce + "\", nc=" + row.nc + ", cnonce=\"" + cnonce +
                                             "\", response=\"" + response + "\"");
      }
    }
  }
}

TEST_F(Transaction, WhatAChallengeLacksStays) {
  // A library that leaves alone what it does not find.
  ctx.auth_info.on = 1;
  copy_text(ctx.auth_info.realm, "old realm");
  copy_text(ctx.auth_info.qop, "auth");
  fake.challenge_fills = false;
  EXPECT_EQ(exchange(subjects[eip], {.status = 401}), 2);
  EXPECT_STREQ(ctx.auth_info.realm, "old realm");
  EXPECT_STREQ(ctx.auth_info.qop, "auth");
}

TEST_F(Transaction, ALeftoverIsNotMistakenForWhatTookItsNumber) {
  const int fd = dup(STDERR_FILENO);  // the number of the next socket
  close(fd);
  exchange(subjects[update], {.usable = false});
  EXPECT_EQ(fcntl(fd, F_GETFD), FD_CLOEXEC);  // not for the shell's commands
  const int other = socket(AF_UNIX, SOCK_STREAM, 0);
  ASSERT_EQ(dup2(other, fd), fd);
  close(other);
  exchange(subjects[update], {});
  EXPECT_EQ(fcntl(fd, F_GETFD), 0);
  close(fd);
}

TEST_F(Transaction, SettingsWaitForTheEndOfAnExchangeButAnExitDoesNot) {
  static volatile std::sig_atomic_t handled;
  for (const int signal : {SIGUSR1, SIGUSR2, SIGTERM}) {
    start();
    handled = 0;
    int within = -1;
    std::signal(signal, [](int) { handled = handled + 1; });
    fake.on_call = [&](const std::string& call) {
      if (!call.starts_with("connect")) return;
      raise(signal);
      within = handled;
    };
    exchange(subjects[eip], {});
    EXPECT_EQ(within, signal == SIGTERM ? 1 : 0) << signal;
    EXPECT_EQ(handled, 1) << signal;
    std::signal(signal, SIG_DFL);
  }
}

TEST_F(Transaction, LogOfEachRequest) {
  const std::string eip_body = seal("<ext_ip>203.0.113.9</ext_ip><ext_port>51000</ext_port>");
  const std::string daip_body = seal("<da_eip>192.0.2.30</da_eip>");
  const auto challenged = [](const std::string& uri) {
    return "<-401 received!| ecnode bodylen=30|  algorithm=MD5|  nonce=n0|  qop=auth|  realm=sky|  uri=" + uri +
           "|  cnonce=CNONCE (32)|";
  };
  // clang-format off
  const struct {
    int subject;
    std::uint32_t on;
    FakeResponse response;
    std::string log;
  } rows[] = {
      {eip, 0, {.body = eip_body},
       " ---[ srv_get_eip ]---| auth_info->on=0| BufferLength=(SENT)| portnum=(40000)| connect to 192.0.2.20:80|"
       " connect=0| send=SENT| Body_Read=72||<--|" + eip_body + "|<--|<-200 OK receiced!|"
       " ==>[eip:eport] 203.0.113.9:51000|"},
      {eip, 0, {.usable = false}, "END connect=0| send=SENT| null|"},
      {daip, 1, {.body = daip_body},
       " ---[ srv_get_daip ]---| auth_info->on=1| ecnode bodylen=30| BufferLength=(SENT)| portnum=(40000)|"
       " connect=0| send=SENT| Body_Read=36||<--|" + daip_body + "|<--| <-200 OK receiced!|"
       " decodestr:|<da_eip>192.0.2.30</da_eip>| ==> Physical DA eip: 192.0.2.30|"},
      {daip, 0, {.status = 401},
       "END connect=0| send=SENT| Body_Read=0| <-401 received!| ecnode bodylen=30| algorithm=MD5| nonce=n0| qop=auth| realm=sky|"
       " uri=/ext.html| cnonce=CNONCE(32)|"},
      {update, 0, {.status = 401, .body = "denied\n"},
       "---[ srv_update ]---|  srv_update()|  hid=HID00001|  mac=02:00:00:00:00:02|  ptype=1|  model=LC-100|"
       "  FirmwareVersion=1.2.3|  SkyportVersion=3.0|  chname=LC-100_0A0B0C-1.2-8080|  oif=eth0|"
       "  netmask=255.255.255.0|  gateway=192.168.1.1|  eip=203.0.113.5|  eport=4444|  ueip=198.51.100.7|"
       "  ueport=8080|  iip=192.168.1.20|  iport=80|  manufacturer=|  manufacturerURL=|  friendlyName=Router|"
       "  modelName=|  modelNumber=|  modelDescription=|  presentationURL=|  tstamp=012345|"
       "----------sz_xml_data packet----------|PLAIN|----------end sz_xml_data-------------|"
       "ecnode bodylen=PADDED|connect=0|<--|denied|<--||" + challenged("/iupd.html")},
      {update, 0, {.status = 404}, "END connect=0|Error=(404)|"},
      {update, 0, {}, "END connect=0|200 OK|"},
      {connectback, 0, {.status = 0},
       "---[ srv_connectback ]---|  hid=HID00001|  eip=203.0.113.5|  ueip=198.51.100.7|  ueport=8080|"
       "  timestamp=012345|  use ueip=198.51.100.7:8080 doing connect back test|ecnode bodylen=PADDED|connect=0|"
       "reader.PacketHeader->StatusCode==NULL|"},
      {connectback, 0, {.status = 404}, "END connect=0|Error:(404)|"},
      {connectback, 0, {.status = 503}, "END connect=0|Unknow Error!|"},
      {connectback, 0, {}, "END connect=0|200 OK|"},
      {enable, 1, {.status = 401},
       " ---[ srv_enable_dev_account ]---| hid=HID00001| Enable=1|PLAIN ecnode bodylen=PADDED| ecnode bodylen=30|"
       "[srv_enable_dev_account]|connect=0|reader.Body_Read=0|" + challenged("/upd.html")},
      {enable, 0, {.status = 0}, "END connect=0|reader.Body_Read=0|Error=(0)|"},
      {enable, 0, {.body = "fine\n"}, "END connect=0|<--|fine|<--||reader.Body_Read=5| <-200 OK|"},
      {alias, 1, {.status = 404},
       "---[ srv_alias ]---| auth_info->on=1|PLAIN|ecnode bodylen=PADDED| ecnode bodylen=30| BufferLength=(HEAD)|WHOLE|"
       " portnum=(40000)|connect=0| send=SENT| Body_Read=0|Error:(404)|"},
      {alias, 0, {.status = 401}, "END connect=0| send=SENT| Body_Read=0|" + challenged("/alias.html")},
      {alias, 0, {.status = 500, .body = "?"}, "END connect=0| send=SENT| Body_Read=1||<--|?|<--|"},
      {alias, 0, {.body = seal("<ah/>")},
       "END connect=0| send=SENT| Body_Read=8||<--|" + seal("<ah/>") + "|<--|200 OK||decodestr:|  <ah/>||"},
      {report, 0, {.status = 500}, "END connect=0|Error=(500)|"},
      {report, 0, {}, "END connect=0|200 OK|"},
      {report, 0, {.usable = false},
       "----------sz_xml_data packet----------|PLAIN|----------end sz_xml_data-------------|"
       " ecnode bodylen=PADDED|connect=0|null|"},
  };
  // clang-format on
  for (const auto& row : rows) {
    start();
    ctx.auth_info.on = row.on;
    exchange(subjects[row.subject], row.response);
    // What comes before the connection is the same in all rows of a request.
    const std::string seen = row.log.starts_with("END ") ? "END " + log().substr(log().find("connect=0|")) : log();
    EXPECT_EQ(seen, row.log);
  }
}

TEST_F(Transaction, ConnectBackTestsTheAddressThatMayBeReached) {
  const struct {
    const char *ue_ip, *ue_port, *tested, *line;
  } rows[] = {
      {"198.51.100.7", "8080", "198.51.100.7", "  use ueip=198.51.100.7:8080 doing connect back test\n"},
      {"10.0.0.1", "443", "203.0.113.5", "  use eip=203.0.113.5:443 doing connect back test\n"},
      {"0.0.0.0", "8080", "203.0.113.5", ""},
      {"", "8080", "203.0.113.5", ""},
      {"null", "8080", "203.0.113.5", ""},
      {"198.51.100.7", "", nullptr, "[kestreld]: *** invalid parameters\n"},
  };
  for (const auto& row : rows) {
    start();
    copy_text(ctx.ue.ip, row.ue_ip);
    copy_text(ctx.ue.port, row.ue_port);
    EXPECT_EQ(exchange(subjects[connectback], {}), row.tested != nullptr ? 1 : 0);
    EXPECT_TRUE(*row.line != '\0' ? fake_logged(row.line) == 1 : fake_logged("doing connect") == 0) << row.ue_ip;
    EXPECT_EQ(fake.requests.size(), row.tested != nullptr ? 1U : 0U);
    if (row.tested == nullptr) continue;
    EXPECT_NE(sent_plain().find("<eip>" + std::string(row.tested) + "</eip>"), std::string::npos) << row.ue_ip;
  }
}

TEST_F(Transaction, AConnectionReportIsSentOnceForEveryChange) {
  const struct {
    const char* what;
    std::string record;
    int connect, result;
    bool sent;
  } rows[] = {
      {"changed", "<first>1</first>\n", 0, 1, true},
      {"the same", "<first>1</first>\n", 0, 1, false},
      {"changed, but no connection", "<first>2</first>\n", -1, 0, false},
      {"lost, though it would go now", "<first>2</first>\n", 0, 1, false},
      {"the longest that fits", std::string(4034, 'r'), 0, 1, true},
      {"too long for a body, and not taken for sent", std::string(4035, 'r'), 0, 0, false},
  };
  AuthenticateInfo own{};  // the finder's
  copy_text(own.user, "finder");
  for (const auto& row : rows) {
    fake.first_connection = row.record;
    fake.always["connect"] = row.connect;
    fake.responses = {{}};
    fake.sent.clear();
    EXPECT_EQ(conn_report(&ctx, &own, last_report), row.result) << row.what;
    EXPECT_EQ(last_report, row.record.substr(0, 4034)) << row.what;
    ASSERT_EQ(fake.sent.size(), row.sent ? 1U : 0U) << row.what;
    if (!row.sent) continue;
    EXPECT_EQ(sent_plain(), with_xml_around(row.record));
    EXPECT_EQ(fake.requests.back().user, own.user);
  }
  EXPECT_EQ(fake.log.back(), "[kestreld] *** first-connection record too long, not reported\n");
}

TEST_F(Transaction, AliasFollowUpStoresTheVerdict) {
  const std::string set = "srv_set_skyport_alias_status ";
  const struct {
    std::string verdict;
    int result;
    const char* text;
    std::string stored, not_stored;
  } rows[] = {
      {"0", 0, "alias change ok.\n", "srv_update_aliasname_status the porch of the house by the s 16",
       "srv_update_aliasname_status failed\n"},
      {"1", -1, "Unknown error.\n", set + "48", set + "ALIAS_FAILED failed!\n"},
      {"2", -1, "alias duplicated.\n", set + "32", set + "ALIAS_DUPLICATE failed!\n"},
      {std::string(500, '7'), -1, "Unknown error.\n", set + "48", set + "ALIAS_FAILED failed!\n"},
      {"", -1, "", set + "48", set + "ALIAS_FAILED failed!\n"},
  };
  for (const auto& row : rows) {
    const std::string answer = row.verdict.empty() ? "<x/>" : "<ahret>" + row.verdict + "</ahret>";
    const std::string code = row.verdict.substr(0, 1);
    const std::string said = code.empty() ? "" : "(" + code + ")" + row.text;
    for (const int store : {0, 1}) {
      start();
      current_record = ctx;
      fake.alias = "the porch of the house by the sea";  // cut to its 31 characters
      fake.alias_status = 3;
      fake.always = {{"srv_update_aliasname_status", store}, {"srv_set_skyport_alias_status", store}};
      fake.responses = {{.body = seal(answer)}};
      EXPECT_EQ(alias_follow_up(), row.result) << answer;
      EXPECT_EQ(fake_calls({"srv_update_", "srv_set_"}), Texts{row.stored});
      std::string log;
      for (const std::string& line : fake.log) log += line;
      EXPECT_TRUE(log.ends_with("  " + answer + "\n\n" + (code.empty() ? "" : "==>[ahret] " + code + "\n") +
                                "server alias return success.\n" + said +
                                (store == 1 ? "" : "[kestreld] *** " + row.not_stored)))
          << log;
    }
  }
}

TEST_F(Transaction, AliasFollowUpTriesTenTimesWhileOneIsAskedFor) {
  std::deque<FakeResponse> tenth(9, FakeResponse{.status = 404});
  tenth.push_back({});
  const struct {
    int getter;
    char status;
    std::uint32_t run;
    std::deque<FakeResponse> responses;
    std::size_t attempts;
    const char* line;
  } rows[] = {
      {1, 1, 1, tenth, 10, "server alias return success.\n"},
      {1, 1, 1, {}, 10, "server alias return fail.\n"},
      {1, 1, 0, {}, 1, "server alias return fail.\n"},
      {1, ALIAS_OK, 1, {}, 0, "keep original URL\n"},
      {0, 1, 1, {}, 0, "keep original URL\n"},
  };
  for (const auto& row : rows) {
    start();
    current_record = ctx;
    current_record.run = row.run;
    fake.alias_status = row.status;
    fake.always["srv_get_aliasname_status"] = row.getter;
    fake.responses = row.responses;
    EXPECT_EQ(alias_follow_up(), -1);
    EXPECT_EQ(fake.requests.size(), row.attempts);
    EXPECT_EQ(fake.log.back(), row.line);
    EXPECT_EQ(fake_logged("return fail.\n") + fake_logged("return success.\n"), row.attempts);
    EXPECT_EQ(fake_logged("update alias URL\n"), row.attempts > 0 ? 1U : 0U);
    EXPECT_EQ(fake_logged("[kestreld] *** srv_get_aliasname_status error\n"), row.getter == 0 ? 1U : 0U);
    EXPECT_LE(fake_open_sockets(), 1);
    if (row.run == 1) continue;
    const Texts calls{"watch", "limit 500", "connect 192.0.2.10:80 20", "watch ends"};
    EXPECT_EQ(fake_calls({"connect", "watch", "limit"}), calls) << "half a second once the daemon is to end";
  }
}

}  // namespace

}  // namespace kestrel
