// finder/: requests and replies of the LAN protocol over a real socket on loopback, on the fake platform. A request is
// sent, handled by a direct call, and its reply is there: nothing sleeps.
#include <arpa/inet.h>
#include <net/if.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/syscall.h>

#include <chrono>
#include <csignal>
#include <limits>
#include <thread>

#include "fake_platform/fixture.h"
#include "finder/finder.h"
#include "finder/packet.h"
#include "finder/record.h"
#include "service/requests.h"
#include "service/transaction.h"
#include "support/child.h"
#include "support/nettle_cipher.h"

// ---- What the finder calls outside of the platform ----

static std::function<int(int nfds, const timeval& limit)> on_select;
static std::function<std::uint64_t()> finder_clock;  // ms, in the place of the monotonic clock
static std::function<int(const kestrel::DeviceContext*, AuthenticateInfo& auth, char* last_report)> on_report;

extern "C" int kill(pid_t pid, int number) noexcept {
  fake_record("kill " + std::to_string(pid) + (number == SIGUSR1 ? " USR1" : number == SIGUSR2 ? " USR2" : " other"));
  return 0;
}

extern "C" int clock_gettime(clockid_t clock, timespec* now) noexcept {
  if (!finder_clock || clock != CLOCK_MONOTONIC) return static_cast<int>(syscall(SYS_clock_gettime, clock, now));
  *now = {static_cast<time_t>(finder_clock() / 1000), static_cast<long>(finder_clock() % 1000 * 1'000'000)};
  return 0;
}

extern "C" int select(int nfds, fd_set* reads, fd_set* writes, fd_set* excepts, timeval* limit) {
  if (on_select) return on_select(nfds, *limit);
  const timespec until{limit->tv_sec, limit->tv_usec * 1000};
  return pselect(nfds, reads, writes, excepts, &until, nullptr);
}

namespace kestrel {

int conn_report(DeviceContext* ctx, AuthenticateInfo* auth, char* last_report) {
  return on_report ? on_report(ctx, *auth, last_report) : request_ok;
}

namespace {

// ---- A world of its own, where that is allowed: the port is free there, and /etc can be changed ----

bool own_etc = false;

class World : public ::testing::Environment {
  void SetUp() override {
    setenv("TZ", "XXX-2", 1);  // two hours ahead of UTC
    constexpr int wanted = CLONE_NEWNS | CLONE_NEWNET;
    const std::pair<const char*, std::string> rights[] = {{"setgroups", "deny"},
                                                          {"uid_map", "0 " + std::to_string(geteuid()) + " 1"},
                                                          {"gid_map", "0 " + std::to_string(getegid()) + " 1"}};
    if (unshare(wanted) != 0) {
      if (unshare(wanted | CLONE_NEWUSER) != 0) return;
      for (const auto& [name, right] : rights) write_file(std::string("/proc/self/") + name, right);
    }
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    ifreq loopback{{"lo"}, {}};
    loopback.ifr_flags = IFF_UP;
    ASSERT_EQ(ioctl(fd, SIOCSIFFLAGS, &loopback), 0);
    close(fd);
    own_etc = mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
              mount("none", "/etc", "tmpfs", 0, nullptr) == 0;
  }
};
[[maybe_unused]] const auto* const world = ::testing::AddGlobalTestEnvironment(new World);

// ---- Datagrams ----

using Bytes = std::string;

Bytes hex(const std::string& digits) {
  Bytes out;
  for (std::size_t at = 0; (at = digits.find_first_not_of(' ', at)) != digits.npos; at += 2) {
    out += static_cast<char>(std::stoi(digits.substr(at, 2), nullptr, 16));
  }
  return out;
}
/// A text in its field, zero behind it.
Bytes text(Bytes value, std::size_t size) {
  value.resize(size);
  return value;
}
Bytes number(std::size_t value, std::size_t size) {
  Bytes out;
  for (; size > 0; --size, value >>= 8) out += static_cast<char>(value & 0xFF);
  return out;
}

const Bytes own = hex("02005eaabbcc");
const Bytes everybody = hex("ffffffffffff");

Bytes request(std::size_t opcode, const Bytes& payload = "", const Bytes& mac = own) {
  return hex("fdfd 3412") + number(opcode, 2) + mac + Bytes(8, '\0') + number(payload.size(), 2) + payload;
}
Bytes as_user(std::size_t opcode, const Bytes& user, const Bytes& password, const Bytes& arg = "") {
  const auto b64 = [](const Bytes& plain) { return text(nettle_cipher::base64(plain), finder_credential_len); };
  return request(opcode, b64(user) + b64(password) + arg);
}
Bytes as_admin(std::size_t opcode, const Bytes& arg = "") {
  return as_user(opcode, "admin", "pw", arg);
}

/// A reply from its result on: with a payload, and with the words of a small one.
Bytes answer(std::size_t result, const Bytes& payload) {
  return number(result, 2) + hex("0100") + number(payload.size(), 2) + payload;
}
Bytes words(std::size_t result, std::size_t first, std::size_t second = 0, std::size_t third = 0) {
  return answer(result, number(first, 4) + number(second, 4) + number(third, 8));
}
const Bytes refused = words(1, 0);
const Bytes silence;
const Bytes op_list_answer = answer(0, hex("a100a200a300a400a500a600a700a800a900aa00ab00ac00ad00ae00af00b000b100"));

IFINFO interface(const char* ip) {
  IFINFO info{{0x0A, 0x0B, 0x0C, 0x0D, 0x0E, 0x0F}, {}, inet_addr(ip), inet_addr("255.0.0.0"), 0, 0};
  info.gateway = inet_addr("10.1.2.254");
  return info;
}

/// A request in a world that begins anew, and what it changes there.
struct Case {
  const char* name;
  std::function<void()> given;
  Bytes request;
  Bytes outcome;
  Texts changes{};
};

/// Takes the finder's port, or lets it go.
void hold_port(bool hold) {
  static int fd = -1;
  const sockaddr_in port{AF_INET, htons(finder_port), {}, {}};
  if (!hold) {
    close(fd);
    return;
  }
  fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  bind(fd, reinterpret_cast<const sockaddr*>(&port), sizeof(port));
}

class FinderTest : public FakeTest {
 protected:
  void SetUp() override {
    FakeTest::SetUp();
    if (own_etc) write_file("/etc/resolv.conf", "nameserver 192.0.2.1\nnameserver 9.9.9.9\nnameserver 192.0.2.3\n");
    on_select = nullptr;
    on_report = nullptr;
    fake.interfaces = {ACT_IF_INFO{"", "02:00:5e:aA:Bb:cc", "", "", ""}};
    fake.metrics = {{0, "lo"}};
    fake.binary_interfaces["lo"] = interface("127.0.0.1");
    fake.http_port = 8080;
    fake.https = fake.dst = 1;
    fake.timezone = "\x34\x12";
    fake.alias = "porch";
    fake.last_alias = "front";
    fake.users = {"", "bob", "guardian-of-the-gate"};
    ctx = {};
    ctx.run = 1;
    ctx.pid = 4711;
    finder = {};
    Finderd_CST();
    Finderd_set_context(&ctx);
    client = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    const sockaddr_in to{AF_INET, htons(finder_port), {htonl(INADDR_LOOPBACK)}, {}};
    ASSERT_EQ(connect(client, reinterpret_cast<const sockaddr*>(&to), sizeof(to)), 0);
  }
  void TearDown() override {
    Finderd_DST();
    close(client);
    FakeTest::TearDown();
  }

