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
  std::uint32_t error = 0;
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
  ~LogReader();

  // Calls `take` for each line of the window, backups included, in the order of time; lines of one
  // log keep their order. Stops when `take` returns false. A file that is rotated meanwhile is read
  // to its end. The trace of wireless changes has neither times nor lines: its newest part comes as
  // one line with the time of the file's last change.
  void Read(const LogWindow& window, const std::function<bool(const LogLine&)>& take);

  // Calls `take` for each line that was written since the last Read or ReadNew, also into a file
  // that has taken the place of a rotated or deleted one. A line without its end is left for the
  // next call. Returns false if `take` did.
  bool ReadNew(const std::function<bool(const LogLine&)>& take);

  // Returns the files that exist.
  std::vector<LogFileView> Files();

  // Returns what the calls so far could not read.
  const std::vector<UnreadLog>& Unread() const { return unread_; }

 private:
  struct Opened;

  std::string PathOf(Log log, bool isBackup) const;
  void OpenAll(const LogWindow& window);
  void FillHead(Opened* opened, bool takeCutLines);
  bool Merge(bool takeCutLines, const std::function<bool(const LogLine&)>& take);
  void AddUnread(const std::string& path, std::uint32_t error);

  std::string folder_;
  std::vector<Opened> opened_;  // in the order of logs; of each log the backup first
  LogWindow window_;
  std::vector<UnreadLog> unread_;
};

// Returns the log folder of this host, a path of platform/file.h.
std::string LogFolder();

// Returns why a file or a service could not be seen, for people: "access denied: ...".
std::string ReasonOf(std::uint32_t error);

}  // namespace stewardry::tools
