// Faults that a person or a test asks of the service: which path, what goes wrong, when and how often.
// Written PATH:KIND[=ARG][@WHEN][*COUNT]; docs/bench.md lists the kinds.
#pragma once

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace skyport {

enum class FaultKind {
  none,
  status,
  delay,
  drip,
  refuse,
  reset,
  cut,
  garbage,
  silent,
  oversize,
  bighead,
  chunked,
  nolength,
  stale,
  badbody,
  empty,
  plain,
  nononce,
  noqop,
  challenge,
};

/// Which requests a fault is for: all, those with right credentials, or those that get a challenge.
enum class FaultWhen { any, authorized, challenged };

struct Fault {
  std::string path;  // "*": every path
  FaultKind kind = FaultKind::none;
  std::string arg;    // as written
  double number = 0;  // the argument, or its default, of the kinds that take a number
  FaultWhen when = FaultWhen::any;
  int64_t left = -1;  // requests that it still strikes; -1: no end
};

/// Reads one fault; its path is one of `request_paths` or "*". False with a sentence in `error` when it cannot be one.
bool parse_fault(std::string_view spec, Fault& out, std::string& error);

/// The paths that the service serves.
inline constexpr const char* request_paths[] = {"/daip.html",  "/ext.html",    "/iupd.html",       "/connectbk.html",
                                                "/alias.html", "/enable.html", "/conn_report.html"};

/// What may be asked of a kind: its argument is "none", "number", "text" or "maybe text".
struct FaultChoice {
  const char* name;
  const char* argument;
  double least, most, usual;  // of a number; usual < 0: it must be given
  bool when_free;             // @auth and @challenge may narrow it
};
std::vector<FaultChoice> fault_choices();

/// The fault as it would be written, with the count that is left.
std::string fault_text(const Fault& fault);

/// True when a request that this fault strikes has no effect in the service (no registration and so on).
bool fault_prevents_work(FaultKind kind);

/// So many can be in force at a time; far more than a test needs, and few enough to hold and to show.
inline constexpr size_t max_faults = 1000;

/// The faults in force, in the order in which they were asked. Any thread may call.
class FaultList {
 public:
  /// Adds all of them, or none and false when there would be more than `max_faults`.
  [[nodiscard]] bool add(const std::vector<Fault>& faults);
  void clear();
  /// Ends the first fault that reads so. False when there is none.
  [[nodiscard]] bool remove(const std::string& text);
  std::vector<Fault> list();
  /// The first fault that fits, one of its count used up; kind `none` when there is none.
  Fault take(const std::string& path, bool authorized);

 private:
  std::mutex mutex_;
  std::vector<Fault> faults_;
};

}  // namespace skyport
