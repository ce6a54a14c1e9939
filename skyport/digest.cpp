#include "digest.h"

#include <strings.h>
#include <sys/random.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <charconv>

#include "net.h"
#include "service_cipher.h"

namespace skyport {
namespace {

using service_cipher::md5_hex;

constexpr size_t max_nonces = 4096;
constexpr size_t nc_digits = 8;

std::string_view skip_blanks(std::string_view text) {
  const size_t start = text.find_first_not_of(" \t");
  return start == std::string_view::npos ? std::string_view() : text.substr(start);
}

/// Takes one `name=value` off the front of `text`.
bool take_field(std::string_view& text, std::string& name, std::string& value) {
  const size_t equals = text.find('=');
  if (equals == 0 || equals == std::string_view::npos) return false;
  name = text.substr(0, equals);
  while (!name.empty() && name.back() == ' ') name.pop_back();
  for (char& c : name) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  text = skip_blanks(text.substr(equals + 1));
  value.clear();
  if (!text.starts_with('"')) {
    const size_t end = std::min(text.find_first_of(" \t,"), text.size());
    value = text.substr(0, end);
    text.remove_prefix(end);
    return true;
  }
  size_t i = 1;
  for (; i < text.size() && text[i] != '"'; ++i) {
    if (text[i] == '\\' && i + 1 < text.size()) ++i;
    value += text[i];
  }
  if (i >= text.size()) return false;
  text.remove_prefix(i + 1);
  return true;
}

const std::string& field(const Credentials& credentials, std::string_view name) {
  static const std::string none;
  const auto found = credentials.find(name);
  return found == credentials.end() ? none : found->second;
}

/// The nonce count as a number. RFC 2617 writes it in hexadecimal; a client that counts in decimal
/// digits is read the same way, and its counts rise all the same.
bool parse_count(const std::string& text, uint64_t& count) {
  if (text.size() != nc_digits) return false;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), count, 16);
  return error == std::errc() && end == text.data() + text.size();
}

std::string expected_response(const Credentials& c, const std::string& method, const std::string& realm,
                              const std::string& password) {
  const std::string ha1 = md5_hex({field(c, "username"), realm, password});
  const std::string ha2 = md5_hex({method, field(c, "uri")});
  if (field(c, "qop").empty()) return md5_hex({ha1, field(c, "nonce"), ha2});
  return md5_hex({ha1, field(c, "nonce"), field(c, "nc"), field(c, "cnonce"), field(c, "qop"), ha2});
}

/// What is wrong with the header apart from its nonce, or an empty text.
std::string form_error(const Credentials& c, const std::string& target, const std::string& realm) {
  for (const char* name : {"username", "realm", "nonce", "uri", "response"})
    if (!c.contains(name)) return std::string("authorization lacks ") + name;
  if (field(c, "realm") != realm) return "authorization has another realm";
  if (target_path(field(c, "uri")) != target_path(target)) return "authorization's uri is not the request's";
  const std::string& algorithm = field(c, "algorithm");
  if (!algorithm.empty() && strcasecmp(algorithm.c_str(), "MD5") != 0) return "authorization has another algorithm";
  const std::string& qop = field(c, "qop");
  if (qop.empty()) return "";
  if (qop != "auth") return "authorization has another qop";
  uint64_t count = 0;
  if (!parse_count(field(c, "nc"), count)) return "nc is not eight digits";
  return field(c, "cnonce").empty() ? "authorization lacks cnonce" : "";
}

}  // namespace

std::string target_path(std::string_view target) {
  const size_t scheme = target.find("://");
  if (!target.starts_with('/') && scheme != std::string_view::npos) {
    const size_t slash = target.find('/', scheme + 3);
    target = slash == std::string_view::npos ? std::string_view("/") : target.substr(slash);
  }
  return std::string(target.substr(0, target.find_first_of("?#")));
}

bool parse_authorization(std::string_view header, Credentials& out) {
  constexpr std::string_view scheme = "Digest ";
  out.clear();
  if (header.size() < scheme.size() || strncasecmp(header.data(), scheme.data(), scheme.size()) != 0) return false;
  std::string_view rest = skip_blanks(header.substr(scheme.size()));
  std::string name;
  std::string value;
  while (!rest.empty()) {
    if (!take_field(rest, name, value) || !out.emplace(name, value).second) return false;
    rest = skip_blanks(rest);
    if (rest.empty()) break;
    if (rest.front() != ',') return false;
    rest = skip_blanks(rest.substr(1));
  }
  return !out.empty();
}

std::string NonceTable::give(const std::string& method, const std::string& path, bool with_qop) {
  std::array<unsigned char, 16> random{};
  if (getrandom(random.data(), random.size(), 0) != static_cast<ssize_t>(random.size()))
    throw std::system_error(errno, std::generic_category(), "getrandom");
  std::string nonce = md5_hex(std::string_view(reinterpret_cast<const char*>(random.data()), random.size()));
  const std::lock_guard lock(mutex_);
  entries_[nonce] = {steady_ms() + timeout_ms_, 0, with_qop, per_path_ ? method + ' ' + path : ""};
  order_.push_back(nonce);
  if (order_.size() > max_nonces) {
    entries_.erase(order_.front());
    order_.pop_front();
  }
  return nonce;
}

AuthResult NonceTable::check(const Credentials& c, const std::string& method, const std::string& target,
                             const std::string& realm, const std::string& password) {
  if (std::string error = form_error(c, target, realm); !error.empty()) return {AuthVerdict::wrong, error};
  if (field(c, "response") != expected_response(c, method, realm, password))
    return {AuthVerdict::wrong, "response does not match"};

  const std::lock_guard lock(mutex_);
  const auto found = entries_.find(field(c, "nonce"));
  if (found == entries_.end()) return {AuthVerdict::stale, "nonce is not known"};
  Entry& entry = found->second;
  if (steady_ms() > entry.expires_ms) return {AuthVerdict::stale, "nonce has expired"};
  if (!entry.scope.empty() && entry.scope != method + ' ' + target_path(target))
    return {AuthVerdict::stale, "nonce is for another path"};
  if (entry.with_qop == field(c, "qop").empty()) return {AuthVerdict::wrong, "qop is not the challenge's"};
  if (!entry.with_qop) return {AuthVerdict::right, ""};
  uint64_t count = 0;
  parse_count(field(c, "nc"), count);
  if (count <= entry.count) return {AuthVerdict::stale, "nc " + field(c, "nc") + " is not above the last one"};
  entry.count = count;
  return {AuthVerdict::right, ""};
}

}  // namespace skyport
