// The finder's interfaces and sockets: its beginning, its end, and the way of a reply.
#include <arpa/inet.h>
#include <net/if.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "core/debug_log.h"
#include "core/text.h"
#include "finder/finder.h"
#include "finder/record.h"
#include "net/address.h"

namespace kestrel {

Finder finder{};

namespace {

/// Fills slot k when the named interface is usable.
bool take_interface(FinderInterfaces& into, int k, const IF_METRIC& entry) {
  char name[sizeof(entry.name)];
  copy_bytes(name, sizeof(name), entry.name, sizeof(entry.name));
  IFINFO& info = into.ifinfo[k];
  zero(info);
  if (get_active_interface(name, &info) == 0 || info.ip == 0) return false;
  ACT_IF_INFO& text = into.act_if[k];
  zero(text);
  fillActIfInfo(&text, &info);
  terminate_texts(text);
  copy_text(text.name, name);
  return true;
}

void find_usable(FinderInterfaces& into) {
  int entries = 0;
  const IF_METRIC* list = dev_get_if_metric(&entries);
  into.iIfNum = 0;
  for (int i = 0; list != nullptr && i < entries && into.iIfNum < finder_max_if; ++i) {
    if (take_interface(into, into.iIfNum, list[i])) ++into.iIfNum;
  }
}

void find_present(FinderInterfaces& into) {
  into.present_index = first_iface(tessel_get_present_iface, into.present_if);
  into.active_index = first_iface(tessel_get_active_iface, into.active_if);
}

bool can_serve(const FinderInterfaces& with) {
  return with.iIfNum >= 1 && with.present_index != 0 && with.active_index != 0;
}

/// Whether both serve the same requests in the same way.
bool is_same(const FinderInterfaces& one, const FinderInterfaces& other) {
  if (one.iIfNum != other.iIfNum || can_serve(one) != can_serve(other)) return false;
  if (std::strcmp(one.present_if.mac, other.present_if.mac) != 0) return false;
  for (int i = 0; i < one.iIfNum; ++i) {
    const IFINFO& a = one.ifinfo[i];
    const IFINFO& b = other.ifinfo[i];
    const bool same = std::strcmp(one.act_if[i].name, other.act_if[i].name) == 0 &&
                      std::memcmp(a.mac, b.mac, sizeof(a.mac)) == 0 && a.ip == b.ip && a.mask == b.mask &&
                      a.gateway == b.gateway;
    if (!same) return false;
  }
  return true;
}

bool switch_on(int fd, int option) {
  const int on = 1;
  return setsockopt(fd, SOL_SOCKET, option, &on, sizeof(on)) == 0;
}

bool bind_to_device(int fd, const char* name) {
  return setsockopt(fd, SOL_SOCKET, SO_BINDTODEVICE, name, static_cast<socklen_t>(std::strlen(name))) == 0;
}

bool bind_to_port(int fd) {
  sockaddr_in any{};
  any.sin_family = AF_INET;
  any.sin_addr.s_addr = htonl(INADDR_ANY);
  any.sin_port = htons(static_cast<std::uint16_t>(finder.port));
  return bind(fd, reinterpret_cast<const sockaddr*>(&any), sizeof(any)) == 0;
}

/// Room for the replies that wait in the kernel for neighbours that do not exist: whoever forges senders has it
/// keep each for some seconds.
constexpr int send_room = 4 * 1024 * 1024;  // bytes
/// Room for a flood while this thread waits for the processor, so that an honest request in it is not lost; no
/// more than what a camera works off while a tool waits.
constexpr int receive_room = 1024 * 1024;  // bytes

/// Without the right to more it is what the system allows.
void widen(int fd, int forced, int option, int room) {
  if (setsockopt(fd, SOL_SOCKET, forced, &room, sizeof(room)) == 0) return;
  setsockopt(fd, SOL_SOCKET, option, &room, sizeof(room));
}

/// Prepares one interface's socket. Returns what failed; null for success.
const char* prepare_socket(int fd, const char* name) {
  if (!bind_to_device(fd, name)) return "SO_BINDTODEVICE:ERROR";
  if (!switch_on(fd, SO_REUSEADDR)) return "SO_REUSEADDR:ERROR";
  if (!switch_on(fd, SO_BROADCAST)) return "SO_BROADCAST:ERROR";
  if (!bind_to_port(fd)) return "bind error";
  widen(fd, SO_SNDBUFFORCE, SO_SNDBUF, send_room);
  widen(fd, SO_RCVBUFFORCE, SO_RCVBUF, receive_room);
  return nullptr;
}

/// A descriptor that the loop's descriptor set cannot hold is as good as none.
int open_socket() {
  const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < FD_SETSIZE) return fd;
  close(fd);
  return -1;
}

void close_sockets() {
  for (std::int32_t& fd : finder.fd) {
    if (fd >= 0) close(fd);
    fd = -1;
  }
}

/// Opens a socket for each interface, up to the first that cannot be prepared. Returns what failed; null for nothing.
const char* open_sockets() {
  bool all = true;
  for (int i = 0; i < finder.served.iIfNum; ++i) {
    finder.fd[i] = open_socket();
    all = all && finder.fd[i] >= 0;
    const char* failure = finder.fd[i] >= 0 ? prepare_socket(finder.fd[i], finder.served.act_if[i].name) : nullptr;
    if (failure != nullptr) return failure;
  }
  finder.complete = all;
  return nullptr;
}

void log_sockets() {
  for (int i = 0; i < finder.served.iIfNum; ++i) debug_log(" Finderd_init: fd[%d]=%d\n", i, finder.fd[i]);
}

/// Finds the interfaces and opens their sockets, and says what comes of it.
int set_up() {
  finder.complete = false;
  get_ifinfo();
  find_present(finder.served);
  debug_log(" iIfPresentIndex=%d, iIfActivetIndex=%d\n", finder.served.present_index, finder.served.active_index);
  const char* failure = can_serve(finder.served) ? open_sockets() : "Interface incorrect";
  if (failure != nullptr) {
    print_console("%s\n", failure);
    return 0;
  }
  log_sockets();
  return 1;
}

/// Whether a socket has lost its interface, which may have been made anew under the same name. Asked only when every
/// interface has its socket: where a set-up failed, all are opened anew in any case.
bool lost_device() {
  for (int i = 0; finder.complete && i < finder.served.iIfNum; ++i) {
    char name[IFNAMSIZ] = "";
    socklen_t len = sizeof(name);
    if (getsockopt(finder.fd[i], SOL_SOCKET, SO_BINDTODEVICE, name, &len) != 0) {
      // Kernels before 3.8 do not tell the name, nor do emulators; a socket is not lost for that.
      if (errno == ENODEV || errno == EBADF) return true;
      continue;
    }
    if (std::strcmp(name, finder.served.act_if[i].name) != 0) return true;
  }
  return false;
}

}  // namespace

