// Printing the story and the verdict, for people and as JSON. All foreign text is made printable here.
#pragma once

#include <cstdint>
#include <ctime>
#include <map>
#include <string>
#include <vector>

#include "story.h"
#include "verdict.h"

namespace explain {

/// When the log ends, as far as can be known.
struct LogEnd {
  std::uint64_t waited_s = 0;
  std::time_t changed = 0;  // 0: not known
};

class Printer {
 public:
  enum class Format { text, json };
  /// A live printer keeps nothing back; else a cycle is held until it can be compared with the one before, and cycles
  /// alike are told once.
  Printer(Format format, bool live) : format_(format), live_(live) {}
  void take(const Event& event);
  /// What was kept back.
  void flush();
  /// A remark of the tool's own.
  void remark(const std::string& text);
  void print_verdict(const Verdict& verdict, const LogEnd& end);

 private:
  struct Told {
    std::string key;   // what a cycle is compared by
    std::string text;  // the printed line or lines
  };
  void print_json(const Event& event);
  void tell(const Event& event);
  void put(Told told);
  void end_state();
  void fold_cycle();
  void end_run();
  void write(const std::string& text);
  Format format_;
  bool live_;
  bool headed_ = false;
  std::vector<Told> cycle_;                                // of the present cycle, not yet printed
  std::string printed_key_;                                // of the cycle that was printed last
  std::uint64_t alike_ = 0;                                // cycles after it that were like it
  std::map<std::string, unsigned, std::less<>> in_state_;  // how often each row came since the state was entered
  std::uint64_t untold_ = 0;
};

}  // namespace explain
