// The service room's face: the requests to the service, one function each, and the refer file. A request
// never repeats itself: after request_challenged the caller calls again.
#pragma once

#include <cstddef>

#include "core/device_context.h"

namespace kestrel {

/// Results of every request that does not say otherwise. Any other value means another HTTP status.
constexpr int request_no_answer = 0;
constexpr int request_ok = 1;
constexpr int request_challenged = 2;  // repeat the request, it then carries credentials
constexpr int request_failed = 3;      // the enable report alone: no answer, or another status

/// Asks the redirect server for the device's access server and stores its address in `da_ip`, which
/// stays as it was when the answer does not name one. Main thread only.
[[nodiscard]] int srv_get_daip(DeviceContext* ctx);

/// Asks the access server from where it sees the camera and stores that in `e.ip` and `e.port`; each
/// stays as it was when the answer lacks it. Main thread only.
[[nodiscard]] int srv_get_eip(DeviceContext* ctx);

/// Reports the device and its addresses. `word` is not used; `info` is the Digest state. The socket is
/// left open when nothing usable was answered; the next call closes it. Main thread only.
[[nodiscard]] int srv_update(DeviceContext* dev, unsigned* word, AuthenticateInfo* info);

/// Has the service connect back to the mapped port. 1 when it reached the camera; 0 also when there is
/// no port to test; a negative number when the request could not be sent. Main thread only.
[[nodiscard]] int srv_connectback(DeviceContext* dev);

/// Sends the wanted alias. On a 200 answer that has a verdict, its text is copied to `verdict`
/// (verdict_len bytes). Main thread only.
[[nodiscard]] int srv_alias(DeviceContext* ctx, const char* alias, char* verdict);
constexpr std::size_t verdict_len = 32;

/// Sends the alias that the store keeps as requested and stores the service's verdict: ALIAS_OK,
/// ALIAS_DUPLICATE or ALIAS_FAILED. Up to 10 attempts, without a pause. Returns 0 when the service took
/// the alias, -1 otherwise, also when none was requested. Works on the current record; main thread only.
[[nodiscard]] int alias_follow_up();

/// Reports the user's switch for the service. 1 for a 200 answer, 2 for a challenge, 0 when no
/// connection could be made, 3 for anything else. Main thread only.
[[nodiscard]] int srv_enable_dev_account(DeviceContext* ctx, int enable, AuthenticateInfo* auth);

/// The finder's connection report: its body and the text of the last one, terminators included.
constexpr std::size_t first_connection_len = 4096;

/// Sends the first-connection record when it differs from `last_report` (first_connection_len bytes),
/// which then takes the new text, whether or not the report succeeds. 1 also when nothing changed. The
/// Digest state `auth` is the caller's own. Finder thread only.
[[nodiscard]] int conn_report(DeviceContext* ctx, AuthenticateInfo* auth, char* last_report);

/// Ends every exchange under way at once: it counts as not answered. Called when the daemon is to end; an exchange
/// that begins after that has a tenth of a second. Async-signal-safe; keeps errno.
void end_exchanges();

/// Writes the refer file, which other components of the camera read, at the platform's path: a JavaScript
/// statement with the timestamp and the host id, enciphered under the refer file's own key. What exceeds 31
/// characters together is cut. Returns 1, or 0 when it could not be written; the file is then empty or
/// untouched. Main thread only.
[[nodiscard]] int write_refer_file(const char* hid, const char* timestamp);

}  // namespace kestrel
