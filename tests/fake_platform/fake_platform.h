// The fake platform: every function of src/platform, the waits, the shell and the log, by the same symbols. One
// plain record says what they answer and keeps what they were asked.
#pragma once

#include <cstdint>
#include <deque>
#include <functional>
#include <initializer_list>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "platform/sptcontrol.h"
#include "platform/tessel.h"
#include "platform/tesselcfg.h"
#include "platform/upnpc.h"

using Texts = std::vector<std::string>;

/// A scripted result of a getter or setter that does its work and returns 0 all the same.
constexpr int silent_success = -1000;

/// An entry of the router's table.
struct FakeMapping {
  std::string description;
  int internal_port = 80;
  bool here = true;  // the internal client is this device
  int lease_s = 0;
};

/// A request as the packet builders got it.
struct FakeRequest {
  std::string builder, user, host, path, method, authorization;
  int port = 0;
  int content_length = -1;  // -1: none announced

  bool operator==(const FakeRequest&) const = default;
};

/// What ILibProcessSocketRecv delivers. A response without a status has 0.
struct FakeResponse {
  bool usable = true;  // false: no packet at all
  int status = 200;
  std::string body{};
};

/// Texts go out as they stand, cut to the size that the function's contract gives, and then without a
/// terminator: a daemon that trusts a library's texts is found out.
struct FakePlatform {
  // ---- What the functions answer ----

  /// Results by function, one a call; then `always`; then what the function would say by itself (mostly 1).
  std::map<std::string, std::deque<int>, std::less<>> once;
  std::map<std::string, int, std::less<>> always;
  /// Asked before both; for tests that choose every result of every call.
  std::function<std::optional<int>(const char* function)> decide;

  int debug_level = 0;
  std::string debug_token;
  std::string model = "LC-100", firmware = "1.2.3", spt_version = "3.0", oem_version = "7.8";
  std::string brand = "Lumen", product = "Eye", camera_name = "Porch", mac3 = "0A0B0C";
  std::string refer_path;
  std::string timezone{'\x08', '\0'};  // one or two bytes
  char product_type = 1, dst = 0;
  unsigned long hw_spec = 0x12345678;
  int http_port = 80;
  char https = 0, dhcp = 1;
  std::string proxy_host;
  int proxy_port = 0;
  std::string hid = "HID00001", password = "secret";
  std::string domain = "skyport.test", domain_ip;
  std::string redirect_host = "192.0.2.10", stored_redirect_ip;
  std::string http_url = "http://porch.skyport.test/";
  char enabled = 1;
  std::string admin = "admin", admin_password = "pw";
  Texts users;
  std::string alias, last_alias;
  char alias_status = ALIAS_OK;
  std::string first_connection;

  std::vector<ACT_IF_INFO> interfaces;  // the first is the active one
  int interface_index = 1;
  std::map<std::string, IFINFO> binary_interfaces;  // those that are up
  std::vector<IF_METRIC> metrics;

  bool gateway = true;
  MupnpIgd igd{};
  std::string router_ip = "198.51.100.7";
  std::map<int, FakeMapping> mappings;  // by external port

  std::deque<FakeResponse> responses;
  struct {
    std::string realm = "sky", nonce = "n0", algorithm = "MD5", qop = "auth";
  } challenge;
  bool challenge_fills = true;  // false: GetAuthenticateInfo finds nothing
  bool peer_gone = false;       // the service takes nothing: a send fails
  int raw_len = -1;             // a serialised head of this length; -1 as it is, 0 none

  long unix_time_s = 1'000'000'000, unix_time_us = 123456;  // of fake_clock

  // ---- What they were asked ----

  Texts calls;    // "function argument argument", in order; run_shell and the waits too
  Texts log;      // debug_log, formatted, without "KLOG"
  Texts console;  // print_console
  std::vector<FakeRequest> requests;
  Texts sent;  // the bytes of every exchange that came to its answer
  int live_packets = 0;
  std::vector<int> peers;     // the service's ends of the sockets
  std::uint64_t clock_s = 0;  // advanced by the waits

  /// Runs after a call was recorded and before it answers; and in the middle of every wait that sleeps.
  std::function<void(const std::string& call)> on_call;
  std::function<void(unsigned seconds)> on_wait;
};

extern FakePlatform fake;

/// Everything as at the beginning; what sockets a test left are closed.
void fake_reset();

/// The recorded calls that begin with one of the given texts.
Texts fake_calls(std::initializer_list<const char*> prefixes);

/// Logged lines that hold a text.
std::size_t fake_logged(const std::string& part);

/// Sockets of ILibGetStreamSocket that the daemon has not closed.
int fake_open_sockets();

// For the fakes themselves.
void fake_record(std::string call);
int fake_result(const char* function, int natural);
void fake_fill(char* out, std::size_t size, const std::string& text);
