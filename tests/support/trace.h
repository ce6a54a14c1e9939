// What the daemon did, as one text: calls of the fakes and log lines in their order, each ended by '/'.
#pragma once

#include <algorithm>
#include <functional>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "fake_platform/fake_platform.h"

/// The parts between separators; empty ones count, but for the last.
inline Texts split(const std::string& text, char separator = ' ') {
  std::istringstream stream(text);
  Texts parts;
  for (std::string part; std::getline(stream, part, separator);) parts.push_back(part);
  return parts;
}

/// The dump and the comment lines of the update decision are left out; line numbers are a '#'.
class Trace {
 public:
  /// What a call begins with, and what stands for that; nothing leaves the call out.
  using Names = std::vector<std::pair<std::string, std::string>>;

  explicit Trace(Names names) : names_(std::move(names)) {}
  Trace(const Trace&) = delete;
  Trace& operator=(const Trace&) = delete;

  /// Begins anew, after fake_reset(), which ends it. The results of calls are by short names, one a call:
  /// "del=7,4 add=1".
  void listen(const std::string& results = "") {
    text_.clear();
    logged_ = 0;
    on_call = nullptr;
    fake.on_call = [this](const std::string& call) {
      take_log();
      if (const std::string name = shortened(call); !name.empty()) text_ += name + '/';
      if (on_call) on_call(call);
    };
    for (const std::string& script : split(results)) {
      std::string function = split(script, '=')[0];
      for (const auto& [beginning, name] : names_) {
        if (name == function + ' ') function = split(beginning)[0];
      }
      for (const std::string& value : split(split(script, '=')[1], ','))
        fake.once[function].push_back(std::stoi(value));
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
      std::string line = fake.log[logged_];
      const bool dump = line.starts_with("-----") || line.starts_with("state C") || line.find(")-l(") != line.npos;
      if (dump || line.starts_with("<> ") || line == "must do first update\n") continue;
      if (line.starts_with("go_") || line.starts_with("kestreld ")) {
        const std::size_t from = line.find_first_of(": ") + 1;
        line.replace(from, line.find_first_not_of("0123456789", from) - from, "#");
      }
      std::erase(line, '\r');
      std::ranges::replace(line, '\n', '/');
      text_ += line;
    }
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
};
