// finder/: requests and replies of the LAN protocol over a real socket on loopback, on the fake platform. A request is
// sent, handled by a direct call, and its reply is there: nothing sleeps.
#include <arpa/inet.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/time.h>

#include <algorithm>
#include <csignal>
#include <limits>
#include <thread>

#include "fake_platform/fixture.h"
#include "finder/finder.h"
#include "finder/operations.h"
#include "finder/packet.h"
#include "finder/record.h"
#include "service/requests.h"
#include "service/transaction.h"
#include "support/child.h"
#include "support/nettle_cipher.h"

// ---- What the finder calls outside of the platform ----

constexpr int really = -2;  // goes on to the system's

static std::function<int(int nfds, const timeval& limit)> on_select;
static std::function<int(const kestrel::DeviceContext*, AuthenticateInfo& auth, char* last_report)> on_report;
constexpr int bind_itself = -1;
static int failing, send_result;                  // of setsockopt, or bind_itself; of sendto
static std::map<int, int> options;                // that setsockopt was asked for
static std::uint64_t now_ms = 1'000'000'000'000;  // in the place of the monotonic clock

extern "C" int kill(pid_t pid, int number) noexcept {
  fake_record("kill " + std::to_string(pid) + (number == SIGUSR1 ? " USR1" : number == SIGUSR2 ? " USR2" : " other"));
  return 0;
}
extern "C" int clock_gettime(clockid_t clock, timespec* now) noexcept {
  if (clock != CLOCK_MONOTONIC) return static_cast<int>(syscall(SYS_clock_gettime, clock, now));
  *now = {static_cast<time_t>(now_ms / 1000), static_cast<long>(now_ms % 1000 * 1'000'000)};
  return 0;
}
extern "C" int setsockopt(int fd, int level, int option, const void* value, socklen_t len) noexcept {
  if (option != SO_BINDTODEVICE) std::memcpy(&options[option], value, sizeof(int));
  return option == failing ? -1 : static_cast<int>(syscall(SYS_setsockopt, fd, level, option, value, len));
}
extern "C" int bind(int fd, const sockaddr* at, socklen_t len) noexcept {
  return failing == bind_itself ? -1 : static_cast<int>(syscall(SYS_bind, fd, at, len));
}
extern "C" ssize_t sendto(int fd, const void* data, std::size_t len, int flags, const sockaddr* to, socklen_t to_len) {
  errno = EAGAIN;
  return send_result != really ? send_result : syscall(SYS_sendto, fd, data, len, flags, to, to_len);
}
extern "C" int select(int nfds, fd_set* reads, fd_set* writes, fd_set* excepts, timeval* limit) {
  const int result = on_select(nfds, *limit);
  const timespec until{limit->tv_sec, limit->tv_usec * 1000};
  return result != really ? result : pselect(nfds, reads, writes, excepts, &until, nullptr);
}
extern "C" int poll(pollfd* look, nfds_t count, int limit_ms) {
  if (count == 0) fake_record("pause " + std::to_string(limit_ms));
  const timespec until{limit_ms / 1000, limit_ms % 1000 * 1'000'000};
  return count == 0 ? 0 : ppoll(look, count, &until, nullptr);
}

