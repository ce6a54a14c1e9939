// Lines out of files, of standard input, or of a log that a daemon is writing. No line takes more memory than another.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <ctime>
#include <functional>
#include <string>
#include <vector>

namespace explain {

/// What a line keeps; the daemon's own have at most 2047 characters.
constexpr std::size_t max_line_len = 4096;

struct Line {
  std::string text;       // without its line end
  std::uint64_t number;   // from 1, across all files
  std::uint64_t cut = 0;  // bytes that were too many
};

/// Takes a line. False ends the reading.
using LineSink = std::function<bool(const Line& line)>;

/// Cuts bytes into lines.
class LineCutter {
 public:
  explicit LineCutter(LineSink sink) : sink_(std::move(sink)) {}
  /// False when the sink has had enough.
  bool take(const char* bytes, std::size_t len);
  /// The last line may have no end.
  bool finish();

 private:
  bool give();
  LineSink sink_;
  Line line_{"", 1, 0};
  bool begun_ = false;
};

/// The files to read for what was named, the older first: with one file of a pair, its ".old" before it if it is
/// there and `alone` is not set; of two, the one that ends in ".old" first.
std::vector<std::string> files_in_order(const std::vector<std::string>& named, bool alone);

/// Reads the files ("-": standard input) one after the other. Throws std::runtime_error when one can't be read.
/// Returns when the last of them was last changed, 0 for what has no such time.
std::time_t read_files(const std::vector<std::string>& paths, const LineSink& sink);

/// Reads a log as it grows, across the daemon's rotations, until `ended` says so. `pause` is called whenever nothing
/// is left to read. `lost` is called when the log was rotated twice between two looks, or was cut.
struct FollowCalls {
  LineSink sink;
  std::function<void()> pause;
  std::function<void()> lost;
  std::function<bool()> ended;
};
void follow_file(const std::string& path, const FollowCalls& calls);

}  // namespace explain
