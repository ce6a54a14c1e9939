// The daemon's only way to the shell.
#ifndef KESTREL_CORE_SHELL_H
#define KESTREL_CORE_SHELL_H

namespace kestrel {

/// Runs a fixed command line through the system shell and waits for its end. Its status is not used.
void run_shell(const char* command);

}  // namespace kestrel

#endif
