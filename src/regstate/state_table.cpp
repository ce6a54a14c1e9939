// The state table and the record's defaults, see state_table.h.
#include "regstate/state_table.h"

#include <array>

#include "core/text.h"
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

constexpr bool rows_stand_at_their_numbers() {
  for (std::size_t i = 0; i < states.size(); ++i) {
    if (static_cast<std::size_t>(states[i].state) != i) return false;
  }
  return true;
}
static_assert(rows_stand_at_their_numbers());

template <std::size_t N>
void fill_empty(char (&text)[N], const char* value) {
  if (text[0] == '\0') copy_text(text, value);
}

}  // namespace

const char* state_name(RegState state) {
  const auto index = static_cast<std::size_t>(state);
  return index < states.size() ? states[index].name : "UNKNOWN";
}

void install_handlers(DeviceContext& ctx) {
  for (std::size_t i = 0; i < states.size(); ++i) ctx.handlers[i] = states[i].handler;
}

void fill_defaults(DeviceContext& ctx) {
  fill_empty(ctx.ue.ip, "null");
  fill_empty(ctx.ue.port, "0");
  fill_empty(ctx.igd.manufacturer, "n/a");
  fill_empty(ctx.igd.friendlyName, "n/a");
  fill_empty(ctx.igd.modelName, "n/a");
  fill_empty(ctx.igd.modelNumber, "n/a");
  fill_empty(ctx.igd.modelDescription, "n/a");
  fill_empty(ctx.igd.manufacturerURL, "n/a");
  fill_empty(ctx.igd.presentationURL, "n/a");
}

}  // namespace kestrel
