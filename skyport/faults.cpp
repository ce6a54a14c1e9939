#include "faults.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <iterator>

#include "net.h"

namespace skyport {
namespace {

enum class Argument { none, number, text, maybe_text };

struct KindRow {
  const char* name;
  FaultKind kind;
  Argument argument;
  double least, most, usual;  // of a number; usual < 0: it must be given
  FaultWhen when;
  bool when_free;  // @auth and @challenge may narrow it
  bool prevents_work;
};

using enum FaultWhen;
constexpr double max_bytes = 1 << 30;
constexpr std::array kinds = {
    KindRow{"status", FaultKind::status, Argument::number, 200, 599, -1, any, true, true},
    KindRow{"delay", FaultKind::delay, Argument::number, 0, 3600, -1, any, true, false},
    KindRow{"drip", FaultKind::drip, Argument::number, 0, 3600, -1, any, true, false},
    KindRow{"refuse", FaultKind::refuse, Argument::none, 0, 0, 0, any, true, true},
    KindRow{"reset", FaultKind::reset, Argument::none, 0, 0, 0, any, true, true},
    KindRow{"cut", FaultKind::cut, Argument::number, 1, max_bytes, 0, any, true, false},
    KindRow{"garbage", FaultKind::garbage, Argument::number, 1, max_bytes, 512, any, true, true},
    KindRow{"silent", FaultKind::silent, Argument::number, 0, 3600, 300, any, true, true},
    KindRow{"oversize", FaultKind::oversize, Argument::number, 1, max_bytes, 8 << 20, any, true, true},
    KindRow{"bighead", FaultKind::bighead, Argument::number, 1, max_bytes, 1 << 20, any, true, true},
    KindRow{"chunked", FaultKind::chunked, Argument::none, 0, 0, 0, any, true, false},
    KindRow{"nolength", FaultKind::nolength, Argument::none, 0, 0, 0, any, true, false},
    KindRow{"stale", FaultKind::stale, Argument::none, 0, 0, 0, authorized, false, true},
    KindRow{"badbody", FaultKind::badbody, Argument::maybe_text, 0, 0, 0, authorized, false, false},
    KindRow{"empty", FaultKind::empty, Argument::none, 0, 0, 0, authorized, false, false},
    KindRow{"plain", FaultKind::plain, Argument::text, 0, 0, 0, authorized, false, false},
    KindRow{"nononce", FaultKind::nononce, Argument::none, 0, 0, 0, challenged, false, true},
    KindRow{"noqop", FaultKind::noqop, Argument::none, 0, 0, 0, challenged, false, true},
    KindRow{"challenge", FaultKind::challenge, Argument::text, 0, 0, 0, challenged, false, true},
};

struct WhenRow {
  const char* suffix;
  FaultWhen when;
};
constexpr WhenRow whens[] = {{"@auth", authorized}, {"@challenge", challenged}};

const KindRow* find_kind(std::string_view name) {
  const auto* const row = std::find_if(kinds.begin(), kinds.end(), [&](const KindRow& r) { return name == r.name; });
  return row == kinds.end() ? nullptr : row;
}

const KindRow& row_of(FaultKind kind) {
  return *std::find_if(kinds.begin(), kinds.end(), [&](const KindRow& r) { return kind == r.kind; });
}

bool take_count(std::string_view& rest, int64_t& count) {
  constexpr uint64_t max_count = 1000000;
  const size_t star = rest.rfind('*');
  uint64_t number = 0;
  if (star == std::string_view::npos || !parse_number(rest.substr(star + 1), max_count, number)) return true;
  rest = rest.substr(0, star);
  count = static_cast<int64_t>(number);
  return number > 0;
}

/// Reads the argument that `row` wants; false when it does not fit.
bool take_argument(const KindRow& row, bool given, Fault& out) {
  switch (row.argument) {
    case Argument::none:
      return !given;
    case Argument::text:
      return given;
    case Argument::maybe_text:
      return true;
    case Argument::number:
      break;
  }
  out.number = row.usual;
  if (!given) return row.usual >= 0;
  const char* const end = out.arg.data() + out.arg.size();
  const auto [stop, error] = std::from_chars(out.arg.data(), end, out.number, std::chars_format::fixed);
  return error == std::errc() && stop == end && out.number >= row.least && out.number <= row.most;
}

}  // namespace

bool parse_fault(std::string_view spec, Fault& out, std::string& error) {
  out = Fault();
  const std::string quoted = "fault '" + std::string(spec) + "' ";
  const size_t colon = spec.find(':');
  out.path = spec.substr(0, colon);
  if (colon == std::string_view::npos || (out.path != "*" && !out.path.starts_with('/'))) {
    error = quoted + "is not PATH:KIND[=ARG][@WHEN][*COUNT]";
    return false;
  }
  if (out.path != "*" && std::ranges::none_of(request_paths, [&](const char* path) { return out.path == path; })) {
    error = quoted + "names a path that is not served; * names all";
    return false;
  }
  std::string_view rest = spec.substr(colon + 1);
  if (!take_count(rest, out.left)) {
    error = quoted + "has a count of 0";
    return false;
  }
  const KindRow* const row = find_kind(rest.substr(0, rest.find_first_of("=@")));
  if (row == nullptr) {
    error = quoted + "has no known kind";
    return false;
  }
  out.kind = row->kind;
  out.when = row->when;
  if (row->when_free) {
    for (const WhenRow& when : whens) {
      if (!rest.ends_with(when.suffix)) continue;
      rest.remove_suffix(std::string_view(when.suffix).size());
      out.when = when.when;
      break;
    }
  }
  const size_t equals = rest.find('=');
  const bool given = equals != std::string_view::npos;
  if (given) out.arg = rest.substr(equals + 1);
  const size_t name_end = given ? equals : rest.size();
  if (name_end != std::string_view(row->name).size() || !take_argument(*row, given, out)) {
    error = quoted + "has an argument or a time that its kind does not take";
    return false;
  }
  return true;
}

std::string fault_text(const Fault& fault) {
  if (fault.kind == FaultKind::none) return "";
  const KindRow& row = row_of(fault.kind);
  std::string text = fault.path + ":" + row.name;
  if (row.argument == Argument::text || !fault.arg.empty()) text += "=" + fault.arg;
  for (const WhenRow& when : whens)
    if (row.when_free && fault.when == when.when) text += when.suffix;
  if (fault.left >= 0) text += "*" + std::to_string(fault.left);
  return text;
}

std::vector<FaultChoice> fault_choices() {
  constexpr const char* arguments[] = {"none", "number", "text", "maybe text"};
  std::vector<FaultChoice> choices;
  choices.reserve(kinds.size());
  for (const KindRow& row : kinds)
    choices.push_back(
        {row.name, arguments[static_cast<size_t>(row.argument)], row.least, row.most, row.usual, row.when_free});
  return choices;
}

bool fault_prevents_work(FaultKind kind) {
  return kind != FaultKind::none && row_of(kind).prevents_work;
}

bool FaultList::add(const std::vector<Fault>& faults) {
  const std::lock_guard lock(mutex_);
  if (faults.size() > max_faults - faults_.size()) return false;
  faults_.insert(faults_.end(), faults.begin(), faults.end());
  return true;
}

void FaultList::clear() {
  const std::lock_guard lock(mutex_);
  faults_.clear();
}

bool FaultList::remove(const std::string& text) {
  const std::lock_guard lock(mutex_);
  const auto found = std::ranges::find_if(faults_, [&](const Fault& f) { return fault_text(f) == text; });
  if (found == faults_.end()) return false;
  faults_.erase(found);
  return true;
}

std::vector<Fault> FaultList::list() {
  const std::lock_guard lock(mutex_);
  return faults_;
}

Fault FaultList::take(const std::string& path, bool is_authorized) {
  const std::lock_guard lock(mutex_);
  const FaultWhen now = is_authorized ? authorized : challenged;
  const auto found = std::find_if(faults_.begin(), faults_.end(), [&](const Fault& f) {
    return (f.path == "*" || f.path == path) && (f.when == any || f.when == now);
  });
  if (found == faults_.end()) return {};
  if (found->left > 0) --found->left;
  Fault taken = *found;
  if (found->left == 0) faults_.erase(found);
  return taken;
}

}  // namespace skyport
