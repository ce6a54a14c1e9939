// The seven texts of a gateway's description, named once: where each stands, and its lines in the log.
#pragma once

#include <array>
#include <cstddef>

#include "core/log_format.h"
#include "platform/upnpc.h"

namespace kestrel {

struct GatewayText {
  std::size_t at;  // in MupnpIgd
  std::size_t size;
  LogFormat<'s'> found_line;   // when the gateway was found
  LogFormat<'s'> update_line;  // in the device update
};

/// In the order of both logs. The label of the second found_line repeats the first; it is meant.
inline constexpr std::array<GatewayText, 7> gateway_texts = {{
    {offsetof(MupnpIgd, manufacturer), 64, "manufacturer=[%s]\n", "  manufacturer=%s\n"},
    {offsetof(MupnpIgd, manufacturerURL), 128, "manufacturer=[%s]\n", "  manufacturerURL=%s\n"},
    {offsetof(MupnpIgd, friendlyName), 64, "friendlyName=[%s]\n", "  friendlyName=%s\n"},
    {offsetof(MupnpIgd, modelName), 32, "modelName=[%s]\n", "  modelName=%s\n"},
    {offsetof(MupnpIgd, modelNumber), 32, "modelNumber=[%s]\n", "  modelNumber=%s\n"},
    {offsetof(MupnpIgd, modelDescription), 128, "modelDescription=[%s]\n", "  modelDescription=%s\n"},
    {offsetof(MupnpIgd, presentationURL), 128, "presentationURL=[%s]\n", "  presentationURL=%s\n"},
}};

constexpr std::size_t size_of_gateway_texts() {
  std::size_t sum = 0;
  for (const GatewayText& text : gateway_texts) sum += text.size;
  return sum;
}
static_assert(size_of_gateway_texts() == sizeof(MupnpIgd), "every text stands in the table, with its size");

inline char* gateway_text(MupnpIgd& igd, const GatewayText& text) {
  return reinterpret_cast<char*>(&igd) + text.at;
}
inline const char* gateway_text(const MupnpIgd& igd, const GatewayText& text) {
  return reinterpret_cast<const char*>(&igd) + text.at;
}

}  // namespace kestrel
