// The service's cipher as the bench has it, by nettle: what the daemon's own is checked against.
#pragma once

#include <cstdint>
#include <cstring>

#include "../../skyport/service_cipher.h"

namespace nettle_cipher {

using namespace service_cipher;

inline std::uint8_t* bytes(std::string& text) {
  return reinterpret_cast<std::uint8_t*>(text.data());
}
inline const std::uint8_t* bytes(const std::string& text) {
  return reinterpret_cast<const std::uint8_t*>(text.data());
}

}  // namespace nettle_cipher
