// The commands of kestrel-find as one table.
#pragma once

#include <optional>
#include <span>
#include <string>
#include <vector>

#include "cameras.h"
#include "output.h"

namespace finder {

/// What the command line gave.
struct Options {
  bool json = false;
  bool lines = false;
  bool yes = false;
  bool broadcast = false;
  int wait_s = 0;  // for the verdict on an alias
  double timeout_s = 2;
  std::vector<std::string> interfaces;
  std::string user = "admin";
  std::string password_file;
  std::string camera;
  std::optional<std::string> value;
  double interval_s = 20;
  unsigned rounds = 0;  // 0: until interrupted

  [[nodiscard]] Format format() const { return json ? Format::json : lines ? Format::lines : Format::text; }
};

/// How long `alias NAME --wait` waits: the camera's 120 s of configuration hold, and two rounds of its registration.
inline constexpr int alias_wait_s = 300;

enum class ValueArg { none, required, optional };

struct Command {
  const char* name;
  Exit (*run)(const Options&, const Network&);
  bool takes_camera;
  ValueArg takes_value;
  const char* value_name;
  const char* help;
};

std::span<const Command> commands();

}  // namespace finder
