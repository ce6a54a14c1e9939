// What the daemon did, as one text: calls of the fakes and log lines in their order, each ended by '/'.
#ifndef KESTREL_TESTS_TRACE_H
#define KESTREL_TESTS_TRACE_H

#include <functional>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "fake_platform/fake_platform.h"

/// The dump and the comment lines of the update decision are left out; line numbers
/// are a '#'.
class Trace {
 public:
  using Names = std::vector<std::pair<std::string, std::string>>;  // what a call begins with, and what stands for that;
                                                                   // nothing leaves it out

  explicit Trace(Names names) : names_(std::move(names)) {}
  Trace(const Trace&) = delete;
  Trace& operator=(const Trace&) = delete;

  /// Begins anew, after fake_reset(), which ends it.
  void listen() {
    text_.clear();
    logged_ = 0;
    in_dump_ = false;
    on_call = nullptr;
    fake.on_call = [this](const std::string& call) {
      take_log();
      if (const std::string name = shortened(call); !name.empty()) text_ += name + '/';
      if (on_call) on_call(call);
    };
  }

  /// Results of calls by their short names, one a call: "del=7,4 add=1".
  void script(const std::string& results) const {
    std::istringstream scripts(results);
    for (std::string script; scripts >> script;) {
      const std::size_t equals = script.find('=');
      std::string function = script.substr(0, equals);
      for (const auto& [beginning, name] : names_) {
        if (name == function + ' ') function = beginning.substr(0, beginning.find(' '));
      }
      std::istringstream values(script.substr(equals + 1));
      for (std::string value; std::getline(values, value, ',');) fake.once[function].push_back(std::stoi(value));
    }
  }

  /// Puts a result behind the call that was recorded last.
  void result(char result) { text_.insert(text_.size() - 1, {'=', result}); }

  /// The text so far, which then begins anew.
  std::string take() {
    take_log();
    return std::exchange(text_, "");
  }

  /// Runs behind every call that was recorded.
  std::function<void(const std::string& call)> on_call;

 private:
  void take_log() {
    for (; logged_ < fake.log.size(); ++logged_) {
      const std::string& line = fake.log[logged_];
      const bool dashes = line.starts_with("----------");
      if (dashes) in_dump_ = !in_dump_;
      if (dashes || in_dump_ || line.starts_with("<> ") || line == "must do first update\n") continue;
      for (const char c : line) {
        if (c != '\r') text_ += c == '\n' ? '/' : c;
      }
      mask_line_number(line);
    }
  }

  void mask_line_number(const std::string& line) {
    if (!line.starts_with("go_") && !line.starts_with("kestreld ")) return;
    const std::size_t from = text_.find_first_of(": ", text_.rfind(line.substr(0, 9))) + 1;
    const std::size_t to = text_.find_first_not_of("0123456789", from);
    text_.replace(from, to - from, "#");
  }

  std::string shortened(const std::string& call) const {
    for (const auto& [beginning, name] : names_) {
      if (call.starts_with(beginning)) return name.empty() ? "" : name + call.substr(beginning.size());
    }
    return call;
  }

  Names names_;
  std::string text_;
  std::size_t logged_ = 0;
  bool in_dump_ = false;
};

#endif
