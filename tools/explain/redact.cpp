// What is secret in a log's lines, see redact.h.
#include "redact.h"

#include <arpa/inet.h>
#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <stdexcept>

#include "output.h"
#include "table.h"

namespace explain {
namespace {

constexpr std::size_t max_words = 65536;  // different values; a daemon's log has some hundred
constexpr std::size_t max_globals = 256;
constexpr std::size_t min_global_len = 4;   // what is shorter stands in too many other words
constexpr std::size_t min_base64_len = 40;  // a body; nonces are shorter

/// A line's format, and what its arguments are; an empty kind is no secret.
struct Field {
  std::string_view format;
  std::array<std::string_view, 3> kinds;
};
constexpr std::array<Field, 25> fields = {{
    {"get_dev_sip_account success, hid=%s, password=%s", {"hid", "password"}},
    {"=> hid=(%s)", {"hid"}},
    {"=> user=(%s)", {"hid"}},
    {"=> pass=(%s)", {"password"}},
    {"user name=(%s)", {"hid"}},
    {"hid=%s", {"hid"}},
    {"hid: c(%s)-l(%s)", {"hid", "hid"}},
    {"=> uid=(%s)", {"uid"}},
    {"uid   : c(%s)-l(%s)", {"uid", "uid"}},
    {"chname=%s-1.2-%s", {"uid", ""}},
    {"<name>%s-1.2-%s</name>", {"uid", ""}},
    {"sname : c(%s)-l(%s)", {"name", "name"}},
    {"eport:(%s) Added by:(%s), try netxt", {"", "owner"}},
    {"nonce=%s", {"nonce"}},
    {"cnonce=%s(%d)", {"nonce", ""}},
    {"cnonce=%s (%d)", {"nonce", ""}},
    {"%s %d Timestamp=%s", {"", "", "stamp"}},
    {"timestamp=%s", {"stamp"}},
    {"tstamp=%s", {"stamp"}},
    {"b64_username %s", {"user"}},
    {"username %s", {"user"}},
    {"password '%s'", {"tool-password"}},
    {"======== uid_info : %s-1.2 ========", {"uid"}},
    {"algorithm=%s", {""}},
    {"cnonce=%s", {"nonce"}},
}};

/// A secret that stands between two texts, anywhere in a line; without a second one, up to the line's end.
struct Enclosed {
  std::string_view open;
  std::string_view close;
  std::string_view kind;
};
constexpr std::array<Enclosed, 13> enclosures = {{
    {"<hid>", "</hid>", "hid"},
    {"<tstamp>", "</tstamp>", "stamp"},
    {"<ah>", "</ah>", "name"},
    {"username=\"", "\"", "hid"},
    {"nonce=\"", "\"", "nonce"},  // cnonce too
    {"response=\"", "\"", "response"},
    {"opaque=\"", "\"", "nonce"},
    // Of lines that another program has put something before.
    {"=> hid=(", ")", "hid"},
    {"=> user=(", ")", "hid"},
    {"=> uid=(", ")", "uid"},
    {"=> pass=(", "", "password"},
    {", password=", "", "password"},
    {"password '", "", "tool-password"},
}};

/// Kinds whose values are replaced wherever they stand.
constexpr std::array<std::string_view, 4> global_kinds = {"hid", "password", "uid", "name"};
/// Lines whose dotted numbers are versions.
constexpr std::array<std::string_view, 6> versions = {"FirmwareVersion=", "SkyportVersion=", "<ver>",
                                                      "<sptver>",         "modelNumber=",    "Lumen device"};

/// The log's words that a global replacement would hit.
bool is_word_of_log(std::string_view value) {
  const auto& table = rows();
  return std::any_of(table.begin(), table.end(),
                     [&](const Row& row) { return row.text.find(value) != std::string_view::npos; });
}

constexpr std::string_view daemons_mark = "KLOG";
constexpr std::string_view letters = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";
constexpr std::string_view number_chars = "0123456789.";
constexpr std::string_view base64_chars = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/=";
constexpr std::size_t mac_len = 17;

/// Where an enclosed secret ends that begins at `at`.
std::size_t end_of(const Enclosed& enclosed, std::string_view text, std::size_t at) {
  return enclosed.close.empty() ? text.size() : std::min(text.find(enclosed.close, at), text.size());
}

/// Cuts off what stands before the daemon's line, which is all of it without the daemon's mark: times and names by
/// which a journal or a mail program knows the line.
std::string_view cut_prefix(std::string_view& text) {
  const std::size_t mark = text.find(daemons_mark);
  if (mark == std::string_view::npos) return {};
  const std::string_view prefix = text.substr(0, mark);
  text.remove_prefix(mark);
  return prefix;
}

bool is_base64(std::string_view text) {
  return !text.empty() && text.find_first_not_of(base64_chars) == std::string_view::npos;
}

/// Six pairs of hexadecimal digits.
bool is_mac(std::string_view run) {
  if (run.size() != mac_len || (run[2] != ':' && run[2] != '-')) return false;
  for (std::size_t i = 0; i < run.size(); ++i) {
    const bool separator = i % 3 == 2;
    if (separator ? run[i] != run[2] : std::isxdigit(static_cast<unsigned char>(run[i])) == 0) return false;
  }
  return true;
}

constexpr std::uint32_t ip(std::uint32_t a, std::uint32_t b, std::uint32_t c = 0) {
  return a << 24U | b << 16U | c << 8U;
}

bool in(std::uint32_t address, std::uint32_t net, unsigned bits) {
  return (address ^ net) >> (32U - bits) == 0;
}

std::string dotted(std::uint32_t address) {
  return fmt::format("{}.{}.{}.{}", address >> 24U, address >> 16U & 255U, address >> 8U & 255U, address & 255U);
}

/// The nth stand-in of the internet's addresses: from the nets that are set apart for examples, then for benchmarks.
std::uint32_t public_stand_in(std::size_t n) {
  constexpr std::array<std::uint32_t, 3> nets = {ip(203, 0, 113), ip(198, 51, 100), ip(192, 0, 2)};
  constexpr std::size_t hosts = 254;
  if (n <= hosts * nets.size()) return nets[(n - 1) / hosts] + static_cast<std::uint32_t>((n - 1) % hosts) + 1;
  return ip(198, 18) + static_cast<std::uint32_t>(n);
}

}  // namespace

std::string Redactor::word_for(std::string_view kind, std::string_view value) {
  if (value.empty()) return {};
  auto& values = words_[std::string(kind)];
  auto found = values.find(value);
  if (found == values.end()) {
    if (++known_ > max_words) {
      throw std::runtime_error(fmt::format("more than {} different secrets; this is no daemon's log", max_words));
    }
    found = values.emplace(std::string(value), values.size() + 1).first;
  }
  return fmt::format("[{}-{}]", kind, found->second);
}

void Redactor::learn_global(std::string_view kind, std::string_view value) {
  if (value.empty() || std::find(global_kinds.begin(), global_kinds.end(), kind) == global_kinds.end()) return;
  const auto same = [&](const auto& global) { return global.first == value; };
  if (std::any_of(globals_.begin(), globals_.end(), same)) return;
  if (value.size() < min_global_len || is_word_of_log(value)) {
    common_word_ = true;
    return;
  }
  if (globals_.size() >= max_globals) throw std::runtime_error("too many host ids and passwords for a daemon's log");
  const auto place = std::find_if(globals_.begin(), globals_.end(),
                                  [&](const auto& global) { return global.first.size() < value.size(); });
  globals_.emplace(place, std::string(value), word_for(kind, value));
}

void Redactor::learn(const Line& line) {
  std::string_view text = trimmed(line.text);
  cut_prefix(text);
  if (text.starts_with(daemons_mark)) text = trimmed(text.substr(daemons_mark.size()));
  is_daemons_ = is_daemons_ || !find_rows(text).empty();
  std::vector<std::string_view> arguments;
  for (const Field& field : fields) {
    if (!fits(field.format, text, arguments)) continue;
    for (std::size_t i = 0; i < arguments.size(); ++i) learn_global(field.kinds[i], arguments[i]);
    return;
  }
  for (const Enclosed& enclosed : enclosures) {
    const std::size_t open = text.find(enclosed.open);
    if (open == std::string_view::npos) continue;
    const std::string_view rest = text.substr(open + enclosed.open.size());
    if (rest.find(enclosed.close) == std::string_view::npos) continue;
    learn_global(enclosed.kind, rest.substr(0, end_of(enclosed, rest, 0)));
  }
}

std::string Redactor::fields_replaced(std::string_view line) {
  std::vector<std::string_view> arguments;
  for (const Field& field : fields) {
    if (!fits(field.format, line, arguments)) continue;
    std::string text;
    const char* from = line.data();
    for (std::size_t i = 0; i < arguments.size(); ++i) {
      if (field.kinds[i].empty()) continue;
      text.append(from, arguments[i].data());
      text += word_for(field.kinds[i], arguments[i]);
      from = arguments[i].data() + arguments[i].size();
    }
    return text.append(from, line.data() + line.size());
  }
  return std::string(line);
}

std::string Redactor::enclosed_replaced(std::string text) {
  for (const Enclosed& enclosed : enclosures) {
    for (std::size_t at = text.find(enclosed.open); at != std::string::npos; at = text.find(enclosed.open, at)) {
      at += enclosed.open.size();
      // A text that was cut has no end; what stands there is the secret all the same.
      const std::size_t len = end_of(enclosed, text, at) - at;
      // Done already, as the field of a line that is known.
      if (text.compare(at, enclosed.kind.size() + 1, fmt::format("[{}", enclosed.kind)) == 0) continue;
      const std::string word = word_for(enclosed.kind, std::string_view(text).substr(at, len));
      text.replace(at, len, word);
      at += word.size();
    }
  }
  return text;
}

std::string Redactor::globals_replaced(std::string text) const {
  for (const auto& [value, word] : globals_) {
    for (std::size_t at = text.find(value); at != std::string::npos; at = text.find(value, at + word.size())) {
      text.replace(at, value.size(), word);
    }
  }
  return text;
}

std::string Redactor::address_for(std::string_view text, std::uint32_t number) {
  const bool special = in(number, 0, 8) || in(number, ip(127, 0), 8) || number >= ip(224, 0);
  struct Range {
    std::uint32_t net;
    unsigned bits;
  };
  constexpr std::array<Range, 3> private_ranges = {{{ip(10, 0), 8}, {ip(172, 16), 12}, {ip(192, 168), 16}}};
  const auto* range = std::find_if(private_ranges.begin(), private_ranges.end(),
                                   [&](const Range& r) { return in(number, r.net, r.bits); });
  const bool is_private = range != private_ranges.end();
  if (special || (is_private && addresses_ != Addresses::all)) return std::string(text);
  const std::string kind = is_private ? fmt::format("net {}", range->net) : "net";
  static_cast<void>(word_for(kind, text));
  const std::size_t n = words_.find(kind)->second.find(text)->second;
  return dotted(is_private ? range->net + static_cast<std::uint32_t>(n & 0xFFFFU) : public_stand_in(n));
}

/// What the rest of a line begins with, taken off it: a hardware address, a body, an address, or plain text.
std::string Redactor::token_replaced(std::string_view& rest, char before, bool with_addresses) {
  const auto take = [&](std::size_t len) {
    const std::string_view part = rest.substr(0, len);
    rest.remove_prefix(part.size());
    return std::string(part);
  };
  const auto span = [&](std::string_view chars) { return std::min(rest.find_first_not_of(chars), rest.size()); };
  if (std::isalnum(static_cast<unsigned char>(before)) == 0 && is_mac(rest.substr(0, mac_len))) {
    std::string mac = take(mac_len);
    std::transform(mac.begin(), mac.end(), mac.begin(),
                   [](unsigned char c) { return c == '-' ? ':' : static_cast<char>(std::tolower(c)); });
    return word_for("mac", mac);
  }
  const std::size_t word_len = span(base64_chars);
  if (word_len >= min_base64_len) {
    const std::string body = take(word_len);
    return word_for("body", body);
  }
  const std::size_t number_len = span(number_chars);
  if (number_len == 0) return take(std::max<std::size_t>(1, span(letters)));
  std::string number = take(number_len);
  const std::size_t last = number.find_last_not_of('.') + 1;
  const std::string dots = number.substr(last);
  number.resize(last);
  in_addr address{};
  if (with_addresses && inet_pton(AF_INET, number.c_str(), &address) == 1) {
    number = address_for(number, ntohl(address.s_addr));
  }
  return number + dots;
}

std::string Redactor::tokens_replaced(std::string_view text, bool with_addresses) {
  std::string out;
  char before = ' ';
  while (!text.empty()) {
    const std::string_view rest = text;
    out += token_replaced(text, before, with_addresses);
    before = rest[rest.size() - text.size() - 1];
  }
  return out;
}

std::string Redactor::rewrite(const Line& line) {
  std::string_view text = line.text;
  const std::string prefix =
      tokens_replaced(globals_replaced(std::string(cut_prefix(text))), addresses_ != Addresses::none);
  const bool marked = text.starts_with(daemons_mark);
  if (marked) text.remove_prefix(daemons_mark.size());
  const std::string_view core = trimmed(text);
  const std::string lead(text.substr(0, core.empty() ? 0 : static_cast<std::size_t>(core.data() - text.data())));
  std::string out;
  // The last part of a body in several lines may be short.
  const std::string_view body = core.ends_with("<--") ? core.substr(0, core.size() - 3) : core;
  if (core == "<--") {
    in_body_ = !in_body_;
    out = core;
  } else if (in_body_ && !marked && is_base64(body)) {
    out = word_for("body", body) + std::string(core.substr(body.size()));
    in_body_ = body.size() == core.size();
  } else {
    in_body_ = false;
    const bool with_addresses =
        addresses_ != Addresses::none &&
        std::none_of(versions.begin(), versions.end(), [&](std::string_view start) { return core.starts_with(start); });
    out = tokens_replaced(globals_replaced(enclosed_replaced(fields_replaced(core))), with_addresses);
  }
  if (line.cut > 0) out += fmt::format(" [{} bytes cut]", line.cut);
  const auto harmless = [](char c) { return c >= ' ' && c <= '~'; };
  if (!std::all_of(out.begin(), out.end(), harmless)) out = finder::printable(out);
  return finder::printable(prefix) + (marked ? std::string(daemons_mark) : "") + finder::printable(lead) + out;
}

}  // namespace explain
