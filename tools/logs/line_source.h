// The lines of one log file from a byte offset on, read in parts of bounded size.
#pragma once

#include <cstdint>
#include <string>

#include "platform/shared_file.h"
#include "tools/logs/log_line.h"

namespace stewardry::tools {

class LineSource {
 public:
  // A line longer than this comes in pieces, so that trash without line ends needs no memory.
  static constexpr std::size_t kLongestLine = 16'384;

  // Takes ownership of an open file. The lines between the two offsets are read; `begin` must be
  // the start of a line.
  LineSource(Log log, platform::SharedFile file, std::int64_t begin, std::int64_t end);

  // Stores the next line. Returns false at the end, or when the file cannot be read. A last line
  // without its end is taken only with `takeCutLine`; otherwise it stays for a later call.
  bool Next(LogLine* line, bool takeCutLine);

  // Lets the lines up to the new end be read. Starts again at the front if the file has shrunk.
  void Extend(std::int64_t end);

  Log LogName() const { return log_; }
  const platform::SharedFile& File() const { return file_; }
  // Returns the last error of a read that failed, 0 if none did.
  std::uint32_t Error() const { return error_; }

 private:
  bool Fill();

  Log log_;
  platform::SharedFile file_;
  std::int64_t next_;  // the offset of the first byte that is not in buffer_ yet
  std::int64_t end_;
  std::string buffer_;  // read, and not taken before used_
  std::size_t used_ = 0;
  std::int64_t lastTime_ = 0;  // of the last line that had a time
  std::uint32_t error_ = 0;
};

// Returns the offset, between `begin` and `end`, of the first line that is not older than `since`,
// by bisection: it reads some 64 KiB parts and not the file. `begin` and `end` are offsets of line
// starts, or the file's end. Where the clock was set back, the times of a file do not rise; the
// lines of the newest stretch are found then, and older stretches may be left out.
std::int64_t FindFirstLine(Log log, const platform::SharedFile& file, std::int64_t begin,
                           std::int64_t end, std::int64_t since);

// Returns the offset of the first line start at or after `offset`, at most `end`.
std::int64_t NextLineStart(const platform::SharedFile& file, std::int64_t offset, std::int64_t end);

}  // namespace stewardry::tools
