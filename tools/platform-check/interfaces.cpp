// The process lock and the network interfaces of libtessel.
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <initializer_list>

#include "check.h"
#include "platform/tessel.h"

namespace platform_check {

namespace {

constexpr char lock_name[] = "kestrel_platform_check";  // the daemon's own stays the daemon's
constexpr Out interfaces{Kind::bytes, TESSEL_MAX_IFACES * sizeof(ACT_IF_INFO), TESSEL_MAX_IFACES * sizeof(ACT_IF_INFO)};
constexpr Out integer{Kind::number, sizeof(int), sizeof(int)};

/// In a process of its own: takes the lock, says so, and holds it until nobody listens any more.
[[noreturn]] void hold_lock(int say, int listen) {
  const char taken = tessel_get_lock(lock_name) != 0 ? 1 : 0;
  char end = 0;
  static_cast<void>(!write(say, &taken, 1));
  static_cast<void>(!read(listen, &end, 1));
  _exit(0);
}

void lock(Finding& finding) {
  static bool tried = false;
  if (tried) return;
  tried = true;
  int said[2], held[2];
  if (pipe(said) != 0 || pipe(held) != 0) return;
  const pid_t other = fork();
  if (other == 0) {
    close(held[1]);
    hold_lock(said[1], held[0]);
  }
  char first = 0;
  static_cast<void>(!read(said[0], &first, 1));
  const int meanwhile = tessel_get_lock(lock_name);
  for (const int fd : {said[0], said[1], held[0], held[1]}) close(fd);
  waitpid(other, nullptr, 0);
  const int then = tessel_get_lock(lock_name);
  tell(finding, "another %d, meanwhile %d, then %d", first, meanwhile, then);
  if (first == 0) note(finding, "ends with status 1", "a lock that nobody holds is not given");
  if (meanwhile != 0) note(finding, "runs twice", "a held lock is given to another process");
  if (then == 0) note(finding, "is not started again", "a lock stays held when its process has ended");
}

int active(void* const out[], std::size_t /*size*/) {
  return tessel_get_active_iface(static_cast<ACT_IF_INFO*>(out[0]), static_cast<int*>(out[1]));
}

/// The daemon sets the index to 0 before.
int present(void* const out[], std::size_t /*size*/) {
  return tessel_get_present_iface(static_cast<ACT_IF_INFO*>(out[0]), static_cast<int*>(out[1]));
}

bool is_terminated(const char* text, std::size_t size) {
  return strnlen(text, size) < size;
}

/// The list's first name; null without one.
const char* first_name(int& count) {
  count = -1;
  const IF_METRIC* list = dev_get_if_metric(&count);
  return list != nullptr && count > 0 ? list[0].name : nullptr;
}

void first_texts(Finding& finding, int (*get)(ACT_IF_INFO*, int*)) {
  ACT_IF_INFO all[TESSEL_MAX_IFACES] = {};
  int index = 0;
  get(all, &index);
  const ACT_IF_INFO& info = all[0];
  const bool whole = is_terminated(info.ip, sizeof(info.ip)) && is_terminated(info.mac, sizeof(info.mac)) &&
                     is_terminated(info.mask, sizeof(info.mask)) && is_terminated(info.gw, sizeof(info.gw)) &&
                     is_terminated(info.name, sizeof(info.name));
  tell(finding, "%.15s %.17s %.15s, %d", info.name, info.mac, info.ip, index);
  if (!whole) note(finding, "terminates each at the end of its field", "a text without terminator");
  if (index > 0 && std::strlen(info.mac) != 17) note(finding, "reports it as it is", "a MAC that is no six fields");
}

void list(Finding& finding) {
  int count = 0;
  const char* name = first_name(count);
  tell(finding, "%d entries, \"%.19s\"", count, name != nullptr ? name : "");
  if (count < 0) note(finding, "finds no interface", "the count was not touched");
  if (name != nullptr && !is_terminated(name, 20)) note(finding, "cuts it", "a name without terminator");
  int again = 0;
  if (first_name(again) == nullptr && name != nullptr) note(finding, "loses its sockets", "the second list is empty");
}

int binary(void* const out[], std::size_t /*size*/) {
  int count = 0;
  const char* name = first_name(count);
  return get_active_interface(name != nullptr ? name : "lo", static_cast<IFINFO*>(out[0]));
}

/// The name's field keeps what stands there.
int text_of_binary(void* const out[], std::size_t /*size*/) {
  IFINFO info{{2, 0, 0x5E, 0x10, 0x20, 0x30}, {}, 0x0100007F, 0xFF, 0, 0x0200007F};
  return fillActIfInfo(static_cast<ACT_IF_INFO*>(out[0]), &info);
}

void text_form(Finding& finding) {
  ACT_IF_INFO text{};
  void* const out[] = {&text};
  std::memcpy(text.name, "kept", sizeof("kept"));
  text_of_binary(out, 0);
  tell(finding, "%.15s %.17s, name \"%.15s\"", text.ip, text.mac, text.name);
  if (std::strcmp(text.ip, "127.0.0.1") != 0) note(finding, "reports a wrong address", "an address in another order");
  if (std::strcmp(text.name, "kept") != 0) note(finding, "puts its own there", "the name was written");
}

constexpr char waits[] = "does not register, and tries again after 10 s";
constexpr Out text_record{Kind::bytes, sizeof(ACT_IF_INFO), sizeof(ACT_IF_INFO)};

constexpr Row rows[] = {
    {"tessel_get_lock", "a lock of its own", nullptr, {}, Result::unused, "", false, lock},
    {"tessel_get_active_iface", "8 records, an index", active, {interfaces, integer}, Result::unused, waits},
    {"tessel_get_active_iface",
     "the first record",
     nullptr,
     {},
     Result::unused,
     waits,
     false,
     [](Finding& finding) { first_texts(finding, tessel_get_active_iface); }},
    {"tessel_get_present_iface", "8 records, an index", present, {interfaces, integer}, Result::unused, waits},
    {"tessel_get_present_iface",
     "the first record",
     nullptr,
     {},
     Result::unused,
     waits,
     false,
     [](Finding& finding) { first_texts(finding, tessel_get_present_iface); }},
    {"dev_get_if_metric", "the list, twice", nullptr, {}, Result::unused, "", false, list},
    {"get_active_interface",
     "24 bytes",
     binary,
     {Out{Kind::bytes, sizeof(IFINFO), sizeof(IFINFO)}},
     Result::zero_fails,
     "does not serve the interface"},
    {"fillActIfInfo", "82 bytes", text_of_binary, {text_record}, Result::unused, ""},
    {"fillActIfInfo", "127.0.0.1 and a MAC", nullptr, {}, Result::unused, "", false, text_form},
};

}  // namespace

Rows interface_rows() {
  return {rows, sizeof(rows) / sizeof(rows[0])};
}

}  // namespace platform_check
