// The registration record on which everything works: plain data, so that every room may read it. What
// the states do stands in regstate/.
#pragma once

#include <pthread.h>

#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "core/shared_word.h"
#include "platform/tessel.h"
#include "platform/upnpc.h"

namespace kestrel {

/// Sizes of the texts that several rooms share, terminators included.
constexpr std::size_t ip_len = 16;   // a dotted IPv4 address
constexpr std::size_t port_len = 6;  // a decimal port
constexpr std::size_t uid_len = 64;  // the device uid

/// Characters of a relay's address; a shorter text counts as none.
constexpr std::size_t min_proxy_ip_len = 7;

/// The states of a registration cycle. The numbers go over the wire and index the handler table.
enum RegState : std::int32_t {
  START = 0,
  IpReady = 1,
  InternetReady = 2,
  NATMode = 3,
  PublicMode = 4,
  UPnP = 5,
  NoUPnP = 6,
  UPnP_A = 7,
  UPnP_B = 8,
  NATU = 9,
  NAT1 = 10,
  NATM = 11,
  UpnpPfReady = 12,
  UpnpPfFailed = 13,
  LumenDevPartDone = 14,
  LumenDevDone = 15,
  LumenDevNotReady = 16,
  UNKNOWN = 17,  // written by the exit signal only; has no handler
};

constexpr std::size_t state_count = 17;

/// The result of a cycle's device update, as `upd.resut` holds it.
enum UpdateResult : std::uint32_t {
  update_failed = 0,
  update_done = 1,
  update_auth_failed = 2,
  update_bypassed = 3,
};

/// An address and a port as text.
struct Endpoint {
  char ip[ip_len];
  char port[port_len];
};

struct DeviceContext;
using StateHandler = void (*)(DeviceContext*);

/// The registration record. Two exist for the life of the process: the current record and the last one,
/// a copy of the current record as the last cycle left it. Texts are NUL-terminated; an empty text means "none".
///
/// The main thread owns both. "shared" marks what the finder thread reads and the signal handlers
/// write: only through core/shared_word.h, the main thread's own writes included.
struct DeviceContext {
  std::uint32_t run;            // shared: 1 while the daemon runs; the exit signal clears it
  std::uint32_t dev_reload;     // shared: 1 asks for a new start from state_init (SIGUSR1)
  std::uint32_t configure;      // shared: 1 asks for a hold at the next start-over (SIGUSR2)
  RegState prefinal_state;      // shared: the state from which the cycle's last state was entered
  RegState state;               // shared
  std::uint32_t pfok;           // 1 while a mapping of ours is believed to be in place
  std::uint32_t cb_fail_count;  // failed connect-back tests in this cycle
  char uid[uid_len];
  char hid[9];     // host id, 8 characters
  char sname[64];  // stays empty
  Endpoint e;      // external, as the service sees it
  Endpoint i;      // the camera's own LAN address and HTTP port
  Endpoint ue;     // the router's external address and the mapped port
  Endpoint proxy;  // shared: relay server; an ip of fewer than 7 characters means none
  struct {
    std::uint32_t resut;      // shared: an UpdateResult
    std::uint32_t starttime;  // logged only
  } upd;
  MupnpIgd igd;         // the gateway's description
  DeviceContext* last;  // null in the last record
  pthread_t finder_thread;
  std::int32_t pid;           // shared
  std::uint32_t update_word;  // handed to the device update, which does not use it
  char redir_ip[ip_len];      // shared: the redirect server
  char da_ip[ip_len];         // the device's access server
  std::uint32_t IsNeedQueryDAIP;
  AuthenticateInfo auth_info;
  StateHandler handlers[state_count];
  ACT_IF_INFO active_if;         // its ip is the camera's active address
  std::int8_t Last_Spt_Enabled;  // the switch last reported to the service; -1 unknown
  std::uint8_t proxy_tested;     // shared: 1 once this cycle goes through the relay
  char Timestamp[8];             // six digits
};

static_assert(std::is_trivially_copyable_v<DeviceContext>);

/// The two records. Zero until start-up sets `last` of the current one.
inline DeviceContext current_record{};
inline DeviceContext last_record{};

/// True once SIGTERM or SIGINT came: nothing is begun any more that takes time.
inline bool exit_requested(const DeviceContext& ctx = current_record) {
  return load_word(ctx.run) == 0;
}

/// The main thread's writes of shared words.
inline void set_state(DeviceContext& ctx, RegState state) {
  store_word(ctx.state, state);
}
inline void set_update_result(DeviceContext& ctx, UpdateResult result) {
  store_word(ctx.upd.resut, result);
}

}  // namespace kestrel
