// libtessel.so: the camera's platform services: the process lock, network interfaces, the service's
// names, HTTP packets, and the standard algorithms MD5 and base64. The camera maker supplies the library.
//
// The caller owns every buffer; output texts are NUL-terminated within the stated size. Any thread may
// call; an object (reader, packet, MD5 context) belongs to one thread at a time.
#pragma once

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

// ---- Lock ----

/// Takes the named process lock and keeps it until the process ends, however it ends; what the process starts does not
/// inherit it. Non-zero when it was taken; 0 when another process holds it or it cannot be had at all, which callers
/// do not tell apart: the daemon ends.
int tessel_get_lock(const char* name);

// ---- Network interfaces ----

/// An interface in text form, 82 bytes without padding. Empty texts mean "none".
typedef struct _ACT_IF_INFO {
  char ip[16];    // dotted address
  char mac[18];   // six two-digit hexadecimal fields separated by colons
  char mask[16];  // dotted network mask
  char gw[16];    // dotted default gateway
  char name[16];  // interface name
} ACT_IF_INFO;

/// An interface in binary form, 24 bytes. Addresses are in_addr values (network byte order).
typedef struct IFINFO {
  uint8_t mac[6];
  uint8_t reserved6[2];
  uint32_t ip;
  uint32_t mask;
  uint32_t reserved16;
  uint32_t gateway;
} IFINFO;

/// An entry of the platform's interface list, 24 bytes.
typedef struct IF_METRIC {
  int32_t metric;
  char name[20];
} IF_METRIC;

/// A library may fill as many records as it has interfaces: callers of the two functions below pass an
/// array of this many, of which the first is the one that counts.
enum { TESSEL_MAX_IFACES = 8 };

/// Fills the active interface (the one that carries the default route) and its number, which is below
/// 1 when there is no usable interface; a library that knows only one numbering gives the system's. The result is not
/// used by callers.
int tessel_get_active_iface(ACT_IF_INFO* info, int* index);

/// Fills the present interfaces and the index of the first, which is 0 when there is none. The caller
/// sets `*index` to 0 before the call, and looks only whether it still is: the system's number serves, and so does 1.
/// The result is not used by callers.
int tessel_get_present_iface(ACT_IF_INFO* info, int* index);

/// Gives the interfaces in the platform's order of preference: an array of `*count` entries that the
/// library owns and that stays valid until the calling thread's next call; null when there are none.
const IF_METRIC* dev_get_if_metric(int* count);

/// Fills the binary record of the named interface; non-zero when the interface is up.
int get_active_interface(const char* name, IFINFO* out);

/// Fills the address, MAC, mask and gateway texts from the binary record; the name is left alone.
/// The result is not used by callers.
int fillActIfInfo(ACT_IF_INFO* out, IFINFO* in);

/// Fills a text made from the last three bytes of the camera's MAC address: six characters and the
/// terminator (`size` is 7). Non-zero on success.
int tessel_get_mac3(char* text, unsigned int size);

// ---- The service's names ----

/// Fills the redirect server's host name for a service domain (buffer of 64 bytes); 0 when it has none.
int tessel_get_skyport_url(const char* domain, char* host);

/// Fills the HTTP URL under which the service publishes this camera (at most 64 bytes); non-zero on
/// success.
int tessel_get_skyport_http_url(char* url);

// ---- HTTP packets ----

/// A header field of a parsed response, in the order of the response. The packet owns it.
typedef struct packetheader_field_node {
  const char* Field;                          // the field's name, terminated
  const char* FieldData;                      // its value, terminated
  struct packetheader_field_node* NextField;  // null at the end
} packetheader_field_node;

/// A request being built or a parsed response. Callers read only the two public members.
typedef struct packetheader {
  int32_t StatusCode;                   // of a response; 0 when it has none
  packetheader_field_node* FirstField;  // null when there are none
  void* opaque;                         // the library's own
} packetheader;

/// Reads one response from a socket. The caller clears it to zero before use.
typedef struct _ILibHCHTTPReaderObject {
  int32_t ClientSocket;        // set by ILibGetStreamSocket
  packetheader* PacketHeader;  // the parsed response, freed by the caller; null when nothing usable came
  char* Body;                  // the body, allocated with malloc, freed by the caller; may be null
  int32_t Body_Read;           // bytes in Body, which need not be terminated
  int32_t Body_Size;           // bytes allocated
  int32_t Body_Offset;         // the library's own
  void* opaque[4];             // the library's own; freed by the time ILibProcessSocketRecv returns
} ILibHCHTTPReaderObject;

