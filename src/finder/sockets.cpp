// The finder's interfaces and sockets: its beginning, its end, and the way of a reply.
#include <arpa/inet.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstring>

#include "core/debug_log.h"
#include "core/text.h"
#include "finder/finder.h"
#include "finder/record.h"

namespace kestrel {

Finder finder{};

namespace {

void terminate_texts(ACT_IF_INFO& info) {
  terminate(info.ip);
  terminate(info.mac);
  terminate(info.mask);
  terminate(info.gw);
  terminate(info.name);
}

/// Fills `out` with the first interface that `get` gives, and returns its index.
int first_iface(int (*get)(ACT_IF_INFO*, int*), ACT_IF_INFO& out) {
  ACT_IF_INFO all[TESSEL_MAX_IFACES] = {};
  int index = 0;
  get(all, &index);
  out = all[0];
  terminate_texts(out);
  return index;
}

/// Fills slot k when the named interface is usable.
bool take_interface(int k, const IF_METRIC& entry) {
  char name[sizeof(entry.name)];
  copy_bytes(name, sizeof(name), entry.name, sizeof(entry.name));
  IFINFO& info = finder.ifinfo[k];
  zero(info);
  if (get_active_interface(name, &info) == 0 || info.ip == 0) return false;
  ACT_IF_INFO& text = finder.act_if[k];
  zero(text);
  fillActIfInfo(&text, &info);
  terminate_texts(text);
  copy_text(text.name, name);
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

/// Prepares one interface's socket. Returns what failed; null for success.
const char* prepare_socket(int fd, const char* name) {
  if (!bind_to_device(fd, name)) return "SO_BINDTODEVICE:ERROR";
  if (!switch_on(fd, SO_REUSEADDR)) return "SO_REUSEADDR:ERROR";
  if (!switch_on(fd, SO_BROADCAST)) return "SO_BROADCAST:ERROR";
  if (!bind_to_port(fd)) return "bind error";
  return nullptr;
}

/// A descriptor that the loop's descriptor set cannot hold is as good as none.
int open_socket() {
  const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < FD_SETSIZE) return fd;
  close(fd);
  return -1;
}

}  // namespace

void Finderd_CST() {
  finder.port = finder_port;
  for (std::uint32_t& max : finder.max_if) max = finder_max_if;
  finder.reserved = 0;
  for (std::int32_t& fd : finder.fd) fd = -1;
  zero(finder.request);
  finder.req = finder.request;
  debug_log("%s()\n", "Finderd_CST");
}

int get_ifinfo() {
  int count = 0;
  int entries = 0;
  const IF_METRIC* list = dev_get_if_metric(&entries);
  for (int i = 0; list != nullptr && i < entries && count < finder_max_if; ++i) {
    if (take_interface(count, list[i])) ++count;
  }
  debug_log(" In get_ifinfo: iIfNum=%d\n", count);
  for (int k = 0; k < count; ++k) {
    const ACT_IF_INFO& at = finder.act_if[k];
    debug_log(" In get_ifinfo, ACT_IF_INFO_%d:\n[%s]\n[%s]\n[%s]\n[%s]\n[%s]\n\n", k, at.ip, at.mac, at.mask, at.gw,
              at.name);
  }
  return count;
}

int Finderd_init() {
  finder.alias_handle = 1;
  finder.iIfNum = get_ifinfo();
  const int present = first_iface(tessel_get_present_iface, finder.present_if);
  const int active = first_iface(tessel_get_active_iface, finder.active_if);
  debug_log(" iIfPresentIndex=%d, iIfActivetIndex=%d\n", present, active);
  if (finder.iIfNum < 1 || present == 0 || active == 0) {
    print_console("Interface incorrect\n");
    return 0;
  }
  for (int i = 0; i < finder.iIfNum; ++i) {
    finder.fd[i] = open_socket();
    if (finder.fd[i] < 0) continue;
    const char* failure = prepare_socket(finder.fd[i], finder.act_if[i].name);
    if (failure != nullptr) {
      print_console("%s\n", failure);
      return 0;
    }
  }
  for (int i = 0; i < finder.iIfNum; ++i) debug_log(" Finderd_init: fd[%d]=%d\n", i, finder.fd[i]);
  return 1;
}

void Finderd_set_context(DeviceContext* context) {
  finder.ctx = context;
}

void Finderd_DST() {
  debug_log("~%s()\n", "Finderd_DST");
  for (std::int32_t& fd : finder.fd) {
    if (fd >= 0) close(fd);
    fd = -1;
  }
}

int Finderd_send(const std::uint8_t* buf, std::uint32_t len) {
  const int fd = finder.fd[finder.iReportSocketIndex];
  char to[INET_ADDRSTRLEN] = "";
  inet_ntop(AF_INET, &finder.peer.sin_addr, to, sizeof(to));
  debug_log("%s(), sendto: socket=%d, iReportSocketIndex=%d, len=%d, send_addr=%s\n", "Finderd_send", fd,
            finder.iReportSocketIndex, static_cast<int>(len), to);
  const ssize_t sent = sendto(fd, buf, len, 0, reinterpret_cast<const sockaddr*>(&finder.peer), sizeof(finder.peer));
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
