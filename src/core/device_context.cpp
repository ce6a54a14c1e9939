// The two registration records, see device_context.h.
#include "core/device_context.h"

namespace kestrel {

DeviceContext current_record{};
DeviceContext last_record{};

}  // namespace kestrel
