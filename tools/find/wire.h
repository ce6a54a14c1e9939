// The LAN finder protocol as a PC tool sees it: offset tables, one encoder, one decoder.
// Datagrams go to UDP port 62977 of the camera and come back from there. Integers are
// little-endian, addresses are in network order, texts end at a NUL or at the end of their field.
#pragma once

#include <netinet/in.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <initializer_list>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace finder {

inline constexpr std::uint16_t finder_port = 62977;
inline constexpr std::uint16_t request_magic = 0xFDFD;
inline constexpr std::uint16_t reply_magic = 0xFEEE;

using Bytes = std::span<const std::uint8_t>;
using Mac = std::array<std::uint8_t, 6>;
inline constexpr Mac any_camera{0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};

enum class Op : std::uint16_t {
  survey = 0x00A1,
  operations = 0x00A5,
  get_service = 0x00D1,
  set_service = 0x00D2,
  get_status = 0x0102,
  get_url = 0x0105,
  get_alias = 0x0106,
  set_alias = 0x0107,
  alias_status = 0x0108,
  service_survey = 0x0109,
  set_domain = 0x010A,
};

/// Place of a field: offset from the start of its header or payload, and size, in bytes.
struct Field {
  std::size_t at;
  std::size_t size;
};

/// True when the fields follow each other without gap or overlap and end at `size`.
consteval bool packed(std::initializer_list<Field> fields, std::size_t size) {
  std::size_t end = 0;
  for (const Field& f : fields) {
    if (f.at != end) return false;
    end += f.size;
  }
  return end == size;
}

inline constexpr std::size_t header_len = 22;

namespace request_header {
inline constexpr Field magic{0, 2}, tag{2, 2}, opcode{4, 2}, mac{6, 6}, reserved{12, 8}, length{20, 2};
static_assert(packed({magic, tag, opcode, mac, reserved, length}, header_len));
}  // namespace request_header

namespace reply_header {
inline constexpr Field magic{0, 2}, tag{2, 2}, opcode{4, 2}, mac{6, 6}, address{12, 4}, result{16, 2}, flag{18, 2},
    length{20, 2};
static_assert(packed({magic, tag, opcode, mac, address, result, flag, length}, header_len));
}  // namespace reply_header

/// Payload of an operation that needs the administrator; the argument follows, up to the end.
namespace credentials {
inline constexpr Field user{0, 64}, password{64, 64};  // base64, NUL-terminated
inline constexpr std::size_t payload_len = 128;
static_assert(packed({user, password}, payload_len));
/// Longest name or password in bytes: 60 base64 characters are the last multiple of 4 below 64.
inline constexpr std::size_t max_plain_len = 45;
}  // namespace credentials

inline constexpr std::size_t max_alias_len = 31;
inline constexpr std::size_t max_domain_len = 63;

namespace survey_reply {
inline constexpr Field brand{0, 64}, product{64, 64}, model{128, 32}, oem_version{160, 32}, product_type{192, 2},
    hardware{194, 4}, interface_mac{198, 6}, name{204, 64}, address{268, 4}, http_port{272, 2}, zero1{274, 2},
    mask{276, 4}, gateway{280, 4}, dns1{284, 4}, dns2{288, 4}, dhcp{292, 1}, local_time{293, 15}, zero2{308, 1},
    timezone{309, 2}, dst{311, 1};
inline constexpr std::size_t payload_len = 312;
static_assert(packed({brand, product, model,      oem_version, product_type, hardware, interface_mac,
                      name,  address, http_port,  zero1,       mask,         gateway,  dns1,
                      dns2,  dhcp,    local_time, zero2,       timezone,     dst},
                     payload_len));
}  // namespace survey_reply

namespace service_survey_reply {
inline constexpr Field brand{0, 64}, model{64, 32}, oem_version{96, 32}, client_version{128, 32}, own_mac{160, 6},
    name{166, 64}, url{230, 64}, address{294, 4}, http_port{298, 2}, https{300, 1}, zero{301, 3};
inline constexpr std::size_t payload_len = 304;
static_assert(packed({brand, model, oem_version, client_version, own_mac, name, url, address, http_port, https, zero},
                     payload_len));
}  // namespace service_survey_reply

/// Words of a small reply; which of them mean something depends on the operation:
///   registration state: conf_state, reason, detail     alias change: error_number, handle, 0
///   alias state:        error_number, status           service:      error_number, 0, 0
///   domain change:      error_number, 0, milliseconds until the camera is back
namespace small_reply {
inline constexpr Field word0{0, 4}, word1{4, 4}, word2{8, 4}, zero{12, 4};
inline constexpr std::size_t payload_len = 16;
static_assert(packed({word0, word1, word2, zero}, payload_len));
}  // namespace small_reply

