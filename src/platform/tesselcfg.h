// libtesselcfg.so: the camera's configuration and device information. The camera maker supplies
// the library; this header is the contract that it and the daemon keep.
//
// Conventions of every function here, unless it says otherwise:
//  - the result is non-zero on success and 0 when the value is not available (outputs then unspecified);
//  - output texts are NUL-terminated within the stated size; the caller owns every buffer;
//  - any thread may call, at any time.
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

// ---- Debug output ----

/// Fills the configured debug level (0 off; 1 to standard output, 4 to the log file, 5 both; other bits mean nothing)
/// and the debug token (buffer of 32 bytes), without which the level has no effect. The result is not used by callers.
int dbg_get_level_token(int* level, char* token);

// ---- Device identity ----

/// Fills the model name; at most `size` bytes, terminator included.
int dev_get_model_name(char* name, int size);
/// Fills the firmware version; at most `size` bytes (32 expected).
int dev_get_firmware_version(char* version, int size);
/// Fills the version of the remote-access client; at most `size` bytes (32 expected).
int dev_get_spt_version(char* version, int size);
/// Fills the OEM (firmware) version; at most `size` bytes (32 expected).
int dev_get_oem_version(char* version, int size);
/// Fills the brand name; at most `size` bytes (64 expected).
int dev_get_brand_name(char* name, unsigned int size);
/// Fills the product name; at most `size` bytes (64 expected).
int dev_get_product_name(char* name, unsigned int size);
/// Fills the name that the user gave the camera; at most `size` bytes (64 expected).
int dev_get_camera_name(char* name, unsigned int size);
/// Fills the platform type, one byte: 0 or 1 are known types.
int dev_get_product_type(char* type);
/// Fills the hardware specification word (32 significant bits).
int dev_get_hw_spec(unsigned long* spec);
/// Fills the timezone value; one or two bytes, at the library's choice. They are passed on to tools as they stand, so
/// their order and meaning are between the library and the tools; of one byte the second reads as 0.
int dev_get_timezone(char* timezone);
/// Fills the daylight-saving flag, one byte.
int dev_get_dst(char* dst);
/// Fills the path of the refer file; at most `size` bytes (32 expected).
int dev_get_refer_file_path(char* path, int size);

// ---- Network settings ----

/// Fills the camera's HTTP server port.
int net_get_http_srv_port(int* port);
/// Fills the HTTP-or-HTTPS flag, one byte.
int net_get_http_or_https(char* flag);
/// Fills the DHCP switch, one byte: 1 when the address comes by DHCP.
int net_get_dhcp_enable(char* enabled);
/// Fills the proxy (relay) server's host name (buffer of 64 bytes) and its port. An empty name or
/// port 0 means that none is configured.
int net_get_proxy_addr_port(char* host, int* port);

// ---- Service account and settings ----

/// Fills the service account: the host id (8 characters, buffer of at least 9 bytes) and the account
/// password (buffer of at least 52 bytes). 0 while the camera has no account yet.
int get_dev_sip_account(char* hid, char* password);
/// Stores the host id in the device configuration, for the camera's other programs: callers never read it back, and
/// log a failure and go on. Called with every look for the account that succeeds, so mostly with what is stored.
int cre_set_skyport_hid(char* hid);
/// Fills the configured service domain and the address text stored with it (64 bytes each).
int cre_get_skyport_domain_ip(char* domain, char* ip);
/// Stores the service domain.
int cre_set_skyport_domain(char* domain);
/// Fills the user's switch for the service, one byte: 0 off, 1 on.
int cre_get_skyport_enable_state(char* enabled);
/// Stores the user's switch for the service: 0 off, 1 on.
int cre_set_skyport_enable_state(char enabled);
/// Fills the last known address of the redirect server (dotted text, buffer of 16 bytes).
int get_redirsrv_ip(char* ip);
/// Stores the last known address of the redirect server (dotted text).
int set_redirsrv_ip(char* ip);

// ---- Users ----

/// Fills the administrator's user name; at most `size` bytes.
int cre_get_power_username(char* name, int size);
/// Fills the administrator's password; at most `size` bytes.
int cre_get_power_user_passwd(char* password, int size);
/// Fills the number of entries in the user table, one byte.
int cre_get_max_user_count(char* count);
/// Fills the name of the user table's entry `n`, counted from 1; at most `size` bytes.
int cre_get_user_name_by_count(unsigned int n, char* name, int size);

// ---- Service store: alias and first connection ----

/// Alias states of the store, one byte each. The name of the state is the name of the event that set it.
enum {
  ALIAS_REQUESTED = 1,
  ALIAS_OK = 16,
  ALIAS_DUPLICATE = 32,
  ALIAS_FAILED = 48,
};

// The alias's follow-up, which asks the service for a wanted alias, is a part of the daemon that no state calls; so the
// linker leaves srv_get_aliasname_status and srv_set_skyport_alias_status out of what the daemon imports.

/// Fills the wanted alias (buffer of 32 bytes) and its status byte.
int srv_get_aliasname_status(char* alias, char* status);
/// Stores an alias (at most 31 characters are kept) together with its status byte. With ALIAS_OK it becomes the last
/// alias that the service accepted, too, which srv_get_skyport_last_alias_name and the camera's URL go by; with any
/// other status that one stays.
int srv_update_aliasname_status(char* alias, char status);
/// Fills the alias status byte.
int srv_get_skyport_alias_status(char* status);
/// Stores the alias status byte alone.
int srv_set_skyport_alias_status(char status);
/// Fills the current alias name; at most `size` bytes.
int srv_get_skyport_alias_name(char* name, unsigned int size);
/// Fills the last alias that the service accepted; at most `size` bytes.
int srv_get_skyport_last_alias_name(char* name, unsigned int size);
/// Fills the first-connection record (XML elements, buffer of 4096 bytes). Without a record it is 0 or an empty text;
/// neither is reported.
int srv_get_first_connection(char* text);

#ifdef __cplusplus
}
#endif
