// What the POST requests share: six random digits, the XML, the cipher.
#ifndef KESTREL_SERVICE_POST_BODY_H
#define KESTREL_SERVICE_POST_BODY_H

#include <cstddef>

namespace kestrel {

/// Clears `body` (`size` bytes) and writes six random digits and then the formatted XML. Returns 1, or 0
/// when it does not fit; `body` is then cut and must not be sent.
[[gnu::format(printf, 3, 4)]] int write_body(char* body, std::size_t size, const char* xml_format, ...);

}  // namespace kestrel

#endif
