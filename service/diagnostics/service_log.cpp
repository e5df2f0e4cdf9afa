#include "service/diagnostics/service_log.h"

#include <atomic>
#include <cassert>
#include <cerrno>
#include <iterator>
#include <memory>
#include <new>

#include "platform/clock.h"
#include "platform/error.h"
#include "platform/event.h"
#include "platform/file.h"
#include "platform/mutex.h"
#include "platform/process.h"
#include "platform/thread.h"
#include "service/diagnostics/log_file.h"

namespace stewardry {

struct ServiceLog {
  LogFile file;
};

// What serialises the lines. The process has one handle of each mutex: one for each line would be a
// leak or a race.
struct LogMutexes {
  platform::Mutex own;    // between the threads of this process
  platform::Mutex named;  // between processes, taken after `own`; invalid if the name is not ours
  // True once another program held the named mutex too long; it is not used from then on. Relaxed:
  // a thread that misses the change finds it out itself.
  std::atomic<bool> squatted{false};
};

namespace {

constexpr char kMutexName[] = "TavrinMutex";
constexpr std::size_t kLineSize = 1024;
constexpr const char* kHeaders[] = {"INFO:  ", "WARN:  ", "ERROR: "};
static_assert(std::size(kHeaders) == static_cast<std::size_t>(LogHeader::kError) + 1);

// The wait for the named mutex. A line of another process of the service takes much less, and no
// thread of this process holds it.
constexpr std::uint32_t kOtherProcessMs = 2000;

// The rotation limit while the log starts, in bytes.
constexpr std::uint32_t kDefaultLogLimit = 0x200000;

// The log can't work without a mutex, so the process ends if none can be created. But any user can
// create an object of the name first, of another kind or without access for the service. That must
// not end the process: the lines of several processes are then not ordered.
LogMutexes& Mutexes() {
  LogMutexes* const mutexes = gLogs->gLogMutexes.load(std::memory_order_acquire);
  if (mutexes != nullptr) return *mutexes;
  auto made = std::make_unique<LogMutexes>();
  made->named = platform::CreateMutexA(kMutexName);
  const std::uint32_t error = made->named ? platform::kErrorSuccess : platform::LastError();
  const bool taken =
      error == platform::kErrorAccessDenied || error == platform::kErrorInvalidHandle;
  if (made->named || taken) made->own = platform::CreateMutexA(nullptr);
  if (!made->own) platform::ExitProcess(0);
  LogMutexes* expected = nullptr;
  if (gLogs->gLogMutexes.compare_exchange_strong(expected, made.get(), std::memory_order_acq_rel))
    return *made.release();
  return *expected;
}

// Holds both mutexes. An abandoned one counts as taken: threads of this service are ended from
// outside, perhaps within a line.
class LogLock {
 public:
  LogLock() : mutexes_(Mutexes()) {
    std::uint32_t result;
    do {
      result = platform::WaitForSingleObject(mutexes_.own, platform::kInfinite);
    } while (result == platform::kWaitTimeout);
    ownHeld_ = result != platform::kWaitFailed;
    namedHeld_ = TakeNamed();
  }
  LogLock(const LogLock&) = delete;
  LogLock& operator=(const LogLock&) = delete;
  ~LogLock() {
    // A failure has no remedy.
    if (namedHeld_) (void)platform::ReleaseMutex(mutexes_.named);
    if (ownHeld_) (void)platform::ReleaseMutex(mutexes_.own);
  }

 private:
  bool TakeNamed() {
    if (!mutexes_.named || mutexes_.squatted.load(std::memory_order_relaxed)) return false;
    const std::uint32_t result = platform::WaitForSingleObject(mutexes_.named, kOtherProcessMs);
    if (result == platform::kWaitTimeout) mutexes_.squatted.store(true, std::memory_order_relaxed);
    return result != platform::kWaitTimeout && result != platform::kWaitFailed;
  }

  LogMutexes& mutexes_;
  bool ownHeld_;  // a failed wait has nothing to release
  bool namedHeld_;
};

template <class... Args>
void DebugLine(CheckedFormat<std::type_identity_t<Args>...> format, const Args&... args) {
  char text[kLineSize];
  const FormatArg list[] = {FormatArg(args)..., FormatArg()};
  FormatText(text, sizeof text, format.text, std::span(list, sizeof...(Args)));
  platform::OutputDebugStringA(text);
}

// Opens the file and rotates while the limit is the default, so a file that grew beyond it in the
// last run is rotated at each start.
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

// Replaces the log in use, which is destroyed. Under the lock, so that no late line reaches it.
void ReplaceLog(ServiceLog* log) {
  std::unique_ptr<ServiceLog> old;
  LogLock lock;
  old.reset(gLogs->gServiceLog.exchange(log, std::memory_order_acq_rel));
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
  // Without a path the log stays off; without a file the lines go to the debug output.
  if (log->file.Path() != nullptr) ReplaceLog(log.release());
  return open;
}

void ServiceLog_Close() {
  if (gLogs->gServiceLog.load(std::memory_order_acquire) != nullptr) ReplaceLog(nullptr);
}

const platform::Mutex* ServiceLog_Mutex() {
  const LogMutexes* mutexes = gLogs->gLogMutexes.load(std::memory_order_acquire);
  return mutexes != nullptr ? &mutexes->own : nullptr;
}

void ServiceLog_Write(LogHeader header, std::string_view format, std::span<const FormatArg> args) {
  assert(static_cast<std::size_t>(header) < std::size(kHeaders));
  if (gLogs->gServiceLog.load(std::memory_order_acquire) == nullptr) return;
  char message[kLineSize];
  FormatText(message, sizeof message, format, args);
  char line[kLineSize];
  const std::size_t length = FormatLine(line, header, message);
  LogLock lock;
  ServiceLog* const log = gLogs->gServiceLog.load(std::memory_order_relaxed);  // the lock orders it
  if (log != nullptr) log->file.Write(line, length);
}

}  // namespace stewardry