namespace text_reply {
inline constexpr Field text{0, 64};
inline constexpr std::size_t payload_len = 64;
static_assert(packed({text}, payload_len));
}  // namespace text_reply

/// The operation list: opcodes of two bytes each.
namespace operations_reply {
inline constexpr std::size_t code_len = 2;
inline constexpr std::size_t payload_len = 17 * code_len;
}  // namespace operations_reply

/// What a camera does with an operation. Only surveys may be addressed to every camera at once.
struct OpInfo {
  const char* name;
  std::size_t reply_length;  // payload bytes of the handler's own reply
  Op op;
  bool needs_administrator;
};

inline constexpr OpInfo known_ops[] = {
    {"survey", survey_reply::payload_len, Op::survey, false},
    {"operation list", operations_reply::payload_len, Op::operations, true},
    {"service state", small_reply::payload_len, Op::get_service, false},
    {"service on or off", small_reply::payload_len, Op::set_service, true},
    {"registration state", small_reply::payload_len, Op::get_status, false},
    {"service address", text_reply::payload_len, Op::get_url, false},
    {"alias", text_reply::payload_len, Op::get_alias, true},
    {"alias change", small_reply::payload_len, Op::set_alias, true},
    {"alias state", small_reply::payload_len, Op::alias_status, true},
    {"service survey", service_survey_reply::payload_len, Op::service_survey, false},
    {"domain change", small_reply::payload_len, Op::set_domain, true},
};

/// Row of known_ops for an opcode, or null for one that the tool doesn't know.
const OpInfo* find_op(std::uint16_t opcode);

/// Checked reads out of a received header or payload. A field that lies beyond the end reads as
/// zeros or an empty text and leaves ok() false.
class Reader {
 public:
  explicit Reader(Bytes bytes) : bytes_(bytes) {}
  [[nodiscard]] bool ok() const { return ok_; }
  std::uint32_t number(Field f);  // at most 4 bytes
  std::string text(Field f);      // up to the first NUL, raw bytes of the network
  Mac mac(Field f);
  in_addr address(Field f);

 private:
  Bytes take(Field f);
  Bytes bytes_;
  bool ok_ = true;
};

struct Request {
  std::uint16_t tag = 0;  // comes back unchanged
  Op op = Op::survey;
  Mac mac = any_camera;
  std::string user;      // plain; user and password are sent only for operations that need them
  std::string password;  // plain, at most credentials::max_plain_len bytes each
  std::string argument;  // raw bytes behind the credentials, terminator included
};

/// The datagram of a request, empty when user or password don't fit their fields.
std::vector<std::uint8_t> encode(const Request& request);

struct Reply {
  std::uint16_t tag = 0;
  std::uint16_t opcode = 0;
  Mac mac{};
  in_addr address{};
  std::uint16_t result = 0;  // 0 success
  std::vector<std::uint8_t> payload;

  [[nodiscard]] Reader fields() const { return Reader(payload); }
  [[nodiscard]] std::uint32_t word(Field f) const { return fields().number(f); }
  /// The refusal of the credentials: result 1 and 16 zero bytes, whatever the operation. No
  /// handler of a protected operation answers so: each has a word that isn't zero on failure.
  [[nodiscard]] bool authentication_refused() const;
};

/// A received datagram, or nothing when magic or length are wrong.
std::optional<Reply> decode(Bytes datagram);

/// The survey of a camera's identity and network settings.
struct Survey {
  std::string brand, product, model, oem_version, name;
  std::uint16_t product_type = 0;  // 0 unknown, 1, 2
  std::uint32_t hardware = 0;
  Mac interface_mac{};
  in_addr address{}, mask{}, gateway{}, dns1{}, dns2{};
  std::uint16_t http_port = 0;
  bool dhcp = false;
  std::string local_time;  // YYYYMMDDhhmmss, empty when the camera couldn't tell
  std::uint16_t timezone = 0;
  bool dst = false;
};

/// The survey of a camera's remote access.
struct ServiceSurvey {
  std::string brand, model, oem_version, client_version, name, url;
  Mac own_mac{};
  in_addr address{};
  std::uint16_t http_port = 0;
  bool https = false;
};

/// Nothing when the payload is too short.
std::optional<Survey> decode_survey(Bytes payload);
std::optional<ServiceSurvey> decode_service_survey(Bytes payload);

/// "00:11:22:aa:bb:cc", both ways; six fields of one or two hexadecimal digits with ':' or '-'.
std::string to_text(const Mac& mac);
std::optional<Mac> parse_mac(std::string_view text);
std::string to_text(in_addr address);

}  // namespace finder
