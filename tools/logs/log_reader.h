// Reads the four logs, merged by time, while the service writes and rotates them. Files of any size
// are read in parts: only from the first line of the window on, found by bisection.
#pragma once

#include <cstdint>
#include <functional>
#include <limits>
#include <string>
#include <vector>

#include "tools/logs/log_line.h"

namespace stewardry::tools {

// What is to be read.
struct LogWindow {
  std::int64_t since = 0;  // local seconds as in LogLine::time
  std::int64_t until = std::numeric_limits<std::int64_t>::max();
  bool logs[kLogCount] = {true, true, true, true};
  // Bounds what is read of each file, from its end.
  std::int64_t mostBytesOfAFile = std::numeric_limits<std::int64_t>::max();
};

// A file that could not be read, or not completely, and why.
struct UnreadLog {
  std::string path;
  std::string reason;
};

// One log file in the folder.
struct LogFileView {
  Log log = Log::kService;
  bool isBackup = false;  // "....lo_"
  std::string path;
  std::int64_t size = 0;
};

class LogReader {
 public:
  // `folder` is a path of platform/file.h, without a trailing backslash.
  explicit LogReader(std::string folder);

  // Calls `take` for each line of the window, backups included, in the order of time; lines of one
  // log keep their order. Stops when `take` returns false. A file that is rotated meanwhile is
  // followed: no line is lost or comes twice.
  void Read(const LogWindow& window, const std::function<bool(const LogLine&)>& take);

  // Returns the files that exist.
  std::vector<LogFileView> Files() const;

  // Returns what the calls so far could not read.
  const std::vector<UnreadLog>& Unread() const { return unread_; }

 private:
  std::string folder_;
  std::vector<UnreadLog> unread_;
};

// Returns the log folder of this host, a path of platform/file.h.
std::string LogFolder();

}  // namespace stewardry::tools
