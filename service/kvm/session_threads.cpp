#include "service/kvm/session_threads.h"

#include <cassert>

#include "platform/event.h"
#include "service/diagnostics/service_log.h"
#include "service/diagnostics/thread_end.h"
#include "service/kvm/kvm_state.h"

namespace stewardry {

namespace {

// Longer than any step between two checks of the request, except a hung agent's start.
constexpr std::uint32_t kPatienceMilliseconds = 2000;

}  // namespace

bool SessionThread::Start(platform::ThreadEntry entry) {
  assert(!Exists() && !StopRequested());
  thread_ = platform::CreateThread(entry, nullptr);
  if (!Exists()) LogInfo("%s thread failed", name_);
  return Exists();
}

void SessionThread::AskToStop() {
  if (Exists()) stop_.store(true, std::memory_order_relaxed);
}

void SessionThread::EndOrTerminate() {
  if (!Exists()) return;
  AskToStop();
  (void)platform::WaitForSingleObject(thread_, kPatienceMilliseconds);  // the exit code decides
  std::uint32_t exitCode = platform::kStillActive;
  if (!platform::GetExitCodeThread(thread_, &exitCode)) LogInfo("GetExitCodeThread failed");
  if (exitCode == platform::kStillActive && !EndThreadBetweenLines(thread_, exitCode)) {
    LogInfo("TerminateThread for %s failed", name_);
    return;
  }
  thread_.Reset();
  stop_.store(false, std::memory_order_relaxed);
}

void TerminateKVMAgentThread() { gKvm->gKvmAgentThread.EndOrTerminate(); }
void TerminateKeyboardThread() { gKvm->gKeyboardThread.EndOrTerminate(); }
void TerminateMouseThread() { gKvm->gMouseThread.EndOrTerminate(); }

}  // namespace stewardry
