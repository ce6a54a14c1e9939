// The service's cipher as the bench has it, by nettle: what the daemon's own is checked against.
#pragma once

#include "../../skyport/service_cipher.h"

namespace nettle_cipher = service_cipher;