void Finderd_CST() {
  finder.port = finder_port;
  for (std::uint32_t& max : finder.max_if) max = finder_max_if;
  finder.reserved = 0;
  for (std::int32_t& fd : finder.fd) fd = -1;
  zero(finder.request);
  debug_log("%s()\n", "Finderd_CST");
}

int get_ifinfo() {
  FinderInterfaces& found = finder.served;
  find_usable(found);
  debug_log(" In get_ifinfo: iIfNum=%d\n", found.iIfNum);
  for (int k = 0; k < found.iIfNum; ++k) {
    const ACT_IF_INFO& at = found.act_if[k];
    debug_log(" In get_ifinfo, ACT_IF_INFO_%d:\n[%s]\n[%s]\n[%s]\n[%s]\n[%s]\n\n", k, at.ip, at.mac, at.mask, at.gw,
              at.name);
  }
  return found.iIfNum;
}

int Finderd_init() {
  finder.alias.alias_handle = 1;
  return set_up();
}

void refresh_sockets() {
  FinderInterfaces now{};
  find_usable(now);
  find_present(now);
  if (!is_same(now, finder.served) || lost_device()) {
    close_sockets();
    set_up();
    return;
  }
  if (finder.complete || !can_serve(finder.served)) return;
  // What failed may work by now. Nothing is said until it does: it was said when it failed.
  close_sockets();
  if (open_sockets() == nullptr && finder.complete) log_sockets();
}

void Finderd_set_context(DeviceContext* context) {
  finder.ctx = context;
}

void Finderd_DST() {
  debug_log("~%s()\n", "Finderd_DST");
  close_sockets();
}

namespace {

/// Whether an address stands for everybody on the interface's network: the host's part all ones, or all zeros as of
/// old. Networks of two addresses or one have none such.
bool is_everybody(std::uint32_t ip, const IFINFO& on) {
  const std::uint32_t host_part = ~on.mask;
  if (ip == htonl(INADDR_BROADCAST)) return true;
  if (ntohl(host_part) <= 1 || ((ip ^ on.ip) & on.mask) != 0) return false;
  return (ip & host_part) == host_part || (ip & host_part) == 0;
}

}  // namespace

int Finderd_send(const std::uint8_t* buf, std::uint32_t len) {
  const int fd = finder.fd[finder.iReportSocketIndex];
  char to[INET_ADDRSTRLEN] = "";
  if (DbgLevel != 0) inet_ntop(AF_INET, &finder.peer.sin_addr, to, sizeof(to));
  debug_log("%s(), sendto: socket=%d, iReportSocketIndex=%d, len=%d, send_addr=%s\n", "Finderd_send", fd,
            finder.iReportSocketIndex, static_cast<int>(len), to);
  // Whoever forges such a sender would have the camera call to everybody.
  if (is_everybody(finder.peer.sin_addr.s_addr, finder.served.ifinfo[finder.iReportSocketIndex])) return 0;
  const ssize_t sent =
      sendto(fd, buf, len, MSG_DONTWAIT, reinterpret_cast<const sockaddr*>(&finder.peer), sizeof(finder.peer));
  if (sent < 0) {
    print_error("sendto");
    return 0;
  }
  if (static_cast<std::size_t>(sent) != len) {
    debug_log("%s(), NOT matched, len=%d, send size=%d\n", "Finderd_send", static_cast<int>(len),
              static_cast<int>(sent));
    return 0;
  }
  return 1;
}

}  // namespace kestrel
