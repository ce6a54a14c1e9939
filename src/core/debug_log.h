// The debug log: the one way in which the daemon reports anything. Lines go to standard output, to a
// file under /tmp, or both.
#pragma once

namespace kestrel {

/// What the log writes, bit by bit: 1 to standard output, 4 to the log file. Set once at start-up.
extern int DbgLevel;

constexpr int debug_console = 1;
constexpr int debug_file = 4;

/// The current log file, of at most 1000 lines, and the one before it.
constexpr char debug_log_path[] = "/tmp/kestreld_log.txt";
constexpr char debug_log_old_path[] = "/tmp/kestreld_log.old";
constexpr int debug_log_max_lines = 1000;

/// Logs "KLOG" and the formatted text. Returns 0 always.
///
/// The formatter is the log's own: "%d" takes an int, "%s" a text, "%c" a character. A '%' before
/// anything else prints nothing and takes no argument, and what follows is read as if the '%' had not
/// been there: "%lu" prints "lu", "%8.8d" prints "8.8d", "%%" starts a directive anew. The line holds
/// 2047 characters and one "%s" 1535; what is longer is cut.
///
/// Any thread and any signal handler may call: it is async-signal-safe, takes no lock and keeps errno.
/// Lines of two threads may mix or rotate the file twice. A line that the console or the disk does not take at
/// once is lost.
[[gnu::format(printf, 1, 2)]] int debug_log(const char* format, ...);

/// Prints to standard output, whatever DbgLevel is, with the same formatter and without "KLOG".
/// Async-signal-safe; keeps errno.
[[gnu::format(printf, 1, 2)]] void print_console(const char* format, ...);

/// Opens the pipes and terminals among standard output and standard error a second time, so that no line ever
/// waits for a reader. Once, at start-up, before there are threads. Sockets and files are left as they are.
void never_wait_for_console();

/// Prints to standard error as print_console does to standard output, and never waits for a reader either.
[[gnu::format(printf, 1, 2)]] void print_error_text(const char* format, ...);

/// Prints "what: " and errno's text to standard error, as perror does, but never waits for a reader: a line that
/// cannot be written at once is dropped. Async-signal-safe but for strerror; keeps errno.
void print_error(const char* what);

}  // namespace kestrel