  void start() { ASSERT_EQ(Finderd_init(), 1) << ::testing::PrintToString(fake.console); }

  Bytes receive() const {
    char reply[2048];
    const ssize_t len = recv(client, reply, sizeof(reply), MSG_DONTWAIT);
    return {reply, static_cast<std::size_t>(len > 0 ? len : 0)};
  }
  /// Has a request handled. Returns the reply, empty for none.
  Bytes exchange(const Bytes& datagram) const {
    fake.calls.clear();
    fake.log.clear();
    finder.checks = {};
    EXPECT_EQ(send(client, datagram.data(), datagram.size(), 0), static_cast<ssize_t>(datagram.size()));
    Finderd_handle_request();
    const Bytes reply = receive();
    EXPECT_EQ(receive(), silence) << "a second reply";
    return reply;
  }
  /// As exchange: the reply from its result on. What stands before is checked for every one.
  Bytes outcome(const Bytes& datagram) const {
    const Bytes reply = exchange(datagram);
    if (reply.empty()) return silence;
    EXPECT_EQ(reply.substr(0, at_result), hex("eefe") + datagram.substr(at_tag, 4) + own + hex("7f000001"));
    return reply.substr(at_result);
  }
  Bytes payload(std::size_t opcode) const { return exchange(request(opcode)).substr(finder_header_len); }

  void expect(const Case& row) {
    TearDown();
    SetUp();
    start();
    if (row.given) row.given();
    EXPECT_EQ(outcome(row.request), row.outcome) << row.name;
    EXPECT_EQ(fake_calls({"cre_set", "srv_update", "srv_set", "kill", "run_shell"}), row.changes) << row.name;
  }

