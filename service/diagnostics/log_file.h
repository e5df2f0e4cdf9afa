// What the logs share: a text file that bounds itself, the folder and the limit, and their state.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>

#include "platform/file.h"
#include "service/diagnostics/deaf_entry.h"

namespace stewardry {

// The logs' folder, below the common application data folder. The side logs and the change log use
// the fixed form.
#define STEWARDRY_COMPANY_FOLDER "\\Corvane"
#define STEWARDRY_LOG_FOLDER STEWARDRY_COMPANY_FOLDER "\\Stewardry"
#define STEWARDRY_FIXED_LOG_FOLDER "C:\\ProgramData" STEWARDRY_LOG_FOLDER "\\"
inline constexpr char kCompanyFolder[] = STEWARDRY_COMPANY_FOLDER;
inline constexpr char kLogFolder[] = STEWARDRY_LOG_FOLDER;

inline constexpr char kServiceLogFile[] = "tavrinLog.log";
inline constexpr char kWmiLogFile[] = "tavrinWMI.log";
inline constexpr char kSideLogFile[] = "tavrinKeyboardMouseLog.log";
#define STEWARDRY_CHANGE_LOG_FILE "tavrinwifichange.log"
inline constexpr char kChangeLogFile[] = STEWARDRY_CHANGE_LOG_FILE;

// The rotation limit of the service log and the WMI log: 10 MiB.
constexpr std::uint32_t kLogLimit = 0xA00000;

inline constexpr const char* kDayNames[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
inline constexpr const char* kMonthNames[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                              "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

// A file that has grown past its limit is renamed to its one backup, whose name ends in '_' in
// place of the last character, and a new file is begun. Not locked: its owner's mutex guards it.
// The size is counted from what is written here. Since other writers append to the file too, it is
// read from the file for every 64th text: their lines can delay a rotation by that many.
class LogFile {
 public:
  // Copies the path. Returns false if there is no memory for it.
  bool SetPath(const char* path);
  const char* Path() const { return path_.get(); }

  // Opens the file for appending, shared, with the given mode. Requires a path. Returns false on
  // failure; *errorNumber, unless it is null, then gets errno.
  bool Open(const char* mode, int* errorNumber);
  // Sets the size in bytes beyond which the next line rotates. A file of that size doesn't rotate.
  void SetLimit(std::uint32_t maxSize) { maxSize_ = maxSize; }

  // Rotates if the file has grown past the limit.
  void Rotate();

  // Rotates if due, writes the text and flushes it. While the file isn't open the text goes to the
  // debug output. After a failed reopen in a rotation each text tries it again, so the log
  // continues once the disk allows it. A thread that is ended anywhere in here leaves a file that
  // the next text still reaches.
  void Write(const char* text, std::size_t size);

 private:
  void Reopen();
  std::int64_t Size();

  std::unique_ptr<char[]> path_;
  std::unique_ptr<char[]> backup_;  // allocated with the path: a rotation allocates nothing
  platform::Stream stream_;
  std::uint32_t maxSize_ = 0;
  std::int64_t size_ = 0;           // in bytes; valid while trustedTexts_ is not 0
  std::uint32_t trustedTexts_ = 0;  // texts for which size_ is used without reading it again
  bool reopenDue_ = false;
};

struct LogMutexes;
struct ServiceLog;
struct WmiLog;

// The state of the logs, one record of the process. It is never recreated, since the mutexes live
// as long as the process.
struct LogState {
  // False once the folder was found to be another user's, or not to be that of the fixed form: then
  // no line is written to it by the fixed form. Written when the process starts and again when its
  // service does; read by any thread. Relaxed: it publishes nothing.
  std::atomic<bool> gLogFolderIsSafe{true};

  // Null before ServiceLog_Start and after ServiceLog_Close. Written under the service log's lock;
  // read by any thread before the lock, where only null or not counts (acquire keeps that read
  // before the lock), and again under it, where the log is used. So no line reaches a closed log.
  std::atomic<ServiceLog*> gServiceLog{nullptr};

  // Created by the first thread that needs them and never destroyed. Release and acquire: a thread
  // that reads the pointer sees the object.
  std::atomic<LogMutexes*> gLogMutexes{nullptr};
  std::atomic<WmiLog*> gWmiLog{nullptr};

  // When the latest entry of each Deafness was written, in ticks of the monotonic clock; 0 is
  // never. Relaxed: a tick publishes nothing.
  std::atomic<std::int64_t> deafEntries[kDeafnessKinds]{};
};
extern platform::ProcessLifetime<LogState> gLogs;

// Returns the process's memory in megabytes, as the lines of both logs show it.
std::uint32_t PrivateMegabytes();

// Stores the last line of what "ver" prints, without its line end, in `line` of `size` bytes.
// Returns false, with an empty line, if it can't be run.
bool ReadVerLine(char* line, std::size_t size);

}  // namespace stewardry
