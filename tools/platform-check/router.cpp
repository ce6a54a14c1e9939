// The readers of libupnpc.
#include "check.h"
#include "platform/upnpc.h"

namespace platform_check {

namespace {

constexpr int timeout_s = 8;
constexpr int probed_port = 50998;
constexpr Out integer{Kind::number, sizeof(int), sizeof(int)};

constexpr Out text(std::size_t stated, std::size_t room) {
  return {Kind::text, stated, room};
}

int discover(void* const out[], std::size_t /*size*/) {
  return Mupnpcp_discover(static_cast<MupnpIgd*>(out[0]), timeout_s);
}
int address(void* const out[], std::size_t /*size*/) {
  return Mupnpcp_get_eip(static_cast<char*>(out[0]), timeout_s);
}
int entry(void* const out[], std::size_t /*size*/) {
  return Mupnpcp_query_eport_all(static_cast<char*>(out[0]), 0, static_cast<int*>(out[1]), static_cast<char*>(out[2]),
                                 timeout_s);
}
/// Its results as those of the others: 0 when the outputs are filled.
int lookup(void* const out[], std::size_t /*size*/) {
  const int result =
      Mupnpcp_query_eport_ex(static_cast<char*>(out[0]), static_cast<char*>(out[1]), static_cast<int*>(out[2]),
                             static_cast<int*>(out[3]), probed_port, MUPNP_PROTOCOL_HTTP, timeout_s);
  if (result == MUPNP_MAPPED_HERE || result == MUPNP_MAPPED_ELSEWHERE) return 0;
  return result != 0 ? result : MUPNP_NO_ANSWER;
}

constexpr Row row(const char* name, const char* asked, int (*call)(void* const[], std::size_t),
                  std::array<Out, max_outs> outs, const char* without) {
  return {name, asked, call, outs, Result::zero_succeeds, without, false, nullptr, false, router_ms};
}

constexpr Row rows[] = {
    row("Mupnpcp_discover", "576 bytes, within 8 s", discover, {Out{Kind::bytes, sizeof(MupnpIgd), sizeof(MupnpIgd)}},
        "goes on as without a gateway"),
    row("Mupnpcp_get_eip", "16 bytes, within 8 s", address, {text(MUPNP_IP_LEN, MUPNP_CLIENT_LEN)},
        "takes the address from the service"),
    row("Mupnpcp_query_eport_all", "the first entry", entry,
        {text(MUPNP_DESCRIPTION_LEN, MUPNP_DESCRIPTION_LEN), integer, text(MUPNP_SHORT_LEN, MUPNP_SHORT_LEN)},
        "ends its clean-up"),
    row("Mupnpcp_query_eport_ex", "port 50998", lookup,
        {text(MUPNP_DESCRIPTION_LEN, MUPNP_DESCRIPTION_LEN), text(MUPNP_CLIENT_LEN, MUPNP_CLIENT_LEN), integer,
         integer},
        "tries the next port"),
};

}  // namespace

Rows router_rows() {
  return {rows, sizeof(rows) / sizeof(rows[0])};
}

}  // namespace platform_check
