// The service log.
#include "service/diagnostics/service_log.h"

#include <atomic>
#include <cerrno>
#include <cstring>
#include <memory>
#include <new>

#include "platform/clock.h"
#include "platform/event.h"
#include "platform/file.h"
#include "platform/mutex.h"
#include "platform/process.h"
#include "platform/thread.h"
#include "service/diagnostics/log_file.h"

namespace stewardry {

namespace {

constexpr char kMutexName[] = "TavrinMutex";
constexpr std::size_t kLineSize = 1024;
constexpr const char* kHeaders[] = {"INFO:  ", "WARN:  ", "ERROR: "};

struct ServiceLog {
  LogFile file;
};

// The log in use; null before the start and after the close. Written under TavrinMutex; read
// before it, where only null or not counts (acquire keeps that look ahead of the lock's), and
// again under it, where the record is used. So no line reaches a closed log.
std::atomic<ServiceLog*> gServiceLog{nullptr};

// One handle of the named mutex serves the whole process for as long as it lives; the log can't
// work without it, so the process ends if it can't be had.
const platform::Mutex& LogMutex() {
  static std::atomic<const platform::Mutex*> known{nullptr};
  // Release and acquire: who sees the pointer sees the mutex behind it.
  if (const platform::Mutex* mutex = known.load(std::memory_order_acquire)) return *mutex;
  auto made = std::make_unique<platform::Mutex>(platform::CreateMutexA(kMutexName));
  if (!*made) platform::ExitProcess(0);
  const platform::Mutex* expected = nullptr;
  if (known.compare_exchange_strong(expected, made.get(), std::memory_order_acq_rel))
    return *made.release();
  return *expected;
}

// Holds TavrinMutex. Any result of the wait but a time-out counts as taken, an abandoned mutex
// too: threads of this service are ended from outside, perhaps within a line.
class LogLock {
 public:
  LogLock() : mutex_(LogMutex()) {
    std::uint32_t result;
    do {
      result = platform::WaitForSingleObject(mutex_, platform::kInfinite);
    } while (result == platform::kWaitTimeout);
    held_ = result != platform::kWaitFailed;
  }
  LogLock(const LogLock&) = delete;
  LogLock& operator=(const LogLock&) = delete;
  ~LogLock() {
    if (held_) platform::ReleaseMutex(mutex_);
  }

 private:
  const platform::Mutex& mutex_;
  bool held_;  // a failed wait has nothing to release
};

template <class... Args>
void DebugLine(CheckedFormat<std::type_identity_t<Args>...> format, const Args&... args) {
  char text[kLineSize];
  const FormatArg list[] = {FormatArg(args)..., FormatArg()};
  FormatText(text, sizeof text, format.text, std::span(list, sizeof...(Args)));
  platform::OutputDebugStringA(text);
}

// Opens the file; rotates while the limit is still the default, so a file that grew large in the
// last run is put aside at each start.
bool ServiceLog_Open(ServiceLog* log, const char* path) {
  if (!log->file.SetPath(path)) {
    DebugLine("ERROR: Unable to allocate memory to logging file; errno: %d\n", errno);
    return false;
  }
  log->file.SetLimit(kDefaultLogLimit);
  int errorNumber = 0;
  if (!log->file.Open("a+t", &errorNumber)) {
    DebugLine("ERROR: Unable to open log file: %s; errno: %d\n", path, errorNumber);
    return false;
  }
  log->file.Rotate();
  DebugLine("Log file is: %s\n", path);
  return true;
}

// Puts `log` in the place of the one in use, which goes.
void Exchange(ServiceLog* log) {
  std::unique_ptr<ServiceLog> old;
  LogLock lock;
  old.reset(gServiceLog.exchange(log, std::memory_order_acq_rel));
}

std::size_t FormatLine(char (&line)[kLineSize], LogHeader header, const char* message) {
  const platform::LocalTime t = platform::GetLocalTime();
  const std::uint32_t thread = platform::GetCurrentThreadId();
  return FormatTo(
      line, sizeof line, "%s<%02u/%02u/%02u %02u:%02u:%02u>[%d]-[ %d M ] %s <thread=%d (0x%x)>\n",
      kHeaders[static_cast<int>(header)], t.year, t.month, t.day, t.hour, t.minute, t.second,
      platform::GetCurrentProcessId(), PrivateMegabytes(), message, thread, thread);
}

}  // namespace

bool ServiceLog_Start(const char* path, std::uint32_t maxSize) {
  std::unique_ptr<ServiceLog> log(new (std::nothrow) ServiceLog);
  if (!log) {
    DebugLine("ERROR: Unable to allocate memory to logging module; errno: %d\n", errno);
    return false;
  }
  const bool open = ServiceLog_Open(log.get(), path);
  if (open) log->file.SetLimit(maxSize);
  // Without a path there is no record to log to; without a file the lines go to the debug output.
  if (log->file.Path() != nullptr) Exchange(log.release());
  return open;
}

void ServiceLog_Close() {
  if (gServiceLog.load(std::memory_order_acquire) != nullptr) Exchange(nullptr);
}

void ServiceLog_Write(LogHeader header, std::string_view format, std::span<const FormatArg> args) {
  if (gServiceLog.load(std::memory_order_acquire) == nullptr) return;
  char message[kLineSize];
  FormatText(message, sizeof message, format, args);
  char line[kLineSize];
  const std::size_t length = FormatLine(line, header, message);
  LogLock lock;
  ServiceLog* log = gServiceLog.load(std::memory_order_relaxed);  // the lock orders it
  if (log != nullptr) log->file.Write(line, length);
}

}  // namespace stewardry
