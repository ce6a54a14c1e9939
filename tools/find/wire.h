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

inline constexpr std::uint16_t kPort = 62977;
inline constexpr std::uint16_t kRequestMagic = 0xFDFD;
inline constexpr std::uint16_t kReplyMagic = 0xFEEE;

using Bytes = std::span<const std::uint8_t>;
using Mac = std::array<std::uint8_t, 6>;
inline constexpr Mac kAnyCamera{0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};

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

inline constexpr std::size_t kHeaderSize = 22;

namespace request_header {
inline constexpr Field kMagic{0, 2}, kTag{2, 2}, kOpcode{4, 2}, kMac{6, 6}, kReserved{12, 8}, kLength{20, 2};
static_assert(packed({kMagic, kTag, kOpcode, kMac, kReserved, kLength}, kHeaderSize));
}  // namespace request_header

namespace reply_header {
inline constexpr Field kMagic{0, 2}, kTag{2, 2}, kOpcode{4, 2}, kMac{6, 6}, kAddress{12, 4}, kResult{16, 2},
    kFlag{18, 2}, kLength{20, 2};
static_assert(packed({kMagic, kTag, kOpcode, kMac, kAddress, kResult, kFlag, kLength}, kHeaderSize));
}  // namespace reply_header

/// Payload of an operation that needs the administrator; the argument follows, up to the end.
namespace credentials {
inline constexpr Field kUser{0, 64}, kPassword{64, 64};  // base64, NUL-terminated
inline constexpr std::size_t kSize = 128;
static_assert(packed({kUser, kPassword}, kSize));
/// Longest name or password in bytes: 60 base64 characters are the last multiple of 4 below 64.
inline constexpr std::size_t kMaxPlain = 45;
}  // namespace credentials

inline constexpr std::size_t kMaxAlias = 31;
inline constexpr std::size_t kMaxDomain = 63;

namespace survey_reply {
inline constexpr Field kBrand{0, 64}, kProduct{64, 64}, kModel{128, 32}, kOemVersion{160, 32}, kProductType{192, 2},
    kHardware{194, 4}, kInterfaceMac{198, 6}, kName{204, 64}, kAddress{268, 4}, kHttpPort{272, 2}, kZero1{274, 2},
    kMask{276, 4}, kGateway{280, 4}, kDns1{284, 4}, kDns2{288, 4}, kDhcp{292, 1}, kLocalTime{293, 15}, kZero2{308, 1},
    kTimezone{309, 2}, kDst{311, 1};
inline constexpr std::size_t kSize = 312;
static_assert(packed({kBrand, kProduct, kModel,     kOemVersion, kProductType, kHardware, kInterfaceMac,
                      kName,  kAddress, kHttpPort,  kZero1,      kMask,        kGateway,  kDns1,
                      kDns2,  kDhcp,    kLocalTime, kZero2,      kTimezone,    kDst},
                     kSize));
}  // namespace survey_reply

namespace service_survey_reply {
inline constexpr Field kBrand{0, 64}, kModel{64, 32}, kOemVersion{96, 32}, kClientVersion{128, 32}, kOwnMac{160, 6},
    kName{166, 64}, kUrl{230, 64}, kAddress{294, 4}, kHttpPort{298, 2}, kHttps{300, 1}, kZero{301, 3};
inline constexpr std::size_t kSize = 304;
static_assert(packed({kBrand, kModel, kOemVersion, kClientVersion, kOwnMac, kName, kUrl, kAddress, kHttpPort, kHttps,
                      kZero},
                     kSize));
}  // namespace service_survey_reply

/// Words of a small reply; which of them mean something depends on the operation:
///   registration state: conf_state, reason, detail     alias change: error_number, handle, 0
///   alias state:        error_number, status           service:      error_number, 0, 0
///   domain change:      error_number, 0, milliseconds until the camera is back
namespace small_reply {
inline constexpr Field kWord0{0, 4}, kWord1{4, 4}, kWord2{8, 4}, kZero{12, 4};
inline constexpr std::size_t kSize = 16;
static_assert(packed({kWord0, kWord1, kWord2, kZero}, kSize));
}  // namespace small_reply

namespace text_reply {
inline constexpr Field kText{0, 64};
inline constexpr std::size_t kSize = 64;
static_assert(packed({kText}, kSize));
}  // namespace text_reply

/// The operation list: opcodes of two bytes each.
namespace operations_reply {
inline constexpr std::size_t kCodeSize = 2;
inline constexpr std::size_t kSize = 17 * kCodeSize;
}  // namespace operations_reply

/// What a camera does with an operation. Only surveys may be addressed to every camera at once.
struct OpInfo {
  const char* name;
  std::size_t reply_length;  // payload bytes of the handler's own reply
  Op op;
  bool needs_administrator;
};

inline constexpr OpInfo kOps[] = {
    {"survey", survey_reply::kSize, Op::survey, false},
    {"operation list", operations_reply::kSize, Op::operations, true},
    {"service state", small_reply::kSize, Op::get_service, false},
    {"service on or off", small_reply::kSize, Op::set_service, true},
    {"registration state", small_reply::kSize, Op::get_status, false},
    {"service address", text_reply::kSize, Op::get_url, false},
    {"alias", text_reply::kSize, Op::get_alias, true},
    {"alias change", small_reply::kSize, Op::set_alias, true},
    {"alias state", small_reply::kSize, Op::alias_status, true},
    {"service survey", service_survey_reply::kSize, Op::service_survey, false},
    {"domain change", small_reply::kSize, Op::set_domain, true},
};

/// Row of kOps for an opcode, or null for one that the tool doesn't know.
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
  Mac mac = kAnyCamera;
  std::string user;      // plain; user and password are sent only for operations that need them
  std::string password;  // plain, at most credentials::kMaxPlain bytes each
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
