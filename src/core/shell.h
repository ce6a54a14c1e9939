// The daemon's only way to the shell.
#pragma once

namespace kestrel {

/// Seconds that a command may keep its caller; one that takes longer goes on by itself.
constexpr int shell_timeout_s = 30;

/// Runs a fixed command line through the system shell and waits for its end: shell_timeout_s at most, a fifth of a
/// second when the current record's `run` is 0. Of the commands that take longer the eight latest go on.
/// Its status is not used. The command starts with no signal blocked or ignored.
void run_shell(const char* command);

}  // namespace kestrel
