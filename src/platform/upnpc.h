// libupnpc.so: the camera's UPnP control point for Internet Gateway Devices (WANIPConnection and
// WANPPPConnection, versions 1 and 2). The camera maker supplies the library.
//
// `timeout` is in seconds and bounds the whole call. The functions work on the gateway that the last
// successful Mupnpcp_discover found. Main thread only.
#pragma once

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

/// The gateway's description: NUL-terminated texts, empty when the gateway gives none.
typedef struct MupnpIgd {
  char friendlyName[64];
  char manufacturer[64];
  char manufacturerURL[128];
  char modelName[32];
  char modelNumber[32];
  char modelDescription[128];
  char presentationURL[128];
} MupnpIgd;

/// Sizes of the text outputs below, terminators included.
enum {
  MUPNP_IP_LEN = 16,
  MUPNP_DESCRIPTION_LEN = 64,
  MUPNP_CLIENT_LEN = 64,
  MUPNP_SHORT_LEN = 10,
};

/// The protocol code of the camera's HTTP service.
enum { MUPNP_PROTOCOL_HTTP = 1 };

/// Results of Mupnpcp_query_eport_ex.
enum {
  MUPNP_MAPPED_HERE = 1,
  MUPNP_MAPPED_ELSEWHERE = 2,
  MUPNP_NOT_MAPPED = 3,
  MUPNP_NO_ANSWER = -1,
};

/// The result of Mupnp_del_eport for a mapping that the router does not have, and of
/// Mupnpcp_get_eip for a gateway that has no external address to give.
enum { MUPNP_NONE = 4 };

/// Searches the LAN for a gateway and fills its description.
/// 0 when one was found; any other value when none answered.
int Mupnpcp_discover(MupnpIgd* igd, int timeout);

/// Fills the gateway's external address (dotted text, 16 bytes).
/// 0 on success; MUPNP_NONE and other values on failure.
int Mupnpcp_get_eip(char* ip, int timeout);

/// Reads the router's mapping table at `index`, counted from 0: fills the description (64 bytes), the
/// external port and a short text (10 bytes: the protocol's name).
/// 0 when an entry exists there; -1 for no answer; any other value for the end of the table or an error.
int Mupnpcp_query_eport_all(char* description, int index, int* external_port, char* protocol_name, int timeout);

/// Looks up the mapping of `external_port`: fills the description and the internal client (64 bytes
/// each), the internal port and the lease in seconds.
/// MUPNP_MAPPED_HERE: it points at this device; MUPNP_MAPPED_ELSEWHERE: at another internal client;
/// MUPNP_NOT_MAPPED: no mapping (outputs untouched); MUPNP_NO_ANSWER; other values are errors.
int Mupnpcp_query_eport_ex(char* description, char* internal_client, int* internal_port, int* lease_s,
                           int external_port, int protocol, int timeout);

/// Maps `external_port` to this device's `internal_port`, with the library's own lease. 0 on success.
int Mupnp_add_eport(const char* description, int external_port, int internal_port, int protocol, int timeout);

/// Deletes the mapping of `external_port`. 0 on success; MUPNP_NONE when the router has no such
/// mapping; other non-zero values are failures.
int Mupnp_del_eport(int external_port, int protocol, int timeout);

#ifdef __cplusplus
}

static_assert(sizeof(MupnpIgd) == 576, "seven texts without padding");
#endif
