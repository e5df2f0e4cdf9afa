// The end of a thread from outside.
#include "service/diagnostics/thread_end.h"

#include "platform/event.h"
#include "platform/mutex.h"
#include "service/diagnostics/service_log.h"
#include "service/diagnostics/wmi_log.h"

namespace stewardry {

namespace {

constexpr std::uint32_t kLeaveMs = 150;
// Longer than the mutexes are held here, since a thread that ends another may be ended itself.
constexpr std::uint32_t kLineMs = 2000;
// Windows ends a thread shortly after the call. On Linux a thread unwinds, and its destructors may
// have lines to write: it must have the mutexes back soon.
constexpr std::uint32_t kHeldMs = 100;
constexpr std::uint32_t kGraceMs = 2000;

// Holds a log's mutex if it can be had in time. An abandoned one counts as taken, since no line is
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
    if (held_) (void)platform::ReleaseMutex(*mutex_);  // nobody to tell of a failure
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
  const bool left = HasEnded(thread, kLeaveMs);
  std::uint32_t Exitcode = 0;
  if (!platform::GetExitCodeThread(thread, &Exitcode)) LogInfo("GetExitCodeThread failed");
  if (!left && !EndThreadBetweenLines(thread, Exitcode)) LogInfo("%s", failureLine);
}

}  // namespace stewardry
