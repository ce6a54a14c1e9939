// The state table, see state_table.h.
#include "regstate/state_table.h"

#include <algorithm>
#include <array>
#include <functional>

#include "regstate/handlers.h"

namespace kestrel {

namespace {

struct StateRow {
  RegState state;
  const char* name;
  StateHandler handler;
};

constexpr std::array<StateRow, state_count> states = {{
    {START, "START", go_START},
    {IpReady, "IpReady", go_IpReady},
    {InternetReady, "InternetReady", go_InternetReady},
    {NATMode, "NATMode", go_NATMode},
    {PublicMode, "PublicMode", go_PublicMode},
    {UPnP, "UPnP", go_UPnP},
    {NoUPnP, "NoUPnP", go_NoUPnP},
    {UPnP_A, "UPnP_A", go_UPnP_A},
    {UPnP_B, "UPnP_B", go_UPnP_B},
    {NATU, "NATU", go_NATU},
    {NAT1, "NAT1", go_NAT1},
    {NATM, "NATM", go_NATM},
    {UpnpPfReady, "UpnpPfReady", go_UpnpPfReady},
    {UpnpPfFailed, "UpnpPfFailed", go_UpnpPfFailed},
    {LumenDevPartDone, "LumenDevPartDone", go_LumenDevPartDone},
    {LumenDevDone, "LumenDevDone", go_LumenDevDone},
    {LumenDevNotReady, "LumenDevNotReady", go_LumenDevNotReady},
}};

// Every row stands at its number.
static_assert(std::ranges::adjacent_find(states, std::ranges::greater_equal{}, &StateRow::state) == states.end() &&
              states.back().state == state_count - 1);

}  // namespace

const char* state_name(RegState state) {
  const auto index = static_cast<std::size_t>(state);
  return index < states.size() ? states[index].name : "UNKNOWN";
}

void install_handlers(DeviceContext& ctx) {
  std::ranges::transform(states, ctx.handlers, &StateRow::handler);
}

}  // namespace kestrel
