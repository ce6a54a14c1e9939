// The commands of kestrel-find as one table.
#pragma once

#include <optional>
#include <span>
#include <string>
#include <vector>

#include "cameras.h"

namespace finder {

/// What the command line gave.
struct Options {
  bool json = false;
  bool yes = false;
  double timeout_s = 2;
  std::vector<std::string> interfaces;
  std::string user = "admin";
  std::string password_file;
  std::string camera;
  std::optional<std::string> value;
  double interval_s = 5;
  unsigned rounds = 0;  // 0: until interrupted
};

enum class Value_arg { none, required, optional };

struct Command {
  const char* name;
  Exit (*run)(const Options&, const Network&);
  bool takes_camera;
  Value_arg takes_value;
  const char* value_name;
  const char* help;
};

std::span<const Command> commands();

}  // namespace finder
