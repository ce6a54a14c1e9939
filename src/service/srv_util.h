// The refer file, which other components of the camera read.
#ifndef KESTREL_SERVICE_SRV_UTIL_H
#define KESTREL_SERVICE_SRV_UTIL_H

namespace kestrel {

/// Writes the refer file at the platform's path: a JavaScript statement with the timestamp and the host
/// id, enciphered under the refer file's own key. What exceeds 31 characters together is cut. Returns 1,
/// or 0 when it could not be written; the file is then empty or untouched.
int write_refer_file(const char* hid, const char* timestamp);

}  // namespace kestrel

#endif
