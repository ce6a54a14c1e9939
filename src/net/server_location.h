// Where the service's servers are: the relay proxy and the redirect server, by name or from the store.
#pragma once

namespace kestrel {

/// Fills the proxy (relay) server's address (`ip`, ip_len bytes) and port (`port`, port_len bytes).
/// Returns 1; 0 when none is configured or its name does not resolve (outputs then untouched).
/// Main thread only: it resolves names.
int get_proxy_addr(char* ip, char* port);

/// Fills the redirect server's address (`ip`, ip_len bytes): resolved by name and remembered in the
/// platform's store, or, when the name does not resolve, the last one remembered. Returns 1, or 0 when
/// there is neither. Main thread only: it resolves names.
int resolve_redirect_server(char* ip);

}  // namespace kestrel
