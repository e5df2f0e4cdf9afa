// A text file that keeps itself bounded: what the service log and the WMI log have in common.
// A file that has grown past its limit is renamed to its one backup, whose name ends in '_' in
// place of the last character, and begun anew. Not locked: its owner's mutex guards it.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>

#include "platform/file.h"

namespace stewardry {

class LogFile {
 public:
  // Copies the path; false when there is no memory for it.
  bool SetPath(const char* path);
  const char* Path() const { return path_.get(); }

  // Opens the file for appending, shared, with the given mode. *errorNumber gets errno on failure.
  bool Open(const char* mode, int* errorNumber);
  // The file size in bytes beyond which the next line rotates; a file of just that size doesn't.
  void SetLimit(std::uint32_t maxSize) { maxSize_ = maxSize; }

  // Rotates if the file has grown past the limit.
  void Rotate();

  // Rotates if due, writes the text and flushes it. While the file isn't open the text goes to the
  // debug output. A file that couldn't be opened again in a rotation is tried anew for each text,
  // so that the log goes on once the disk lets it; the failed text itself goes to the debug output.
  // A thread that is ended anywhere in here leaves a file that the next text still reaches.
  void Write(const char* text, std::size_t size);

 private:
  void Reopen();

  std::unique_ptr<char[]> path_;
  std::unique_ptr<char[]> backup_;  // made with the path: a rotation takes nothing from the heap
  platform::Stream stream_;
  std::uint32_t maxSize_ = 0;
  bool reopenDue_ = false;
};

// The rotation limit until an owner sets its own, in bytes.
constexpr std::uint32_t kDefaultLogLimit = 0x200000;

// What a line of either log tells of the process: its memory in megabytes.
std::uint32_t PrivateMegabytes();

// Where the logs lie. The common application data folder is asked for; this fixed form is what the
// side logs and the change log use.
inline constexpr char kCompanyFolder[] = "\\Corvane";
inline constexpr char kLogFolder[] = "\\Corvane\\Stewardry";
// False once the folder was found to be somebody else's, or not to be that of the fixed form: then
// nobody writes to it by the fixed form. Written when the process starts and again when its service
// does; relaxed, it stands for itself.
extern std::atomic<bool> gLogFolderIsSafe;

#define STEWARDRY_FIXED_LOG_FOLDER "C:\\ProgramData\\Corvane\\Stewardry\\"

// The last line of what "ver" prints, without its line end, into `line` of `size` bytes. False,
// with an empty line, when it can't be run.
bool ReadVerLine(char* line, std::size_t size);

}  // namespace stewardry