  DeviceContext ctx{};
  int client = -1;
};

// ---- The wire ----

TEST_F(FinderTest, EveryOperationByteForByte) {
  start();
  const Bytes credentials = text("YWRtaW4=", 64) + text("cHc=", 64);
  // magic, tag, opcode, MAC, not read, length
  const auto asked = [](const std::string& opcode, const std::string& length) {
    return hex("fdfd 0107" + opcode + "02005eaabbcc 0102030405060708" + length);
  };
  // magic, tag, opcode, MAC, address, result, flag, length
  const auto answered = [](const std::string& opcode, const std::string& result, const std::string& length) {
    return hex("eefe 0107" + opcode + "02005eaabbcc 7f000001" + result + "0100" + length);
  };
  const std::pair<Bytes, Bytes> rows[] = {
      {hex("fdfd 0107 a100 ffffffffffff 0102030405060708 0000"),  // survey, of everybody
       answered("a100", "0000", "3801") + text("Lumen", 64) + text("Eye", 64) + text("LC-100", 32) + text("7.8", 32) +
           hex("0200 78563412 0a0b0c0d0e0f") +              // product type 1, hardware, the interface's own MAC
           text("Porch", 64) + hex("7f000001 901f 0000") +  // address, port 8080, zero
           hex("ff000000 0a0102fe c0000201 c0000203 01") +  // mask, gateway, first and last DNS server, DHCP
           "20010909034640" + hex("00 00 3412 01")},        // local time, terminator, zero, timezone, dst
      {asked("0901", "0000"), answered("0901", "0000", "3001") + text("Lumen", 64) + text("LC-100", 32) +
                                  text("7.8", 32) + text("3.0", 32) + own + text("Porch", 64) +
                                  text("http://porch.skyport.test/", 64) + hex("7f000001 901f 01 000000")},
      {asked("a500", "8000") + credentials,
       answered("a500", "0000", "2200") + hex("a100a200a300a400a500a600a700a800a900aa00ab00ac00ad00ae00af00b000b100")},
      {asked("d100", "0000"), answered("d100", "0000", "1000") + hex("01") + Bytes(15, '\0')},
      {asked("d200", "8100") + credentials + hex("00"), answered("d200", "0000", "1000") + Bytes(16, '\0')},
      {asked("0201", "0000"), answered("0201", "0000", "1000") + hex("03000000 06000000 02000000 00000000")},
      {asked("0501", "0000"), answered("0501", "0000", "4000") + text("http://porch.skyport.test/", 64)},
      {asked("0601", "8000") + credentials, answered("0601", "0000", "4000") + text("front", 64)},
      {asked("0701", "8500") + credentials + hex("7961726400"),
       answered("0701", "0000", "1000") + hex("00000000 02000000 00000000 00000000")},
      {asked("0801", "8000") + credentials,
       answered("0801", "0000", "1000") + hex("00000000 02000000 00000000 00000000")},
      {asked("0a01", "8200") + credentials + hex("7800"),
       answered("0a01", "0000", "1000") + hex("00000000 00000000 30750000 00000000")},
      {asked("a500", "0000"), answered("a500", "0100", "1000") + Bytes(16, '\0')}};  // refused
  ctx.state = LumenDevNotReady;  // the service is switched off on the way there
  ctx.prefinal_state = UpnpPfFailed;
  for (const auto& [sent, wanted] : rows) {
    Bytes reply = exchange(sent);
    if (!own_etc && reply.size() == 334) reply.replace(306, 8, wanted, 306, 8);  // this machine's DNS servers
    EXPECT_EQ(reply, wanted);
  }
}

TEST_F(FinderTest, OnlyWhatIsExactlyARequestIsAnswered) {
  start();
  const Bytes survey = request(op_survey);
  const auto with = [&](std::size_t at, const char* bytes) {
    return Bytes(survey).replace(at, hex(bytes).size(), hex(bytes));
  };
  const std::tuple<const char*, Bytes, bool> rows[] = {
      {"22 bytes", survey, true},
      {"bytes that are not read", with(12, "ffffffffffffffff"), true},
      {"payload that nobody needs", request(op_survey, "x"), true},
      {"first byte of the magic", with(0, "fefd"), false},
      {"second byte of the magic", with(0, "fdfe"), false},
      {"a reply's magic", with(0, "eefe"), false},
      {"length 0 of 23 bytes", survey + "x", false},
      {"length 1 of 22 bytes", with(at_length, "0100"), false},
      {"length in the other byte order", with(at_length, "0001") + "x", false},
      {"length that wraps with the header", with(at_length, "eaff"), false},
      {"1024 bytes, all that fits", request(op_survey, Bytes(1002, 'x')), true},
      {"1025 bytes", request(op_survey, Bytes(1003, 'x')), false},
      {"1025 bytes, cut to its length", request(op_survey, Bytes(1002, 'x')) + "y", true},
      {"65000 bytes", request(op_survey, Bytes(64978, 'x')), false},
      {"another's MAC, first byte", with(at_mac, "03"), false},
      {"another's MAC, last byte", with(at_mac + 5, "cd"), false},
      {"nearly everybody", with(at_mac, "fffffffffffe"), false}};
  for (const auto& [name, datagram, answered] : rows) {
    EXPECT_EQ(!outcome(datagram).empty(), answered) << name;
    EXPECT_EQ(fake_logged("Skip invalid request"), answered ? 0 : 1) << name;
  }
  for (const std::size_t opcode :
       {0xA1U, 0xA3U, 0xA5U, 0xD1U, 0xD2U, 0x102U, 0x105U, 0x106U, 0x107U, 0x108U, 0x109U, 0x10AU, 0x999U}) {
    const Bytes credentials = as_admin(opcode).substr(at_user);
    EXPECT_EQ(!exchange(request(opcode, credentials, everybody)).empty(), opcode == 0xA1 || opcode == 0x109) << opcode;
  }
  const Bytes whole = as_admin(op_set_alias, "yard");
  for (std::size_t len = 0; len < whole.size(); ++len) EXPECT_EQ(outcome(whole.substr(0, len)), silence) << len;
}

// ---- Authority ----

TEST_F(FinderTest, OnlyTheAdministratorWithHisPasswordIsServed) {
  const auto raw = [](const Bytes& user, const Bytes& pass) {
    return request(op_list, text(user, 64) + text(pass, 64));
  };
  const auto named = [](const Bytes& admin, const Bytes& password) {
    return [=] { fake.admin = admin, fake.admin_password = password; };
  };
  const auto unknown = [](const char* getter) { return [=] { fake.admin_password = "", fake.always[getter] = 0; }; };
  const auto silent = [] {
    for (const char* getter : {"cre_get_power_user_passwd", "cre_get_power_username", "cre_get_max_user_count"}) {
      fake.always[getter] = silent_success;
    }
  };
  const Bytes n48(48, 'n');  // fill their fields to the last byte
  const Bytes p48(48, 'p');
  const Case rows[] = {
      {"administrator", nullptr, as_admin(op_list), op_list_answer},
      {"wrong password", nullptr, as_user(op_list, "admin", "pW"), refused},
      {"password's beginning", nullptr, as_user(op_list, "admin", "p"), refused},
      {"longer password", nullptr, as_user(op_list, "admin", "pww"), refused},
      {"empty password", nullptr, as_user(op_list, "admin", ""), refused},
      {"which is right", named("admin", ""), as_user(op_list, "admin", ""), op_list_answer},
      {"or not known", unknown("cre_get_power_user_passwd"), as_user(op_list, "admin", ""), refused},
      {"name not known", unknown("cre_get_power_username"), as_user(op_list, "admin", ""), refused},
      {"known to getters that say nothing", silent, as_admin(op_list), op_list_answer},
      {"to the table's too", silent, as_user(op_user_probe, "bob", "pw"), silence},
      {"name's beginning", nullptr, as_user(op_list, "adm", "pw"), refused},
      {"longer name", nullptr, as_user(op_list, "admin1", "pw"), refused},
      {"other case", nullptr, as_user(op_list, "Admin", "pw"), refused},
      {"empty name", named("", "pw"), as_user(op_list, "", "pw"), refused},
      {"name alone", nullptr, as_admin(op_list).replace(at_length, 2, number(64, 2)).substr(0, at_password), refused},
      {"name that is no base64", named("", "pw"), raw("!!!!", "cHc="), refused},
      {"name that decodes to nothing", named("", "pw"), raw("=", "cHc="), refused},
      {"or to a zero byte", named("", "pw"), raw("AAAA", "cHc="), refused},
      {"full fields", named(n48, p48), as_user(op_list, n48, p48), op_list_answer},
      {"full name, other password", named(n48, "pw"), as_user(op_list, n48, "p"), refused},
      {"user", nullptr, as_user(op_list, "bob", "pw"), refused},
      {"user who may probe, in vain", nullptr, as_user(op_user_probe, "bob", "pw"), silence},
      {"long name, cut by the table", nullptr, as_user(op_user_probe, "guardian-of-the-", "pw"), silence},
      {"user, other password", nullptr, as_user(op_user_probe, "bob", "bob"), refused},
      {"nobody", nullptr, as_user(op_user_probe, "eve", "pw"), refused},
      {"administrator may, in vain", nullptr, as_admin(op_user_probe), silence},
      {"no such operation, administrator", nullptr, as_admin(0x0999), silence},
      {"no such operation, user", nullptr, as_user(0x0999, "bob", "pw"), refused},
      {"no such operation, nobody", nullptr, request(0x0999), refused}};
  for (const Case& row : rows) {
    expect(row);
    EXPECT_EQ(fake_logged("Unknown opcode"), row.outcome == silence ? 1 : 0) << row.name;
    // A name is looked up twice, an empty one never.
    const bool has_name = row.request.size() > at_user && row.request[at_user] != '\0';
    EXPECT_EQ(fake_logged("  b64_username"), has_name ? 2 : 0) << row.name;
    EXPECT_TRUE(has_name || fake_calls({"cre_"}).empty()) << row.name;
  }
}

TEST_F(FinderTest, NothingOfAnEarlierRequestServesALaterOne) {
  start();
  const auto replay = [&] {
    fake.alias_status = ALIAS_OK;
    ASSERT_EQ(outcome(as_admin(op_set_alias, "earlier-alias")).substr(0, 2), hex("0000"));
    fake.alias_status = ALIAS_OK;
  };
  for (const std::size_t opcode :
       {op_list, op_set_enable, op_get_alias, op_set_alias, op_alias_status, op_set_domain}) {
    for (const std::size_t kept : {0U, 1U, 63U, 64U, 65U, 66U}) {  // two more bytes hold the whole password
      replay();
      EXPECT_EQ(outcome(request(opcode, as_admin(0).substr(at_user, kept))), refused) << opcode << ' ' << kept;
    }
  }
  // Its argument neither: without one, the alias is empty, and switch and domain are refused.
  replay();
  EXPECT_EQ(outcome(as_admin(op_set_alias)).substr(0, 2), hex("0000"));
  EXPECT_EQ(fake.alias, "");
  replay();
  EXPECT_EQ(outcome(as_admin(op_set_domain)), words(1, 1, 0, 30000));
  ASSERT_EQ(outcome(as_admin(op_set_enable, hex("00"))), words(0, 0));
  EXPECT_EQ(outcome(as_admin(op_set_enable)), words(1, 1));
}

// ---- Queries ----

TEST_F(FinderTest, RepliesTakeWhatThePlatformGives) {
  start();
  for (const auto& [type, code] : {std::pair{'\0', "0100"}, {'\1', "0200"}, {'\2', "0000"}, {'\x7f', "0000"}}) {
    fake.product_type = type;
    EXPECT_EQ(payload(op_survey).substr(192, 2), hex(code));
  }
  fake.unix_time_s = std::numeric_limits<long>::max();  // a year that no calendar has
  EXPECT_EQ(outcome(request(op_survey)).substr(0, 2), hex("0100"));
  EXPECT_EQ(payload(op_survey).substr(292), hex("01") + Bytes(16, '\0') + hex("341201"));
  EXPECT_EQ(outcome(request(op_spt_survey)).substr(0, 2), hex("0000"));

  fake.brand = fake.product = fake.model = fake.oem_version = fake.camera_name = Bytes(200, 'x');
  fake.spt_version = fake.http_url = fake.last_alias = Bytes(200, 'x');
  const Bytes x63 = Bytes(63, 'x') + '\0';
  const Bytes x31 = Bytes(31, 'x') + '\0';
  EXPECT_EQ(payload(op_survey).substr(0, 192), x63 + x63 + x31 + x31);
  EXPECT_EQ(payload(op_survey).substr(204, 64), x63);
  EXPECT_EQ(payload(op_spt_survey).substr(0, 294), x63 + x31 + x31 + x31 + own + x63 + x63);
  EXPECT_EQ(outcome(request(op_get_url)), answer(0, x63));
  EXPECT_EQ(outcome(as_admin(op_get_alias)), answer(0, x63));

  fake.always["srv_get_skyport_last_alias_name"] = 0;
  EXPECT_EQ(outcome(as_admin(op_get_alias)), answer(1, Bytes(64, '\0')));
  fake.decide = [](const char*) { return 0; };
  fake.unix_time_s = 0;
  EXPECT_EQ(outcome(request(op_get_url)), answer(1, Bytes(64, '\0')));
  EXPECT_EQ(payload(op_survey).substr(0, 276),
            Bytes(198, '\0') + hex("0a0b0c0d0e0f") + Bytes(64, '\0') + hex("7f000001 00000000"));
  EXPECT_EQ(payload(op_survey).substr(292), hex("00") + "19700101020000" + Bytes(5, '\0'));
  EXPECT_EQ(payload(op_spt_survey), Bytes(160, '\0') + own + Bytes(128, '\0') + hex("7f000001 0000 00 000000"));
}

TEST_F(FinderTest, FirstAndLastDnsServer) {
  if (!own_etc) GTEST_SKIP() << "this machine allows no /etc of our own";
  start();
  const auto servers = [&] { return payload(op_survey).substr(284, 8); };
  const std::pair<const char*, const char*> rows[] = {
      {"", "0000000000000000"},
      {"nameserver 192.0.2.1\n", "c000020100000000"},
      {"nameserver 192.0.2.7\n", "c000020700000000"},
      {"nameserver 192.0.2.1\nnameserver 192.0.2.2", "c0000201c0000202"},
      {"nameserver 192.0.2.1\nnameserver 192.0.2.2\nnameserver 192.0.2.3\nnameserver 192.0.2.4\n", "c0000201c0000204"},
      {"# dns\nsearch a.test b.test\n\tnameserver\t192.0.2.1 # x\noptions\nnameserver\n", "c000020100000000"},
      {"nameserver 2001:db8::1\nnameserver router\nnameserver 192.0.2.1\n", "c000020100000000"},
      {"Nameserver 192.0.2.1\nnameservers 192.0.2.2\n#nameserver 192.0.2.3\n", "0000000000000000"}};
  for (const auto& [file, wanted] : rows) {
    write_file("/etc/resolv.conf", file);
    EXPECT_EQ(servers(), hex(wanted)) << file;
  }
  unlink("/etc/resolv.conf");
  EXPECT_EQ(servers(), Bytes(8, '\0'));
  // A file that has long been as it is may be remembered, until another takes its place.
  fake.unix_time_s = std::chrono::system_clock::to_time_t(std::chrono::system_clock::now()) + 100;
  for (const char* last : {"c0000205", "c0000206", "c0000207"}) {
    write_file("/etc/resolv.new", std::string("nameserver 192.0.2.") + last[7]);
    rename("/etc/resolv.new", "/etc/resolv.conf");
    for (int i = 0; i < 2; ++i) EXPECT_EQ(servers(), hex(last) + Bytes(4, '\0'));
  }
}

TEST_F(FinderTest, SelfConfigurationOfEveryStateAndResult) {
  start();
  std::map<int, std::size_t> conf{{LumenDevDone, 2}, {LumenDevNotReady, 3}, {LumenDevPartDone, 4}};  // else 1
  std::map<int, std::size_t> reasons{{IpReady, 1}, {PublicMode, 2},   {NoUPnP, 3},     {UPnP, 4},
                                     {NATM, 5},    {UpnpPfFailed, 6}, {UpnpPfReady, 7}};  // else 0
  constexpr std::size_t details[] = {4, 0, 3, 0, 0};  // by update result; the last has no meaning
  for (int i = 0; i < 18 * 18 * 5 * 2; ++i) {
    ctx.state = static_cast<RegState>(i % 18);  // UNKNOWN, the last, too
    ctx.prefinal_state = static_cast<RegState>(i / 18 % 18);
    ctx.upd.resut = static_cast<std::uint32_t>(i / (18 * 18) % 5);
    fake.enabled = static_cast<char>(i / (18 * 18 * 5));
    const std::size_t state = conf.contains(ctx.state) ? conf[ctx.state] : 1;
    const std::size_t detail = fake.enabled == 0 ? 2 : details[ctx.upd.resut];
    ASSERT_EQ(outcome(request(op_self_conf_result)),
              words(0, state, state == 1 ? 0 : reasons[ctx.prefinal_state], state == 3 ? detail : 0))
        << i;
  }
}

// ---- Settings ----

TEST_F(FinderTest, ServiceSwitch) {
  const auto off = [] { fake.enabled = 0; };
  const auto to = [](const char* arg) { return as_admin(op_set_enable, hex(arg)); };
  const auto failing = [](const char* function, int result) { return [=] { fake.always[function] = result; }; };
  const Texts signal{"kill 4711 USR1"};
  const Texts turned_off{"cre_set_skyport_enable_state 0", "kill 4711 USR1"};
  const Case rows[] = {
      {"off", nullptr, to("00"), words(0, 0), turned_off},
      {"on", off, to("01"), words(0, 0), {"cre_set_skyport_enable_state 1", "kill 4711 USR1"}},
      {"on already, and signalled all the same", nullptr, to("01"), words(0, 0), signal},
      {"off already", off, to("00"), words(0, 0), signal},
      {"only one byte is read", nullptr, to("00ff"), words(0, 0), turned_off},
      {"refused by the store", failing("cre_set_skyport_enable_state", 0), to("00"), words(1, 0), {turned_off[0]}},
      {"stored, though it says not", failing("cre_set_skyport_enable_state", silent_success), to("00"), words(0, 0),
       turned_off},
      {"not known",
       failing("cre_get_skyport_enable_state", 0),
       to("01"),
       words(0, 0),
       {"cre_set_skyport_enable_state 1", "kill 4711 USR1"}},
      {"no argument is no off", nullptr, to(""), words(1, 1)},
      {"neither on nor off", nullptr, to("02"), words(1, 1)},
      {"the digit", off, to("31"), words(1, 1)},
      {"query: off", off, request(op_get_enable), words(0, 0)},
      {"query: anything else is on", [] { fake.enabled = 7; }, request(op_get_enable), words(0, 1)}};
  for (const Case& row : rows) expect(row);
}

TEST_F(FinderTest, AliasChange) {
  const auto to = [](const Bytes& alias) { return as_admin(op_set_alias, alias); };
  const auto state = [](char value) { return [=] { fake.alias_status = value; }; };
  const auto failing = [](const char* function) { return [=] { fake.always[function] = 0; }; };
  const auto taken = [](const Bytes& alias) {
    return Texts{"srv_update_aliasname_status " + alias + " 1", "kill 4711 USR2"};
  };
  const Bytes longest(63, 'a');
  const Case rows[] = {
      {"after an accepted one", nullptr, to(hex("79617264 00 6a756e6b")), words(0, 0, 2), taken("yard")},
      {"after a duplicate, not terminated", state(ALIAS_DUPLICATE), to("yard"), words(0, 0, 2), taken("yard")},
      {"the first of all", state(0), to("yard"), words(0, 0, 2), taken("yard")},
      {"to none: not counted", state(ALIAS_FAILED), to(hex("00")), words(0, 0, 1), taken("")},
      {"while one is pending", state(ALIAS_REQUESTED), to("yard"), words(1, 2, 1)},
      {"in an unknown state", failing("srv_get_skyport_alias_status"), to("yard"), words(0, 0, 2), taken("yard")},
      {"longest", nullptr, to(longest), words(0, 0, 2), taken(longest)},
      {"too long", nullptr, to(longest + 'b'), words(1, 0, 2)},
      {"up to the end of the buffer", nullptr, to(Bytes(finder_arg_len, 'a')), words(1, 0, 2)},
      {"not stored", failing("srv_update_aliasname_status"), to("yard"), words(1, 0, 2), {taken("yard")[0]}}};
  for (const Case& row : rows) {
    expect(row);
    EXPECT_EQ(finder.alias.last_alias, row.changes.size() < 2 ? "" : fake.alias) << row.name;
  }
  for (std::size_t handle = 2; handle <= 1026; ++handle) {  // on from 1, to 1024 and back to 1
    fake.always.clear();
    fake.alias_status = ALIAS_OK;
    EXPECT_EQ(outcome(to("a")), words(0, 0, handle < 1024 ? handle + 1 : handle - 1023));
  }
}

TEST_F(FinderTest, AliasStatus) {
  const auto given = [](const char* stored, const char* set_here, char state, const char* failing = "") {
    return [=] {
      fake.alias = stored;
      std::strcpy(finder.alias.last_alias, set_here);
      fake.alias_status = state;
      fake.always[failing] = 0;
    };
  };
  const Bytes query = as_admin(op_alias_status);
  const Bytes mismatch = words(1, 3);
  const Bytes pending = words(0, 0, 2);
  const char longest[] = "a-name-of-thirty-one-characters";
  const Case rows[] = {
      {"accepted", given("yard", "yard", ALIAS_OK), query, words(0, 0)},
      {"duplicate", given("yard", "yard", ALIAS_DUPLICATE), query, words(1, 2)},
      {"failed", given("yard", "yard", ALIAS_FAILED), query, words(1, 1)},
      {"pending", given("yard", "yard", ALIAS_REQUESTED), query, pending},
      {"never set", given("yard", "yard", 0), query, pending},
      {"other case", given("yard", "Yard", ALIAS_OK), query, mismatch},
      {"after a restart", given("yard", "", ALIAS_REQUESTED), query, mismatch},
      {"none, after a restart", given("", "", ALIAS_OK), query, words(0, 0)},
      {"the store's longest", given(longest, longest, ALIAS_OK), query, words(0, 0)},
      {"state not known", given("yard", "yard", ALIAS_OK, "srv_get_skyport_alias_status"), query, pending},
      {"name not known", given("yard", "yard", ALIAS_OK, "srv_get_skyport_alias_name"), query, mismatch}};
  for (const Case& row : rows) expect(row);
}

TEST_F(FinderTest, DomainChangeAnswersBeforeItEndsTheDaemons) {
  const auto to = [](const Bytes& domain) { return as_admin(op_set_domain, domain); };
  const auto taken = [](const Bytes& domain) {
    return Texts{"cre_set_skyport_domain " + domain, "run_shell killall -9 relayd", "run_shell killall -9 kestreld"};
  };
  const Bytes longest(63, 'd');
  const Bytes done = words(0, 0, 0, 30000);
  int answered_before = 0;
  const auto watch = [&] {
    fake.on_call = [&](const std::string& call) {
      char byte = 0;
      if (call.starts_with("run_shell") && recv(client, &byte, 1, MSG_DONTWAIT | MSG_PEEK) == 1) ++answered_before;
    };
  };
  const Case rows[] = {
      {"empty", watch, to(hex("00 78")), words(1, 1, 0, 30000)},
      {"the same", watch, to("skyport.test"), done},
      {"another", watch, to("x.test" + hex("00 78")), done, taken("x.test")},
      {"refused by the store",
       [&] { watch(), fake.always["cre_set_skyport_domain"] = 0; },
       to("x.test"),
       words(1, 1, 0, 30000),
       {taken("x.test")[0]}},
      {"stored, though it says not", [&] { watch(), fake.always["cre_set_skyport_domain"] = silent_success; },
       to("x.test"), done, taken("x.test")},
      {"in other case", watch, to("Skyport.test"), done, taken("Skyport.test")},
      {"longest", watch, to(longest), done, taken(longest)},
      {"too long", watch, to(longest + "d"), words(1, 1, 0, 30000)}};
  for (const Case& row : rows) expect(row);
  EXPECT_EQ(answered_before, 8);
}

// ---- Interfaces and sockets ----

TEST_F(FinderTest, FourUsableInterfacesAtMost) {
  fake.metrics = {{0, "down0"},           {0, "eth0"}, {0, "bare0"}, {0, "eth1"}, {0, "eth2"},
                  {0, "a-name-of-15-ch"}, {0, "eth4"}};
  for (const char* name : {"eth0", "eth1", "eth2", "a-name-of-15-ch", "eth4"})
    fake.binary_interfaces[name] = interface("10.0.0.1");
  fake.binary_interfaces["bare0"] = interface("0.0.0.0");
  ASSERT_EQ(get_ifinfo(), 4);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(finder.served.act_if[i].name, "eth" + std::to_string(i));
  EXPECT_STREQ(finder.served.act_if[3].name, "a-name-of-15-ch");
}

TEST_F(FinderTest, WhatCannotBeSetUpIsSaidAndTheRestIsServed) {
  const std::pair<const char*, std::function<void()>> rows[] = {
      {"Interface incorrect\n", [] { fake.interface_index = 0; }},
      {"Interface incorrect\n", [] { fake.binary_interfaces.clear(); }},
      {"SO_BINDTODEVICE:ERROR\n",
       [] {
         fake.metrics.push_back({0, "gone0"}), fake.binary_interfaces["gone0"] = interface("10.0.0.1");
       }},
      {"bind error\n", [] { hold_port(true); }}};
  for (const auto& [said, given] : rows) {
    TearDown();
    SetUp();
    given();
    EXPECT_EQ(Finderd_init(), 0);
    EXPECT_EQ(fake.console, Texts{said});
    EXPECT_TRUE(fake.metrics.size() == 1 || outcome(request(op_survey)) != silence);
    Finderd_DST();
    for (const int fd : finder.fd) EXPECT_EQ(fd, -1);
  }
  hold_port(false);
}

TEST_F(FinderTest, WhatComesWithADatagramForgesNoLine) {
  start();
  const Bytes forged = "a\nKLOG  authority 1\n\x1b[2J\x9b\xc3\xa9";
  exchange(as_user(op_list, forged, forged));
  exchange(request(op_list, text("x\r\ny", 64) + text("", 64)));
  std::string log;
  for (const std::string& line : fake.log) log += line;
  EXPECT_NE(log.find("username x??y\n"), log.npos);
  exchange(as_user(op_list, "admin", forged));
  EXPECT_EQ(fake_logged("password 'a?KLOG  authority 1??[2J?\xc3\xa9'"), 1U);
  EXPECT_EQ(fake_logged("  authority 1\n"), 0U);
}

TEST_F(FinderTest, PasswordsAreCheckedTwentyTimesAndThenTenTimesASecond) {
  start();
  const auto served = [&](std::size_t opcode, int tries) {
    int replies = 0;
    for (int i = 0; i < tries; ++i) {
      const Bytes asked = opcode == op_survey ? request(opcode) : as_user(opcode, "admin", "guess");
      send(client, asked.data(), asked.size(), 0);
      Finderd_handle_request();
      replies += receive().empty() ? 0 : 1;
    }
    return replies;
  };
  const std::uint64_t begun = finder_now_ms();
  finder.checks = {0, begun - 2000};
  const int first = served(op_list, 50);
  EXPECT_GE(first, 20);
  EXPECT_LE(first, 20 + static_cast<int>(finder_now_ms() - begun) / 100 + 1);
  EXPECT_EQ(served(op_survey, 100), 100);
  finder.checks = {0, finder_now_ms() - 350};
  EXPECT_EQ(served(0x0999, 3), 3);
  EXPECT_LE(served(op_set_enable, 50), 1);
}

TEST_F(FinderTest, ChangedInterfacesAreServedAnew) {
  if (!own_etc) GTEST_SKIP() << "needs a network of its own";
  const auto set = [](const char* what) { return [=] { ASSERT_EQ(std::system(what), 0) << what; }; };
  const auto address = [](const char* ip) { return [=] { fake.binary_interfaces["lo"] = interface(ip); }; };
  const struct {
    const char* what;
    std::function<void()> given, changed;
    int before;  // of Finderd_init
    Texts console;
    bool set_up_again;
  } rows[] = {
      {"nothing", nullptr, nullptr, 1, {}, false},
      {"an address", nullptr, address("127.0.0.5"), 1, {}, true},
      {"an address at last", address("0.0.0.0"), address("127.0.0.1"), 0, {"Interface incorrect\n"}, true},
      {"an address that goes", nullptr, address("0.0.0.0"), 1, {"Interface incorrect\n"}, true},
      {"no address for long", address("0.0.0.0"), nullptr, 0, {"Interface incorrect\n"}, false},
      {"the camera's own MAC", nullptr, [] { std::strcpy(fake.interfaces[0].mac, "02:00:5e:aa:bb:cd"); }, 1, {}, true},
      {"a port that was taken", [&] { hold_port(true); }, [&] { hold_port(false); }, 0, {"bind error\n"}, false},
      {"a device made anew",
       [] {
         ASSERT_EQ(std::system("ip link add kt0 type veth peer name kt1"), 0);
         fake.metrics = {{0, "kt0"}}, fake.binary_interfaces["kt0"] = interface("10.0.0.1");
       },
       set("ip link del kt0 && ip link add kt0 type veth peer name kt1"),
       1,
       {},
       true},
  };
  for (const auto& row : rows) {
    TearDown();
    SetUp();
    if (row.given) row.given();
    EXPECT_EQ(Finderd_init(), row.before) << row.what;
    finder.alias.alias_handle = 7;
    if (row.changed) row.changed();
    for (int i = 0; i < 3; ++i) refresh_sockets();
    EXPECT_EQ(fake.console, row.console) << row.what;
    EXPECT_EQ(fake_logged(" In get_ifinfo: "), row.set_up_again ? 2U : 1U) << row.what;
    const bool can = fake.metrics[0].name == std::string("lo") && fake.binary_interfaces["lo"].ip != 0;
    if (can) {
      EXPECT_EQ(exchange(request(op_survey, "", everybody)).size(), 334U) << row.what;
    }
    EXPECT_EQ(finder.fd[0] >= 0, fake.binary_interfaces["lo"].ip != 0) << row.what;
    EXPECT_EQ(finder.alias.alias_handle, 7U) << row.what;
    if (!can) static_cast<void>(std::system("ip link del kt0 2>/dev/null"));
  }
}

// ---- The loop ----

TEST_F(FinderTest, DatagramsDoNotKeepTheReportsBackNorOneSocketTheOthers) {
  start();
  fake.unix_time_s = 1;
  std::uint64_t now = 1'000'000;
  finder_clock = [&] { return now; };
  int selects = 0;
  std::vector<int> reported_at;
  // A datagram every 5 s, on both sockets; the second one's is answered too.
  finder.served.iIfNum = 2;
  finder.served.ifinfo[1] = finder.served.ifinfo[0];
  finder.fd[1] = finder.fd[0];
  finder.fd[0] = dup(finder.fd[1]);
  Texts replies;
  on_select = [&](int, const timeval&) {
    now += 5000;
    if (++selects == 40) store_word(ctx.run, 0U);
    const Bytes asked = request(op_get_enable);
    for (int i = 0; i < 2; ++i) send(client, asked.data(), asked.size(), 0);
    for (Bytes reply; !(reply = receive()).empty();) replies.push_back(reply);
    return 2;
  };
  on_report = [&](const DeviceContext*, AuthenticateInfo&, char*) {
    reported_at.push_back(selects * 5);
    return request_ok;
  };
  Finderd_loop();
  finder_clock = nullptr;
  EXPECT_EQ(reported_at, (std::vector{60, 120, 180}));
  EXPECT_GE(replies.size(), 50U);  // two a turn, until the looks have set up the one socket that there is
}

TEST_F(FinderTest, ATimeOutSendsTheConnectionReportOneToFourTimes) {
  const std::string again = "authentication needed";
  constexpr int challenged = request_challenged;
  const std::pair<std::deque<int>, Texts> rows[] = {
      // results of the reports; the last report's text, as each got it
      {{request_ok}, {"init"}},
      {{request_no_answer}, {"init"}},
      {{challenged, request_ok}, {"init", again}},
      {{challenged, challenged, 500}, {"init", again, again}},
      // The fourth is the last, whatever it says; the next time-out goes on from its text.
      {{challenged, challenged, challenged, challenged, challenged, request_ok},
       {"init", again, again, again, "record 4", again}}};
  fake.metrics.clear();
  for (const int select_result : {0, -1}) {
    for (const auto& [scripted, wanted] : rows) {
      ctx.run = 1;
      ctx.auth_info.nc = 5;
      Finderd_take_auth(ctx.auth_info);
      ctx.auth_info.nc = 99;
      std::deque<int> results = scripted;
      Texts texts;
      on_select = [&](int nfds, const timeval& limit) {
        EXPECT_EQ(nfds, 1);  // no socket is open
        EXPECT_EQ(limit.tv_sec * 1000000 + limit.tv_usec, 15000000);
        return select_result;
      };
      on_report = [&](const DeviceContext* record, AuthenticateInfo& auth, char* last_report) {
        EXPECT_EQ(record, &ctx);
        EXPECT_EQ(auth.nc++, 5 + texts.size());  // of the finder's own
        texts.emplace_back(last_report);
        std::strcpy(last_report, ("record " + std::to_string(texts.size())).c_str());
        const int result = results.front();
        results.pop_front();
        if (results.empty()) store_word(ctx.run, 0U);
        return result;
      };
      Finderd_loop();
      EXPECT_EQ(texts, wanted);
    }
  }
}

/// Datagrams of every kind while the main thread writes the record; the thread sanitizer watches.
TEST_F(FinderTest, AStormWhileTheRecordIsWritten) {
  start();
  std::thread finder_thread(Finderd_loop);
  std::thread main_thread([&] {
    for (int i = 0; load_word(ctx.run) != 0; ++i) {
      set_state(ctx, static_cast<RegState>(i % 18));
      store_word(ctx.prefinal_state, static_cast<RegState>(i % 17));
      set_update_result(ctx, static_cast<UpdateResult>(i % 4));
      store_word(ctx.pid, i);
    }
  });
  constexpr std::size_t open[] = {op_survey, op_self_conf_result, op_spt_survey, op_get_enable};
  constexpr std::size_t checked[] = {op_set_enable, op_set_alias, op_set_domain};
  for (std::size_t round = 0; round < 1500; ++round) {
    const Bytes garbage(round % 1200, static_cast<char>(round));
    send(client, garbage.data(), garbage.size(), 0);
    const Bytes asked = as_admin(round % 100 == 99 ? checked[round / 100 % 3] : open[round % 4], number(round, 1))
                            .replace(at_tag, 2, number(round, 2));
    send(client, asked.data(), asked.size(), 0);
    pollfd ready{client, POLLIN, 0};
    const Bytes reply = poll(&ready, 1, 5000) == 1 ? receive() : Bytes(finder_header_len, '\0');
    EXPECT_EQ(reply.substr(0, at_mac), hex("eefe") + asked.substr(at_tag, 4));
    EXPECT_EQ(reply.substr(at_length, 2), number(reply.size() - finder_header_len, 2));
  }
  store_word(ctx.run, 0U);
  send(client, "", 0, 0);
  main_thread.join();
  finder_thread.join();
}

}  // namespace

}  // namespace kestrel