/// The Digest state of RFC 2617 as the service's requests keep it, 612 bytes without padding. Texts are
/// NUL-terminated.
typedef struct AuthenticateInfo {
  uint32_t on;  // 1 once a challenge has been received
  char user[32];
  char pass[52];
  uint32_t nc;  // nonce count of the last request
  char method[6];
  char realm[32];  // the next four come from the challenge
  char nonce[128];
  char algorithm[32];  // echoed, never interpreted
  char qop[32];        // "auth", "auth-int" or empty
  char uri[128];
  char cnonce[128];
  char response[34];
} AuthenticateInfo;

/// Builds a request packet without credentials, for the service at host and port; `path` is a path or
/// an absolute URL. `user` is the account's name, for the library's own use: no field of the request is made of it, the
/// User-Agent least of all. Returns a packet that the caller frees with ILibDestructPacket; null on failure.
packetheader* httpBuildPacket(char* user, char* host, int port, char* path, char* method);

/// As httpBuildPacket, for a request that announces a body of the given length (decimal text). The
/// caller appends the body behind the serialised head.
packetheader* httpBuildPacket3(char* user, char* host, int port, char* path, char* method, char* content_length_text,
                               int content_length_text_len);

/// As httpBuildPacket, for a request that carries the given Authorization value. `with_body` 1
/// announces a body of `content_length` bytes, which the caller appends; 0 and 0 for requests without.
packetheader* httpBuildPacket_Auth_Encrypt(char* user, char* host, int port, char* uri, char* method,
                                           int content_length, char* authorization, int authorization_len,
                                           int with_body);

/// Serialises a packet into a new text, which the caller frees with free(). Returns its length.
int ILibGetRawPacket(packetheader* packet, char** raw);

/// Frees a packet, built or parsed; null is allowed.
void ILibDestructPacket(packetheader* packet);

/// Creates a TCP socket bound to the given local address and port (network byte order and host byte
/// order; 0 and 0 for any). Stores the descriptor, -1 on failure, and returns the local port. The socket is blocking,
/// and need not be closed on exec: the caller sees to that, and to the connection's time limit.
unsigned short ILibGetStreamSocket(int local_addr, unsigned short local_port, int* sock);

/// Reads from the reader's socket until one whole response is parsed, or nothing usable can come. It needs no deadline
/// of its own: the caller shuts the socket down, from another thread, 30 s after connecting. It must return then, at
/// once, with what a closed connection leaves.
void ILibProcessSocketRecv(ILibHCHTTPReaderObject* reader);

/// Closes the reader's socket (an ILibHCHTTPReaderObject*), when it is open, and marks it closed (-1).
void ILibForceClose(void* reader);

/// Finds the WWW-Authenticate field among a response's header fields and fills realm, nonce, algorithm
/// and qop; a parameter that the challenge lacks becomes empty.
void GetAuthenticateInfo(packetheader_field_node* first_header, AuthenticateInfo* auth);

// ---- MD5 (RFC 1321) ----

/// The library's state. Generous, so that any implementation fits.
typedef struct MD5_CTX {
  uint64_t opaque[32];
} MD5_CTX;

void MD5Init(MD5_CTX* context);
void MD5Update(MD5_CTX* context, unsigned char* data, unsigned int len);
void MD5Final(unsigned char digest[16], MD5_CTX* context);

// ---- base64 (RFC 4648, with padding, without line breaks) ----

/// Encodes `len` bytes into a terminated text of 4 * ((len + 2) / 3) characters. Returns its length.
int b64_encode(const void* in, unsigned int len, void* out);

/// Decodes `len` characters into at most 3 * (len / 4) + 2 bytes and a terminator behind them. Stops at
/// the first character that does not belong. Returns the decoded length.
int b64_decode(const void* in, unsigned int len, void* out);

#ifdef __cplusplus
}

static_assert(sizeof(ACT_IF_INFO) == 82 && offsetof(ACT_IF_INFO, mac) == 16 && offsetof(ACT_IF_INFO, mask) == 34 &&
              offsetof(ACT_IF_INFO, gw) == 50 && offsetof(ACT_IF_INFO, name) == 66);
static_assert(sizeof(IFINFO) == 24 && offsetof(IFINFO, ip) == 8 && offsetof(IFINFO, mask) == 12 &&
              offsetof(IFINFO, gateway) == 20);
static_assert(sizeof(IF_METRIC) == 24 && offsetof(IF_METRIC, name) == 4);
static_assert(sizeof(AuthenticateInfo) == 612 && offsetof(AuthenticateInfo, nc) == 88 &&
              offsetof(AuthenticateInfo, realm) == 98 && offsetof(AuthenticateInfo, response) == 578);
static_assert(sizeof(MD5_CTX) == 256);
#endif
