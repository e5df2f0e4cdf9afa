#include "service/diagnostics/thread_end.h"

#include "platform/event.h"
#include "platform/mutex.h"
#include "service/diagnostics/service_log.h"
#include "service/diagnostics/wmi_log.h"

namespace stewardry {

namespace {

constexpr std::uint32_t kExitMs = 150;
// The wait for a log's mutex. Longer than kHeldMs, since a thread that ends another may be ended
// itself.
constexpr std::uint32_t kLineMs = 2000;
// Windows ends a thread shortly after the call. On Linux it unwinds, and its destructors may write
// lines, so the mutexes are held only briefly.
constexpr std::uint32_t kHeldMs = 100;
constexpr std::uint32_t kGraceMs = 2000;

// Holds a log's mutex if it is free in time. An abandoned one counts as taken, since no line is
// written under it here.
class HeldLog {
 public:
  explicit HeldLog(const platform::Mutex* mutex) : mutex_(mutex) {
    if (mutex_ == nullptr) return;
    const std::uint32_t result = platform::WaitForSingleObject(*mutex_, kLineMs);
    held_ = result == platform::kWaitObject0 || result == platform::kWaitAbandoned;
  }
  HeldLog(const HeldLog&) = delete;
  HeldLog& operator=(const HeldLog&) = delete;
  ~HeldLog() {
    if (held_) (void)platform::ReleaseMutex(*mutex_);  // a failure has no remedy
  }

 private:
  const platform::Mutex* mutex_;
  bool held_ = false;
};

bool HasEnded(const platform::Thread& thread, std::uint32_t milliseconds) {
  return platform::WaitForSingleObject(thread, milliseconds) == platform::kWaitObject0;
}

}  // namespace

bool EndThreadBetweenLines(const platform::Thread& thread, std::uint32_t exitCode) {
  {
    const HeldLog serviceLog(ServiceLog_Mutex());
    const HeldLog wmiLog(WmiLog_Mutex());
    if (!platform::TerminateThread(thread, exitCode)) return false;
    if (HasEnded(thread, kHeldMs)) return true;
  }
  return HasEnded(thread, kGraceMs);
}

void AwaitOrEndThread(const platform::Thread& thread, const char* failureLine) {
  const bool exited = HasEnded(thread, kExitMs);
  std::uint32_t Exitcode = 0;
  if (!platform::GetExitCodeThread(thread, &Exitcode)) LogInfo("GetExitCodeThread failed");
  if (!exited && !EndThreadBetweenLines(thread, Exitcode)) LogInfo("%s", failureLine);
}

}  // namespace stewardry