namespace kestrel {

int conn_report(DeviceContext* ctx, AuthenticateInfo* auth, char* last_report) {
  return on_report(ctx, *auth, last_report);
}

namespace {

/// A world of its own, where that is allowed: the port is free there, and network and /etc can be changed.
bool own_world = false;

bool shell(const std::string& command) {
  return std::system((command + " >/dev/null 2>&1").c_str()) == 0;
}

class World : public ::testing::Environment {
  void SetUp() override {
    own_world = own_namespaces(CLONE_NEWNET) && own_folder("/etc") && shell("ip link set lo up");
    const rlimit descriptors{4096, 4096};
    setrlimit(RLIMIT_NOFILE, &descriptors);
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
Bytes joined(const Texts& lines) {
  Bytes all;
  for (const Bytes& line : lines) all += line;
  return all;
}

const Bytes own = hex("02905eaabfcc");
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
  const in_addr_t mask = inet_addr("255.0.0.0"), gateway = inet_addr("10.1.2.254");
  return {{0x0A, 0x0B, 0x0C, 0x0D, 0x0E, 0x0F}, {}, inet_addr(ip), mask, 0, gateway};
}

using Given = std::function<void()>;

/// A request in a world that begins anew, what it changes there, and a part of what is logged meanwhile.
struct Case {
  const char* name;
  Given given;
  Bytes request;
  Bytes outcome;
  Texts changes{};
  const char* logged = "";
};

int lowest_free() {
  const int fd = dup(STDERR_FILENO);
  close(fd);
  return fd;
}

Given result(const char* function, int of) {
  return [=] { fake.always[function] = of; };
}

class FinderTest : public FakeTest {
 protected:
  void SetUp() override {
    FakeTest::SetUp();
    setenv("TZ", "XXX-2", 1);  // two hours ahead of UTC
    if (own_world) write_file("/etc/resolv.conf", "nameserver 192.0.2.1\nnameserver 9.9.9.9\nnameserver 192.0.2.3\n");
    on_select = [](int, const timeval&) { return really; };
    on_report = [](const DeviceContext*, AuthenticateInfo&, char*) { return request_ok; };
    send_result = really;
    failing = 0;
    fake.interfaces = {ACT_IF_INFO{"", "02:90:5e:aA:Bf:cc", "", "", ""}};
    fake.metrics = {{0, "lo"}};
    fake.binary_interfaces["lo"] = interface("127.0.0.1");
    fake.http_port = 50080;
    fake.https = fake.dst = 1;
    fake.timezone = "\x34\x12";
    fake.alias = "porch";
    fake.last_alias = "front";
    fake.users = {"bob", "", "guardian-of-the-gate"};
    fake.on_call = [](const std::string& call) {  // what is done stands among what is said
      if (std::ranges::any_of(changes, [&](const char* change) { return call.starts_with(change); })) {
        fake.log.push_back('<' + call + ">\n");
      }
    };
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
  void again() {
    TearDown();
    SetUp();
  }

  void start() { ASSERT_EQ(Finderd_init(), 1) << ::testing::PrintToString(fake.console); }

  Bytes receive() const {
    char reply[2048];
    const ssize_t len = recv(client, reply, sizeof(reply), MSG_DONTWAIT);
    return {reply, static_cast<std::size_t>(len > 0 ? len : 0)};
  }
  /// Has a request handled, as long after the last one as pays for a check of its password. Returns the reply, empty
  /// for none.
  Bytes exchange(const Bytes& datagram, std::uint64_t later_ms = 100) const {
    fake.calls.clear();
    fake.log.clear();
    fake.console.clear();
    now_ms += later_ms;
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
    again();
    start();
    if (row.given) row.given();
    EXPECT_EQ(outcome(row.request), row.outcome) << row.name;
    EXPECT_EQ(fake_calls(changes), row.changes) << row.name;
    EXPECT_NE(joined(fake.log).find(row.logged), Bytes::npos) << row.name << '\n' << joined(fake.log);
  }

  static constexpr std::initializer_list<const char*> changes{"cre_set", "srv_update", "srv_set", "kill", "run_shell"};
  DeviceContext ctx{};
  int client = -1;
};

// ---- The wire ----

TEST_F(FinderTest, EveryOperationByteForByteAndLineForLine) {
  start();
  const Bytes credentials = text("YWRtaW4=", 64) + text("cHc=", 64);
  const Bytes looked_up = "Finderd_check_user() >>>\n  b64_username YWRtaW4=\n  username admin\n  user index 0\n";
  const Bytes checked = "Finderd_check_authentication() >>>\nusername YWRtaW4=\n" + looked_up + looked_up +
                        "password 'pw'\n  authority 1\n";
  const Bytes interrupt = "[kestreld_finder]: sending interrupt!!\n";
  const Bytes query = "[kestreld_finder]: ";
  const struct {
    std::size_t opcode;
    Bytes asked, answered;     // payloads
    Bytes before, after = "";  // the log, before and after the reply
    const char* result = "0000";
  } rows[] = {
      {op_survey, "",
       text("Lumen", 64) + text("Eye", 64) + text("LC-100", 32) + text("7.8", 32) +
           hex("0200 78563412 0a0b0c0d0e0f") +              // product type 1, hardware, the interface's own MAC
           text("Porch", 64) + hex("7f000001 a0c3 0000") +  // address, port 50080, zero
           hex("ff000000 0a0102fe c0000201 c0000203 01") +  // mask, gateway, first and last DNS server, DHCP
           "20010909034640" + hex("00 00 3412 01"),         // local time, terminator, zero, timezone, dst
       "Finderd_handle_survey() >>>\n"},
      {op_spt_survey, "",
       text("Lumen", 64) + text("LC-100", 32) + text("7.8", 32) + text("3.0", 32) + own + text("Porch", 64) +
           text("http://porch.skyport.test/", 64) + hex("7f000001 a0c3 01 000000"),
       "Finderd_handle_spt_survey() >>>\n"},
      {op_list, credentials, op_list_answer.substr(6), checked + "Finderd_handle_op_list() >>>\n"},
      {op_get_enable, "", hex("01") + Bytes(15, '\0'), query + "Finderd_get_lumen_device_1_2() >>>\n",
       query + "Finderd_get_lumen_device_1_2() <<<\n"},
      {op_set_enable, credentials + hex("00"), Bytes(16, '\0'),
       checked + "Finderd_set_lumen_device_1_2() >>>\n  error_number 0\n<cre_set_skyport_enable_state 0>\n" +
           interrupt + "<kill 4711 USR1>\n",
       "Finderd_set_lumen_device_1_2(), is_changed 1\n"},
      {op_self_conf_result, "", hex("03000000 06000000 02000000 00000000"),
       query + "Finderd_query_self_conf_result() >>>\n"},
      {op_get_url, "", text("http://porch.skyport.test/", 64), query + "Finderd_get_lumen_device_1_2_url() >>>\n"},
      {op_get_alias, credentials, text("front", 64), checked + query + "Finderd_get_lumen_device_1_2_alias() >>>\n"},
      {op_set_alias, credentials + "yard", hex("00000000 02000000 00000000 00000000"),
       checked + "Finderd_set_lumen_device_1_2_alias() >>>\n<srv_update_aliasname_status yard 1>\n" + interrupt +
           "<kill 4711 USR2>\n  error_number 0\n  handle 2\n",
       "Finderd_set_lumen_device_1_2_alias(), is_changed 1\n"},
      {op_alias_status, credentials, hex("00000000 02000000 00000000 00000000"),
       checked + query + "Finderd_query_alias_status() >>>\n  ret 0\n  error_number 0\n  status 2\n"},
      {op_set_domain, credentials + "x", hex("00000000 00000000 30750000 00000000"),
       checked + " Finderd_set_spt_domain() >>>\n<cre_set_skyport_domain x>\n",
       " Finderd_set_spt_domain(), is_changed: 1, SendTotalSize=38, PayloadSize=16\n"
       " [kestreld_finder]: go to stop relayd and kestreld!!\n"
       "<run_shell killall -9 relayd>\n<run_shell killall -9 kestreld>\n"},
      {op_list, "", Bytes(16, '\0'), "Finderd_check_authentication() >>>\nusername \n", "", "0100"}};
  ctx.state = LumenDevNotReady;  // the service is switched off on the way there
  ctx.prefinal_state = UpnpPfFailed;
  for (const auto& row : rows) {
    const Bytes opcode = number(row.opcode, 2);
    // magic, tag, opcode, MAC, not read, length; magic, tag, opcode, MAC, address, result, flag, length
    const bool to_all = row.opcode == op_survey;
    Bytes reply = exchange(hex("fdfd 0107") + opcode + (to_all ? everybody : own) + hex("0102030405060708") +
                           number(row.asked.size(), 2) + row.asked);
    const Bytes wanted = hex("eefe 0107") + opcode + hex("02905eaabfcc 7f000001") + hex(row.result) + hex("0100") +
                         number(row.answered.size(), 2) + row.answered;
    if (!own_world && to_all) reply.replace(306, 8, wanted, 306, 8);  // this machine's DNS servers
    EXPECT_EQ(reply, wanted) << row.before;
    const Bytes decimal = std::to_string(row.opcode);
    EXPECT_EQ(joined(fake.log),
              " Finderd_handle_request(), recv addr 127.0.0.1\n check_reqmode:\nMyMAC=02:90:5e:aA:Bf:cc\nReqMAC=" +
                  Bytes(to_all ? "FF:FF:FF:FF:FF:FF" : "02:90:5E:AA:BF:CC") + "\n Receive request, opcode " + decimal +
                  "\n" + row.before + "Finderd_send(), sendto: socket=" + std::to_string(finder.fd[0]) +
                  ", iReportSocketIndex=0, len=" + std::to_string(reply.size()) + ", send_addr=127.0.0.1\n" +
                  row.after);
    EXPECT_EQ(joined(fake.console), row.asked.empty() ? "" : "opcode " + decimal + "\n");
  }
}

/// What is no request in any other way is fuzz_finder's matter, and so are what an earlier one leaves
/// behind and how many passwords are checked.
TEST_F(FinderTest, OnlyWhatIsExactlyARequestIsAnswered) {
  start();
  const std::tuple<const char*, Bytes, bool> rows[] = {
      {"nothing", "", false},
      {"bytes that are not read", request(op_survey).replace(12, 8, Bytes(8, '\xff')), true},
      {"everybody", request(op_survey, "", everybody), true},
      {"length that wraps with the header", request(op_survey).replace(at_length, 2, hex("eaff")), false},
      {"1024 bytes, all that fits", request(op_survey, Bytes(1002, 'x')), true},
      {"1025 bytes, cut to its length", request(op_survey, Bytes(1002, 'x')) + "y", true}};
  for (const auto& [name, datagram, answered] : rows) {
    DbgLevel = 0;  // no text is made then that nobody would see
    EXPECT_EQ(!exchange(datagram).empty(), answered) << name;
    DbgLevel = debug_file;
    EXPECT_EQ(!outcome(datagram).empty(), answered) << name;
    EXPECT_EQ(fake_logged("Skip invalid request\n"), answered ? 0 : 1) << name;
  }
  for (const std::size_t opcode :
       {0xA1U, 0xA3U, 0xA5U, 0xD1U, 0xD2U, 0x102U, 0x105U, 0x106U, 0x107U, 0x108U, 0x109U, 0x10AU, 0x999U}) {
    const Bytes credentials = as_admin(opcode).substr(at_user);
    EXPECT_EQ(!exchange(request(opcode, credentials, everybody)).empty(), opcode == 0xA1 || opcode == 0x109) << opcode;
  }
  Finderd_handle_request();  // of a datagram that select saw, and that is gone by now
  EXPECT_EQ(fake.console.back(), "recvfrom: Resource temporarily unavailable\n");
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
  const auto silent = [](const Bytes& password) {
    return [=] { fake.admin_password = password, fake.decide = [](const char*) { return silent_success; }; };
  };
  const Bytes n48(48, 'n');  // fill their fields to the last byte
  const Bytes p48(48, 'p');
  const Bytes forged = "a\nKLOG  authority 1\n\x1b[2J\x9b\xc3\xa0 \x1f\x7e\x7f";
  const char name[] = "  username a?KLOG  authority 1??[2J?\xc3\xa0 ?~?\n";
  const char password[] = "password 'a?KLOG  authority 1??[2J?\xc3\xa0 ?~?'\n  authority 0\n";
  const char third[] = "  user index 3\npassword 'pw'\n  authority 2\n";
  const Case rows[] = {
      {"password's beginning", nullptr, as_user(op_list, "admin", "p"), refused},
      {"longer password", nullptr, as_user(op_list, "admin", "pww"), refused},
      {"empty password that is right", named("admin", ""), as_user(op_list, "admin", ""), op_list_answer},
      {"empty one, not known", unknown("cre_get_power_user_passwd"), as_user(op_list, "admin", ""), refused},
      {"name not known", unknown("cre_get_power_username"), as_user(op_list, "admin", ""), refused},
      {"known to getters that say nothing", silent("p"), as_user(op_list, "admin", "p"), op_list_answer},
      {"to the table's too", silent("pw"), as_user(op_user_probe, "bob", "pw"), silence},
      {"name's beginning", nullptr, as_user(op_list, "adm", "pw"), refused},
      {"longer name, other case", nullptr, as_user(op_list, "Admin1", "pw"), refused},
      {"name alone", nullptr, as_admin(op_list).replace(at_length, 2, number(64, 2)).substr(0, at_password), refused},
      {"name that is no base64", named("", "pw"), raw("!", "cHc="), refused, {}, "  b64_username !\n"},
      {"full fields", named(n48, p48), as_user(op_list, n48, p48), op_list_answer},
      {"user", nullptr, as_user(op_list, "bob", "pw"), refused},
      {"long name, cut by the table", nullptr, as_user(op_user_probe, "guardian-of-the-", "pw"), silence, {}, third},
      {"table of unknown length", result("cre_get_max_user_count", 0), as_user(op_user_probe, "bob", "pw"), refused},
      {"administrator may, in vain", nullptr, as_admin(op_user_probe), silence},
      {"no such operation", nullptr, as_admin(0x0999), silence, {}, "  Unknown opcode, skip this request\n"},
      // Texts of a datagram forge no line of the log and move no terminal.
      {"name of two lines", nullptr, raw("x\r\ny", ""), refused, {}, "username x??y\nFinderd_check_user() >>>\n"},
      {"forged name", nullptr, as_user(op_list, forged, ""), refused, {}, name},
      {"forged password", nullptr, as_user(op_list, "admin", forged), refused, {}, password}};
  for (const Case& row : rows) {
    expect(row);
    EXPECT_EQ(fake_logged("Unknown opcode"), row.outcome == silence ? 1 : 0) << row.name;
  }
}

TEST_F(FinderTest, WhatIsNotThereIsNotTouched) {
  EXPECT_EQ(Finderd_check_user(nullptr, nullptr), 0U);
  char time_text[15];
  EXPECT_EQ(Finderd_get_time(nullptr), 0);
  EXPECT_EQ(Finderd_get_time(time_text), 1);
  FinderReply reply{};
  for (int i = 0; i < 200; ++i) put_bytes(reply, "xx", 2);
  EXPECT_EQ(reply.len, sizeof(reply.bytes));
}

// ---- Queries ----

TEST_F(FinderTest, RepliesTakeWhatThePlatformGives) {
  start();
  for (const auto& [type, code] : {std::pair{'\0', "0100"}, {'\1', "0200"}, {'\2', "0000"}, {'\x7f', "0000"}}) {
    fake.product_type = type;
    EXPECT_EQ(payload(op_survey).substr(192, 2), hex(code));
  }
  setenv("TZ", "XXX-5", 1);  // the zone is changed while the daemon runs, and seen with the next second
  EXPECT_EQ(payload(op_survey).substr(293, 14), "20010909034640");
  ++fake.unix_time_s;
  EXPECT_EQ(payload(op_survey).substr(293, 14), "20010909064641");
  fake.always["gettimeofday"] = -1;
  EXPECT_EQ(outcome(request(op_survey)).substr(0, 2), hex("0100"));
  EXPECT_TRUE(joined(fake.console).starts_with("gettimeofday: "));
  fake.always.clear();
  if (sizeof(std::time_t) > 4) {  // a year that no calendar has
    fake.unix_time_s = std::numeric_limits<long>::max();
    EXPECT_EQ(outcome(request(op_survey)).substr(0, 2), hex("0100"));
    EXPECT_EQ(fake.console, Texts{"localtime: Value too large for defined data type\n"});
    EXPECT_EQ(payload(op_survey).substr(292), hex("01") + Bytes(16, '\0') + hex("341201"));
  }

  fake.http_port = 0x10000 + 50080;
  fake.brand = fake.product = fake.model = fake.oem_version = fake.camera_name = Bytes(200, 'x');
  fake.spt_version = fake.http_url = fake.last_alias = Bytes(200, 'x');
  const Bytes x63 = Bytes(63, 'x') + '\0';
  const Bytes x31 = Bytes(31, 'x') + '\0';
  EXPECT_EQ(payload(op_survey).substr(0, 192), x63 + x63 + x31 + x31);
  EXPECT_EQ(payload(op_survey).substr(204, 72), x63 + hex("7f000001 a0c3 0000"));
  EXPECT_EQ(payload(op_spt_survey).substr(0, 294), x63 + x31 + x31 + x31 + own + x63 + x63);
  EXPECT_EQ(outcome(request(op_get_url)), answer(0, x63));
  EXPECT_EQ(outcome(as_admin(op_get_alias)), answer(0, x63));

  // A platform that knows nothing: what a getter says, and what it leaves alone.
  fake.always["srv_get_skyport_last_alias_name"] = 0;
  EXPECT_EQ(outcome(as_admin(op_get_alias)), answer(1, Bytes(64, '\0')));
  fake.decide = [](const char*) { return 0; };
  fake.unix_time_s = 0;
  EXPECT_EQ(outcome(request(op_get_url)), answer(1, Bytes(64, '\0')));
  EXPECT_EQ(outcome(request(op_get_enable)), words(0, 0));
  ctx.state = LumenDevNotReady;
  EXPECT_EQ(outcome(request(op_self_conf_result)), words(0, 3, 0, 2));
  EXPECT_EQ(payload(op_survey).substr(0, 276),
            Bytes(198, '\0') + hex("0a0b0c0d0e0f") + Bytes(64, '\0') + hex("7f000001 00000000"));
  EXPECT_EQ(payload(op_survey).substr(292), hex("00") + "19700101050000" + Bytes(5, '\0'));
  EXPECT_EQ(payload(op_spt_survey), Bytes(160, '\0') + own + Bytes(128, '\0') + hex("7f000001 0000 00 000000"));
}

TEST_F(FinderTest, FirstAndLastDnsServer) {
  if (!own_world) GTEST_SKIP() << "this machine allows no /etc of our own";
  start();
  const auto servers = [&](std::uint64_t later_ms) {
    return exchange(request(op_survey), later_ms).substr(finder_header_len + 284, 8);
  };
  const std::tuple<const char*, const char*, std::size_t> rows[] = {
      {"", "0000000000000000", 0},
      {"nameserver 1.2.3.4\nnameserver 192.0.2.2\nnameserver 192.0.2.3\nnameserver 192.0.2.4", "01020304c0000204", 0},
      {"# dns\nsearch a.test b.test\n\tnameserver\t192.0.2.1 # x\noptions\nnameserver\n", "c000020100000000", 0},
      {"nameserver 2001:db8::1\nnameserver router\nnameserver 192.0.2.1\n", "c000020100000000", 2},
      {"Nameserver 192.0.2.1\nnameservers 192.0.2.2\n#nameserver 192.0.2.3\n", "0000000000000000", 0}};
  const int free = lowest_free();
  for (const auto& [file, wanted, errors] : rows) {
    write_file("/etc/resolv.conf", file);
    EXPECT_EQ(servers(5), hex(wanted)) << file;
    EXPECT_EQ(fake.console.size(), errors) << file;
    for (const std::string& line : fake.console) EXPECT_TRUE(line.starts_with("Finderd_get_dns: ")) << line;
  }
  EXPECT_EQ(lowest_free(), free) << "the file is closed";
  write_file("/etc/resolv.conf", "nameserver 192.0.2.1\n");
  EXPECT_EQ(servers(4), Bytes(8, '\0'));
  EXPECT_EQ(servers(1), hex("c000020100000000"));
  unlink("/etc/resolv.conf");
  EXPECT_EQ(servers(5), Bytes(8, '\0'));
  EXPECT_EQ(fake.console, Texts{"Finderd_get_dns: No such file or directory\n"});
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

TEST_F(FinderTest, Settings) {
  const auto enable = [](const char* arg) { return as_admin(op_set_enable, hex(arg)); };
  const auto alias = [](const Bytes& arg) { return as_admin(op_set_alias, arg); };
  const auto domain = [](const Bytes& arg) { return as_admin(op_set_domain, arg); };
  const auto off = [] { fake.enabled = 0; };
  const auto state = [](char value) { return [=] { fake.alias_status = value; }; };
  const auto aliases = [](const char* stored, const char* set_here, char status, const char* failing = "") {
    return [=] {
      fake.alias = stored, fake.alias_status = status, fake.always[failing] = 0;
      std::strcpy(finder.alias.last_alias, set_here);
    };
  };
  const Texts signal{"kill 4711 USR1"}, on{"cre_set_skyport_enable_state 1", "kill 4711 USR1"};
  const Texts to_off{"cre_set_skyport_enable_state 0", "kill 4711 USR1"};
  const auto named = [](const Bytes& to) {
    return Texts{"srv_update_aliasname_status " + to + " 1", "kill 4711 USR2"};
  };
  const auto moved = [](const Bytes& to) {
    return Texts{"cre_set_skyport_domain " + to, "run_shell killall -9 relayd", "run_shell killall -9 kestreld"};
  };
  const char set_enable[] = "cre_set_skyport_enable_state", set_domain[] = "cre_set_skyport_domain";
  const char refused_log[] = "<cre_set_skyport_enable_state 0>\n  error_number 1\n";
  const char status_error[] = "[kestreld] *** srv_get_skyport_alias_status error\n";
  const char name_error[] = "[kestreld] *** srv_get_skyport_alias_name error\n";
  const Bytes x63(63, 'x'), status = as_admin(op_alias_status), done = words(0, 0), counted = words(0, 0, 2);
  const Bytes pending = words(0, 0, 2), mismatch = words(1, 3), same = words(0, 0, 0, 30000);
  const Bytes no_domain = words(1, 1, 0, 30000);
  const Case rows[] = {
      {"on", off, enable("01"), done, on},
      {"on already, and signalled all the same", nullptr, enable("01"), done, signal, "is_changed 0\n"},
      {"switch that the store refuses", result(set_enable, 0), enable("00"), words(1, 1), {to_off[0]}, refused_log},
      {"stored, though it says not", result(set_enable, silent_success), enable("00"), done, to_off},
      {"known to a getter that says not", result("cre_get_skyport_enable_state", silent_success), enable("01"), done,
       signal},
      {"not known", result("cre_get_skyport_enable_state", 0), enable("01"), done, on},
      {"neither on nor off", nullptr, enable("02"), words(1, 1), {}, "  error_number 1\n"},
      {"no argument", nullptr, enable(""), words(1, 1)},
      {"query: anything else is on", [] { fake.enabled = 7; }, request(op_get_enable), words(0, 1)},

      {"alias: not all of the argument", nullptr, alias(hex("79617264 00 6a756e6b")), counted, named("yard")},
      {"to none: not counted", state(ALIAS_FAILED), alias(hex("00")), words(0, 0, 1), named("")},
      {"while one is pending", state(ALIAS_REQUESTED), alias("yard"), words(1, 2, 1), {}, "is_changed 0\n"},
      {"in an unknown state", result("srv_get_skyport_alias_status", 0), alias("x"), counted, named("x"), status_error},
      {"longest", nullptr, alias(x63), counted, named(x63)},
      {"too long", nullptr, alias(x63 + "x"), words(1, 0, 2)},
      {"not stored", result("srv_update_aliasname_status", 0), alias("x"), words(1, 0, 2), {named("x")[0]}},

      {"alias accepted", aliases("yard", "yard", ALIAS_OK), status, done},
      {"duplicate", aliases("yard", "yard", ALIAS_DUPLICATE), status, words(1, 2)},
      {"failed", aliases("yard", "yard", ALIAS_FAILED), status, words(1, 1), {}, "  ret 1\n  error_number 1\n"},
      {"never set", aliases("yard", "yard", 0), status, pending},
      {"mismatch, by the store", aliases("yard", "yard", 3), status, mismatch},
      {"name not known", aliases("x", "x", ALIAS_OK, "srv_get_skyport_alias_name"), status, mismatch, {}, name_error},

      {"empty domain", nullptr, domain(hex("00 78")), no_domain, {}, " error_number: 1\n"},
      {"the same", nullptr, domain("skyport.test"), same, {}, "is_changed: 0, "},
      {"not all of the argument", nullptr, domain("x.test" + hex("00 78")), same, moved("x.test")},
      {"refused by the store", result(set_domain, 0), domain("x"), no_domain, {moved("x")[0]}},
      {"stored, though it says not", result(set_domain, silent_success), domain("x"), same, moved("x")},
      {"longest domain", nullptr, domain(x63), same, moved(x63)},
      {"too long", nullptr, domain(x63 + "x"), no_domain}};
  for (const Case& row : rows) expect(row);
  for (std::size_t handle = 2; handle <= 1026; ++handle) {  // on from 1, to 1024 and back to 1
    fake.alias_status = ALIAS_OK;
    EXPECT_EQ(outcome(alias("a")), words(0, 0, handle < 1025 ? handle : handle - 1024));
  }
}

// ---- Interfaces and sockets ----

TEST_F(FinderTest, FourUsableInterfacesAtMost) {
  fake.metrics = {{0, "down0"},           {0, "eth0"}, {0, "bare0"}, {0, "eth1"},
                  {0, "a-name-of-15-ch"}, {0, "eth3"}, {0, "eth4"}};
  for (const char* name : {"eth0", "eth1", "a-name-of-15-ch", "eth3", "eth4"}) {
    fake.binary_interfaces[name] = interface("10.0.0.1");
  }
  fake.binary_interfaces["bare0"] = interface("0.0.0.0");
  fake.once["get_active_interface"] = {1};              // of the first, which is not filled in
  fake.once["fillActIfInfo"] = {1, 0, silent_success};  // texts, none, and some without an end
  finder.served.ifinfo[0] = interface("10.9.9.9");      // of an earlier look
  std::strcpy(finder.served.act_if[1].ip, "10.9.9.9");
  fake.log.clear();
  ASSERT_EQ(get_ifinfo(), 4);
  const Bytes texts = "[10.0.0.1]\n[0A:0B:0C:0D:0E:0F]\n[255.0.0.0]\n[10.1.2.254]\n", x15(15, 'x');
  const Bytes endless = '[' + x15 + "]\n[" + x15 + "xx]\n[" + x15 + "]\n[" + x15 + "]\n";
  EXPECT_EQ(joined(fake.log), " In get_ifinfo: iIfNum=4\n In get_ifinfo, ACT_IF_INFO_0:\n" + texts +
                                  "[eth0]\n\n In get_ifinfo, ACT_IF_INFO_1:\n[]\n[]\n[]\n[]\n[eth1]\n\n"
                                  " In get_ifinfo, ACT_IF_INFO_2:\n" +
                                  endless + "[a-name-of-15-ch]\n\n In get_ifinfo, ACT_IF_INFO_3:\n" + texts +
                                  "[eth3]\n\n");
}

/// What cannot be set up is said once; later looks set up what can be by then, and say what is new.
TEST_F(FinderTest, ChangesOfTheInterfacesAreServed) {
  if (!own_world) GTEST_SKIP() << "needs a network of its own";
  const auto lo = [](auto change) { return [=] { change(fake.binary_interfaces["lo"]); }; };
  const auto address = [&](const char* ip) { return lo([=](IFINFO& info) { info = interface(ip); }); };
  const auto index_0_of = [](const char* getter) {
    return [=] { fake.on_call = [=](const std::string& call) { fake.interface_index = call == getter ? 0 : 1; }; };
  };
  static int crowded_from;
  const auto crowd = [] {
    crowded_from = dup(STDERR_FILENO);
    while (dup(STDERR_FILENO) < FD_SETSIZE - 1) continue;
  };
  const auto leave = [] {
    EXPECT_EQ(dup(STDERR_FILENO), FD_SETSIZE) << "the refused one is closed";
    for (int fd = crowded_from; fd <= FD_SETSIZE; ++fd) close(fd);
  };
  const auto refuse = [](int what) { return [=] { failing = what; }; };
  const auto add = [](const char* name) {
    fake.metrics.push_back({0, ""});
    std::strcpy(fake.metrics[1].name, name);
    fake.binary_interfaces[name] = interface("10.0.0.1");
  };
  const auto make_device = [] {
    shell("ip link del kt0");
    EXPECT_TRUE(shell("ip link add kt0 type veth peer name kt1"));
  };
  const auto with_device = [=] { make_device(), add("kt0"); };
  const auto another_device = [=] { fake.metrics.pop_back(), add("kt1"); };
  const auto renamed = [] { shell("ip link set kt0 name kt9; ip link set kt1 name kt0"); };
  const Texts none{"Interface incorrect\n"};
  const struct {
    const char* what;
    Given given, changed;
    Texts said;            // at the beginning
    std::size_t set_ups;   // that are told, the first one included
    Texts said_then = {};  // from the change on
    bool served_before = true, served = true;
  } rows[] = {
      {"nothing", nullptr, nullptr, {}, 1},
      {"what is not read", nullptr, lo([](IFINFO& info) { info.reserved16 = info.reserved6[1] = 7; }), {}, 1},
      {"an address", nullptr, address("127.0.0.5"), {}, 2},
      {"the camera's own MAC", nullptr, [] { std::strcpy(fake.interfaces[0].mac, "02:90:5e:aa:bf:cd"); }, {}, 2},
      {"one less", with_device, [] { fake.metrics.pop_back(); }, {}, 2},
      {"another in its place", with_device, another_device, {}, 2},
      {"a device made anew", with_device, make_device, {}, 2},
      {"a device made of another", with_device, renamed, {}, 2},
      {"an address at last", address("0.0.0.0"), address("127.0.0.1"), none, 2, {}, false},
      {"no address for long", address("0.0.0.0"), nullptr, none, 1, {}, false, false},
      {"no present interface", index_0_of("tessel_get_present_iface"), nullptr, none, 1, {}, false, false},
      {"no active one at first", index_0_of("tessel_get_active_iface"), index_0_of(""), none, 2, {}, false},
      {"an active one that goes", nullptr, index_0_of("tessel_get_active_iface"), {}, 2, none, true, false},
      {"a device that is gone", [=] { add("gone0"); }, nullptr, {"SO_BINDTODEVICE:ERROR\n"}, 1},
      {"an option at last", refuse(SO_REUSEADDR), refuse(0), {"SO_REUSEADDR:ERROR\n"}, 1, {}, false},
      {"another", refuse(SO_BROADCAST), refuse(0), {"SO_BROADCAST:ERROR\n"}, 1, {}, false},
      {"a port that was taken", refuse(bind_itself), refuse(0), {"bind error\n"}, 1, {}, false},
      {"a port that stays taken", refuse(bind_itself), nullptr, {"bind error\n"}, 1, {}, false, false},
      {"no descriptor that a set can hold", crowd, leave, {}, 1, {}, false}};
  char name[16];
  socklen_t len = sizeof(name);
  start();
  const bool device_is_told = getsockopt(finder.fd[0], SOL_SOCKET, SO_BINDTODEVICE, name, &len) == 0;
  for (const auto& row : rows) {
    if (!device_is_told && Bytes(row.what).starts_with("a device made")) continue;  // an emulator
    again();
    const int free = lowest_free();
    if (row.given) row.given();
    const auto served = [&] { return !exchange(request(op_survey, "", everybody)).empty(); };
    EXPECT_EQ(Finderd_init(), row.said.empty() ? 1 : 0) << row.what;
    EXPECT_EQ(fake.console, row.said) << row.what;
    const std::size_t told = fake_logged(" In get_ifinfo: ");
    EXPECT_EQ(served(), row.served_before) << row.what;
    fake.log.clear(), fake.console.clear();
    finder.alias.alias_handle = 7;
    if (row.changed) row.changed();
    for (int i = 0; i < 3; ++i) refresh_sockets();
    EXPECT_EQ(told + fake_logged(" In get_ifinfo: "), row.set_ups) << row.what;
    EXPECT_EQ(fake.console, row.said_then) << row.what;
    const bool told_sockets = row.served && (row.set_ups == 2 || !row.served_before);
    EXPECT_EQ(fake_logged(" Finderd_init: fd[0]="), told_sockets ? 1 : 0) << row.what;
    EXPECT_EQ(served(), row.served) << row.what;
    EXPECT_EQ(finder.alias.alias_handle, 7U) << row.what;
    Finderd_DST();
    EXPECT_EQ(fake.log.back(), "~Finderd_DST()\n");
    for (const int fd : finder.fd) EXPECT_EQ(fd, -1) << row.what;
    EXPECT_EQ(lowest_free(), free) << row.what;
  }
}

TEST_F(FinderTest, NoReplyGoesToEverybodyOrTwice) {
  start();
  const std::tuple<const char*, const char*, bool> rows[] = {
      {"255.0.0.0", "255.255.255.255", true},  {"255.0.0.0", "127.255.255.255", true},
      {"255.0.0.0", "127.0.0.0", true},        {"255.0.0.0", "127.0.0.255", false},
      {"255.255.255.0", "127.0.1.255", false}, {"255.255.255.254", "127.0.0.1", false},
      {"255.255.255.255", "127.0.0.1", false}};
  const std::vector<std::uint8_t> reply(334);
  for (const auto& [mask, to, stands_for_all] : rows) {
    finder.served.ifinfo[0].mask = inet_addr(mask);
    finder.peer = {AF_INET, htons(9), {inet_addr(to)}, {}};
    EXPECT_EQ(Finderd_send(reply.data(), 334), stands_for_all ? 0 : 1) << mask << to;
    EXPECT_EQ(fake.console, Texts{}) << mask << to;
  }
  for (const int sent : {-1, 0, 333}) {
    send_result = sent;
    fake.log.clear();
    EXPECT_EQ(Finderd_send(reply.data(), 334), 0);
    const Bytes cut = "Finderd_send(), NOT matched, len=334, send size=" + std::to_string(sent) + "\n";
    EXPECT_EQ(fake_logged(cut), sent < 0 ? 0 : 1);
  }
  EXPECT_EQ(fake.console, Texts{"sendto: Resource temporarily unavailable\n"});
}

// ---- The loop ----

TEST_F(FinderTest, EverySocketIsServedAndReportsAreNotKeptBack) {
  // Both are told of a broadcast. The first one is lost in the third turn, and comes back with the first look.
  fake.metrics = {{0, "lo"}, {0, "lo"}};
  start();
  const Bytes first = std::to_string(finder.fd[0]), second = std::to_string(finder.fd[1]);
  EXPECT_EQ(fake.log.front(), "Finderd_CST()\n");
  EXPECT_TRUE(joined(fake.log).ends_with(" iIfPresentIndex=1, iIfActivetIndex=1\n Finderd_init: fd[0]=" + first +
                                         "\n Finderd_init: fd[1]=" + second + "\n"));
  EXPECT_EQ(std::pair(options[SO_REUSEADDR], options[SO_BROADCAST]), std::pair(1, 1));
  EXPECT_EQ(std::pair(options[SO_SNDBUF], options[SO_SNDBUFFORCE]), std::pair(4 << 20, 4 << 20));
  EXPECT_EQ(std::pair(options[SO_RCVBUF], options[SO_RCVBUFFORCE]), std::pair(1 << 20, 1 << 20));
  EXPECT_EQ(finder.fd[2], -1);
  const int on = 1;
  setsockopt(client, SOL_SOCKET, SO_BROADCAST, &on, sizeof(on));
  const sockaddr_in all{AF_INET, htons(finder_port), {inet_addr("127.255.255.255")}, {}};
  const Bytes asked = request(op_get_enable);
  std::vector<int> reported_at, replies;
  int turn = 0, lost = -1;
  on_select = [&](int nfds, const timeval& limit) {
    // A report comes a minute after the last one, also when the datagrams end just before it.
    EXPECT_EQ(limit.tv_sec * 1'000'000 + limit.tv_usec, turn % 2 == 0 ? 15'000'000 : 50'000);
    EXPECT_EQ(nfds, std::max(finder.fd[0], finder.fd[1]) + 1);
    replies.push_back(0);
    while (!receive().empty()) ++replies.back();
    if (++turn == 3) lost = std::exchange(finder.fd[0], -1);
    if (turn == 6) store_word(ctx.run, 0U);
    now_ms += turn % 2 == 1 ? 59'950U : 50U;
    const auto* to = reinterpret_cast<const sockaddr*>(turn == 6 ? nullptr : &all);  // at last to one of them
    sendto(client, asked.data(), asked.size(), 0, to, sizeof(all));
    return really;
  };
  on_report = [&](const DeviceContext*, AuthenticateInfo&, char*) {
    reported_at.push_back(turn);
    return request_ok;
  };
  Finderd_loop();
  close(lost);
  EXPECT_EQ(reported_at, (std::vector{2, 4, 6}));
  EXPECT_EQ(replies, (std::vector{0, 2, 2, 1, 1, 2}));
  EXPECT_EQ(fake.console, Texts{});
  EXPECT_EQ(fake_logged(" broadcast detected, socket=" + second + ", iReportSocketIndex=1, interface=lo\n"), 4U);
}

TEST_F(FinderTest, ATimeOutSendsTheConnectionReportOneToFourTimes) {
  const Bytes again = "authentication needed";
  constexpr int challenged = request_challenged;
  // Results of the reports, and the last report's text as each got it. The fourth is the last, whatever it says; the
  // next time-out goes on from its text.
  const std::pair<std::deque<int>, Texts> rows[] = {
      {{request_no_answer}, {"init"}},
      {{challenged, 500}, {"init", again}},
      {{challenged, challenged, challenged, challenged, request_ok}, {"init", again, again, again, "record 4"}}};
  fake.metrics.clear();
  for (int i = 0; i < 9; ++i) {
    const auto& [results, wanted] = rows[i / 3];
    const int error = std::array{0, EINTR, EBADF}[static_cast<std::size_t>(i % 3)];
    ctx.run = 1;
    ctx.auth_info.nc = 5;
    Finderd_take_auth(ctx.auth_info);
    ctx.auth_info.nc = 99;
    Texts texts;
    fake.calls.clear();
    on_select = [&](int nfds, const timeval&) {
      EXPECT_EQ(nfds, 1);  // no socket is open
      errno = error;
      return error == 0 ? 0 : -1;
    };
    on_report = [&](const DeviceContext* record, AuthenticateInfo& auth, char* last_report) {
      EXPECT_EQ(record, &ctx);
      EXPECT_EQ(auth.nc++, 5 + texts.size());                   // of the finder's own
      EXPECT_FALSE(fake_calls({"dev_get_if_metric"}).empty());  // looked at before a report that may take long
      texts.emplace_back(last_report);
      std::strcpy(last_report, ("record " + std::to_string(texts.size())).c_str());
      if (texts.size() == results.size()) store_word(ctx.run, 0U);
      return results[texts.size() - 1];
    };
    Finderd_loop();
    EXPECT_EQ(texts, wanted);
    // A select that fails at once and for ever does not spin.
    EXPECT_EQ(fake_calls({"pause 1000"}).size(), error != EBADF ? 0 : wanted.size() / 5 + 1);
  }
}

/// Requests while the main thread writes the record; the thread sanitizer watches.
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
  for (std::size_t round = 0; round < 1000; ++round) {
    const Bytes asked = round % 100 == 99 ? as_admin(op_set_enable, number(round, 1)) : request(op_self_conf_result);
    send(client, asked.data(), asked.size(), 0);
    pollfd ready{client, POLLIN, 0};
    EXPECT_EQ(poll(&ready, 1, 5000) == 1 ? receive().size() : 0, 38U);
  }
  store_word(ctx.run, 0U);
  send(client, "", 0, 0);
  main_thread.join();
  finder_thread.join();
}

}  // namespace

}  // namespace kestrel
