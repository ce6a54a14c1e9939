// The shell, see shell.h.
#include "core/shell.h"

#include <cstdlib>

namespace kestrel {

void run_shell(const char* command) {
  // The commands are constants of the daemon; nothing from outside reaches them.
  const int status = std::system(command);  // NOLINT(cert-env33-c,bugprone-command-processor)
  static_cast<void>(status);
}

}  // namespace kestrel
