#include "service/diagnostics/wmi_log.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <memory>
#include <string>

#include "platform/clock.h"
#include "platform/event.h"
#include "platform/file.h"
#include "platform/mutex.h"
#include "platform/process.h"
#include "platform/thread.h"
#include "service/diagnostics/log_file.h"

namespace stewardry {

struct WmiLog {
  platform::Mutex mutex;
  LogFile file;  // guarded by the mutex
};

namespace {

constexpr std::size_t kLineSize = 1024;

// Holds the log's mutex. Ends the process if a thread ended while it held the mutex.
class WmiLock {
 public:
  explicit WmiLock(WmiLog& log) : mutex_(log.mutex) {
    for (;;) {
      const std::uint32_t result = platform::WaitForSingleObject(mutex_, platform::kInfinite);
      if (result == platform::kWaitObject0) return;
      if (result == platform::kWaitAbandoned) platform::ExitProcess(0);
    }
  }
  WmiLock(const WmiLock&) = delete;
  WmiLock& operator=(const WmiLock&) = delete;
  ~WmiLock() { (void)platform::ReleaseMutex(mutex_); }  // a failure has no remedy

 private:
  const platform::Mutex& mutex_;
};

void FormatDate(char (&text)[256]) {
  const platform::LocalTime t = platform::GetLocalTime();
  char zone[64] = "";
  platform::GetTimeZoneStandardName(zone, sizeof zone);
  FormatTo(text, sizeof text, "%s  %s %02d %02d:%02d:%02d.%d %d %s", kDayNames[t.dayOfWeek % 7],
           kMonthNames[(t.month + 11) % 12], t.day, t.hour, t.minute, t.second, t.milliseconds,
           t.year, static_cast<const char*>(zone));
}

std::size_t FormatLine(char (&line)[kLineSize], const char* message, const char* tag,
                       const char* date) {
  const std::uint32_t thread = platform::GetCurrentThreadId();
  return FormatTo(line, sizeof line, "[%d]-[ %d M ] %s $$<%s><%s><thread=%d (0x%x)>\n",
                  platform::GetCurrentProcessId(), PrivateMegabytes(), message, tag, date, thread,
                  thread);
}

// Cuts the message to the size that remains for it, so that the line keeps its tail.
void WriteLine(const char* level, const char* tag, const char* text) {
  char message[kLineSize];
  FormatTo(message, sizeof message, "%s%s", level, text);
  char date[256];
  FormatDate(date);
  char line[kLineSize];
  const std::size_t rest = FormatLine(line, "", tag, date);
  const std::size_t most = rest + 1 < kLineSize ? kLineSize - rest - 1 : 0;
  message[std::min(std::strlen(message), most)] = 0;
  const std::size_t length = FormatLine(line, message, tag, date);
  WmiLog& log = WmiLog_Get();
  WmiLock lock(log);
  log.file.Write(line, length);
}

}  // namespace

// Without the guard of a static object, which a thread that is ended within it would keep.
WmiLog& WmiLog_Get() {
  WmiLog* const log = gLogs->gWmiLog.load(std::memory_order_acquire);
  if (log != nullptr) return *log;
  auto made = std::make_unique<WmiLog>();
  made->mutex = platform::CreateMutexA(nullptr);
  if (!made->mutex) platform::ExitProcess(0);
  WmiLog* expected = nullptr;
  if (gLogs->gWmiLog.compare_exchange_strong(expected, made.get(), std::memory_order_acq_rel))
    return *made.release();
  return *expected;
}

const platform::Mutex* WmiLog_Mutex() {
  const WmiLog* log = gLogs->gWmiLog.load(std::memory_order_acquire);
  return log != nullptr ? &log->mutex : nullptr;
}

int WmiLog_Open(const char* path, std::uint32_t limit) {
  WmiLog& log = WmiLog_Get();
  WmiLock lock(log);
  bool open = false;
  if (log.file.SetPath(path)) open = log.file.Open("a+", nullptr);
  const std::string line =
      std::string(open ? "Log file is: " : "ERROR: Unable to open log file: ") + path + "\n";
  platform::OutputDebugStringA(line.c_str());
  log.file.SetLimit(limit);
  return open ? 0 : -1;
}

void WmiLog_Start() {
  char folder[platform::kMaxPath] = "";
  (void)platform::GetCommonAppDataFolder(folder);  // without it the open fails
  if (gLogs->gLogFolderIsSafe.load(std::memory_order_relaxed))
    (void)WmiLog_Open((std::string(folder) + kLogFolder + "\\" + kWmiLogFile).c_str(), kLogLimit);
  char version[128];
  if (ReadVerLine(version, sizeof version))
    return WmiInfo("Tavrin WMI started on %s", static_cast<const char*>(version));
  WmiLog_Warn(kWmiTag, "Get OS version failed.");
  WmiLog_Info(kWmiTag, "Tavrin WMI Logging started.");
  WmiLog_Info(kWmiTag, "Tavrin WMI Logging started.");
}

void WmiLog_Info(const char* tag, const char* text) { WriteLine("INFO:  ", tag, text); }
void WmiLog_Warn(const char* tag, const char* text) { WriteLine("WARN:  ", tag, text); }
void WmiLog_Error(const char* tag, const char* text) { WriteLine("ERROR: ", tag, text); }

}  // namespace stewardry
