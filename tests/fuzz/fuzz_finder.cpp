// Datagrams to the LAN finder, one after the other, on a platform whose texts fill their fields without an end. Each
// begins with a byte that says how it comes, and ends at a mark; what must come of it is told by tables of its own.
#include <arpa/inet.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstdarg>
#include <cstring>

#include "core/debug_log.h"
#include "core/text.h"
#include "fake_platform/fake_platform.h"
#include "finder/finder.h"
#include "finder/record.h"
#include "fuzz.h"
#include "support/nettle_cipher.h"

using namespace kestrel;

namespace {

constexpr std::string_view mark = "\x1e\x1d";
/// How a datagram comes: so many times 20 ms after the one before; by the second interface; from a forged sender; with
/// its length put right.
enum Coming : unsigned { after_20ms = 0x1F, by_second = 0x20, from_everybody = 0x40, with_length = 0x80 };

struct Operation {
  unsigned opcode;
  std::size_t payload_len;
  bool for_anyone;
  const char* change;  // the call that it may make
};
constexpr Operation operations[] = {
    {0x00A1, 312, true, nullptr},
    {0x0109, 304, true, nullptr},
    {0x00D1, 16, true, nullptr},
    {0x0102, 16, true, nullptr},
    {0x0105, 64, true, nullptr},
    {0x00A5, 34, false, nullptr},
    {0x0106, 64, false, nullptr},
    {0x0108, 16, false, nullptr},
    {0x00D2, 16, false, "cre_set_skyport_enable_state"},
    {0x0107, 16, false, "srv_update_aliasname_status"},
    {0x010A, 16, false, "cre_set_skyport_domain"},
};

constexpr const char* changing[] = {"cre_set", "srv_update", "srv_set", "set_", "kill", "run_shell"};
const std::string own_mac("\x00\x11\x22\x0a\x0b\x0c", 6), every_mac(6, '\xff');

std::string datagram;      // that waits to be received
Texts sent;                // replies
std::uint64_t now_ms = 0;  // of the finder's clock
std::uint64_t checks = 0;  // thousandths of password checks that may be made now
bool sender_forged = false;

unsigned word(std::string_view text, std::size_t at) {
  return static_cast<std::uint8_t>(text[at]) | static_cast<unsigned>(static_cast<std::uint8_t>(text[at + 1])) << 8;
}

std::string as_word(std::size_t value) {
  return {static_cast<char>(value & 0xFF), static_cast<char>(value >> 8)};
}

std::string_view decoded(std::string_view request, std::size_t at, char (&plain)[256]) {
  const std::string_view field = request.size() > at ? request.substr(at, 64) : "";
  b64_decode(field.data(), static_cast<unsigned>(std::min(field.size(), field.find('\0'))), plain);
  return plain;
}

struct Expected {
  std::size_t reply_len = 0;  // 0: none
  const Operation* proven = nullptr;
};

Expected expected(std::string_view request) {
  if (request.size() < 22 || word(request, 0) != 0xFDFD || request.size() != word(request, 20) + 22) return {};
  const unsigned opcode = word(request, 4);
  const auto* row = std::ranges::find(operations, opcode, &Operation::opcode);
  const bool known = row != std::end(operations), survey = opcode == 0x00A1 || opcode == 0x0109;
  const std::string_view mac = request.substr(6, 6);
  if (mac != own_mac && !(survey && mac == every_mac)) return {};
  if (known && row->for_anyone) return {22 + row->payload_len, nullptr};
  if (checks < 1000) return {};
  checks -= 1000;
  char names[256], passwords[256];
  const std::string_view name = decoded(request, 22, names);
  const bool right = decoded(request, 86, passwords) == fake.admin_password;
  if (right && name == fake.admin) return known ? Expected{22 + row->payload_len, row} : Expected{};
  // Of a name the table's getter gives 16 bytes.
  const bool user = std::ranges::any_of(fake.users, [&](std::string_view each) { return each.substr(0, 16) == name; });
  return {right && user && opcode == 0x00A3 ? std::size_t{0} : 38, nullptr};
}

void check_reply(std::string_view request, std::string_view reply, const Expected& wanted) {
  require(reply.starts_with("\xee\xfe") && reply.substr(2, 4) == request.substr(2, 4), "a reply echoes tag and opcode");
  require(reply.substr(6, 6) == own_mac, "it names its camera");
  in_addr address{};
  std::memcpy(&address, reply.data() + 12, sizeof(address));
  require(address.s_addr == finder.served.ifinfo[finder.iReportSocketIndex].ip, "its interface's address");
  require(word(reply, 16) <= 1 && word(reply, 18) == 1 && word(reply, 20) == reply.size() - 22, "result and length");
  const bool refusal = word(reply, 16) == 1 && reply.size() == 38 && reply.find_first_not_of('\0', 22) == reply.npos;
  const auto* row = std::ranges::find(operations, word(request, 4), &Operation::opcode);
  const bool open = row != std::end(operations) && row->for_anyone;
  require(refusal == (wanted.proven == nullptr && !open), "who has proven nothing is refused, nobody else");
}

void serve(std::string_view request, unsigned coming) {
  now_ms += (coming & after_20ms) * 20;
  checks = std::min<std::uint64_t>(checks + (coming & after_20ms) * 20 * 10, 20'000);
  finder.iReportSocketIndex = (coming & by_second) != 0 ? 1 : 0;
  sender_forged = (coming & from_everybody) != 0;
  datagram = request.substr(0, 1024);
  if ((coming & with_length) != 0 && datagram.size() >= 22) datagram.replace(20, 2, as_word(datagram.size() - 22));
  fake.calls.clear();
  sent.clear();
  const Expected wanted = expected(datagram);
  Finderd_handle_request();
  const bool answered = wanted.reply_len != 0 && !sender_forged;
  require(sent.size() == (answered ? 1U : 0U), "one reply or none");
  require(!answered || sent[0].size() == wanted.reply_len, "a reply has its operation's length");
  if (answered) check_reply(datagram, sent[0], wanted);
  const char* change = wanted.proven != nullptr ? wanted.proven->change : nullptr;
  for (const std::string& call : fake.calls) {
    const auto begins = [&](const char* prefix) { return call.starts_with(prefix); };
    if (std::ranges::none_of(changing, begins)) continue;
    require(change != nullptr, "only the administrator's proof in this very datagram changes anything");
    const bool told = call.starts_with("kill") || call.starts_with("run_shell");
    require(told || call.starts_with(change), "nothing but what it asks for");
  }
}

void set_up() {
  static DeviceContext record{};
  if (fake.users.empty()) {
    const std::string endless(70, 't');
    for (std::string* text : {&fake.model, &fake.firmware, &fake.spt_version, &fake.oem_version, &fake.brand,
                              &fake.product, &fake.camera_name, &fake.http_url, &fake.last_alias}) {
      *text = endless;
    }
    fake.users = {"guest", endless};
  }
  fake.enabled = 1;
  fake.alias_status = ALIAS_OK;
  fake.alias = fake.domain = fake.domain_ip = std::string(70, 't');
  Finderd_CST();
  finder.ctx = &record;
  record.pid = 0x7FFFFFFF;  // nobody's
  finder.alias = {1, ""};
  finder.checks = {};
  now_ms = 1'000'000;
  checks = 20'000;
  finder.served.iIfNum = 2;
  copy_text(finder.served.present_if.mac, "00:11:22:0A:0b:0c");
  finder.served.ifinfo[0].ip = inet_addr("192.168.1.20");
  finder.served.ifinfo[1].ip = inet_addr("192.168.7.20");
}

std::string request(unsigned opcode, const std::string& user, const std::string& password,
                    const std::string& argument = "", unsigned coming = 0) {
  const auto field = [](const std::string& text) {
    const std::string b64 = nettle_cipher::base64(text);
    return b64 + std::string(64 - b64.size(), '\0');
  };
  const std::string payload = user.empty() ? "" : field(user) + field(password) + argument;
  const bool survey = opcode == 0x00A1 || opcode == 0x0109;
  return static_cast<char>(coming) + ("\xfd\xfdTG" + as_word(opcode) + (survey ? every_mac : own_mac)) +
         std::string(8, '\0') + as_word(payload.size()) + payload + std::string(mark);
}

}  // namespace

ssize_t recvfrom(int /*fd*/, void* to, std::size_t size, int /*flags*/, sockaddr* from, socklen_t* from_len) {
  const std::size_t len = std::min(size, datagram.size());
  std::memcpy(to, datagram.data(), len);
  sockaddr_in sender{};
  sender.sin_addr.s_addr = inet_addr(sender_forged ? "255.255.255.255" : "192.168.1.30");
  *from_len = sizeof(sender);
  std::memcpy(from, &sender, sizeof(sender));
  return static_cast<ssize_t>(len);
}

ssize_t sendto(int /*fd*/, const void* data, std::size_t size, int /*flags*/, const sockaddr* /*to*/, socklen_t) {
  sent.emplace_back(static_cast<const char*>(data), size);
  return static_cast<ssize_t>(size);
}

extern "C" int kill(pid_t /*pid*/, int /*number*/) noexcept {
  fake_record("kill");
  return 0;
}

namespace kestrel {

int DbgLevel = debug_file;

/// Reads every text to its end.
int debug_log(const char* format, ...) {
  static char line[2048];
  va_list args;
  va_start(args, format);
  std::vsnprintf(line, sizeof(line), format, args);
  va_end(args);
  return 0;
}
void print_console(const char* /*format*/, ...) {}
void print_error(const char* /*what*/) {}

std::uint64_t finder_now_ms() {
  return now_ms;
}

}  // namespace kestrel

Texts fuzz_seeds() {
  const std::string off(1, '\0'), on("\1"), admin = "admin", pw = "pw";
  Texts seeds;
  std::string all, guesses;
  for (const Operation& row : operations) {
    seeds.push_back(row.for_anyone ? request(row.opcode, "", "") : request(row.opcode, admin, pw, off));
    all += request(row.opcode, row.for_anyone ? "" : admin, pw, on + "x", with_length);
  }
  for (int i = 0; i < 24; ++i) guesses += request(0x00D2, admin, std::to_string(i), off);
  seeds.push_back(all);
  seeds.push_back(guesses + request(0x00D2, admin, pw, off) + request(0x00D2, admin, pw, off, 6));
  seeds.push_back(request(0x00A3, "guest", pw) + request(0x00D2, "guest", pw, off) + request(0x00A3, admin, pw) +
                  request(0x00A3, "guest", "x") + request(0x00D2, admin, "", off) + request(0x00B1, admin, pw));
  const std::string asked = request(0x0107, admin, pw, "rose\0") + request(0x0108, admin, pw, "", by_second);
  seeds.push_back(asked + asked + request(0x0107, admin, pw, std::string(64, 'r'), with_length));
  seeds.push_back(request(0x010A, admin, pw, "rose.test") + request(0x010A, admin, pw, "rose.test", from_everybody) +
                  request(0x010A, admin, pw, std::string(64, 'd')) + request(0x010A, admin, pw));
  return seeds;
}

Texts fuzz_words() {
  Texts words{std::string(mark), own_mac, every_mac, std::string(mark) + "\x80\xfd\xfd"};
  for (const Operation& row : operations) words.push_back("\xfd\xfdTG" + as_word(row.opcode) + own_mac);
  for (const char* text : {"admin", "guest", "pw"}) words.push_back(nettle_cipher::base64(text) + '\0');
  return words;
}

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  set_up();
  std::string_view rest(reinterpret_cast<const char*>(data), size);
  while (!rest.empty()) {
    const std::string_view part = rest.substr(0, rest.find(mark));
    if (!part.empty()) serve(part.substr(1), static_cast<std::uint8_t>(part[0]));
    rest.remove_prefix(std::min(rest.size(), part.size() + mark.size()));
  }
  return 0;
}
