// The ends of a session's threads.
#include "service/kvm/session_threads.h"

#include "platform/event.h"
#include "service/diagnostics/service_log.h"
#include "service/diagnostics/thread_end.h"

namespace stewardry {

platform::ProcessLifetime<platform::Thread> gKvmAgentThread;
platform::ProcessLifetime<platform::Thread> gKeyboardThread;
platform::ProcessLifetime<platform::Thread> gMouseThread;
std::atomic<bool> gStopKVMAgentThread{false};
std::atomic<bool> gStopKeyboardThread{false};
std::atomic<bool> gStopMouseThread{false};

namespace {

// Longer than any step between two looks at the mark, a hung agent's start apart.
constexpr std::uint32_t kPatienceMilliseconds = 2000;

void EndSessionThread(platform::Thread* thread, std::atomic<bool>* stop, const char* failureLine) {
  if (!*thread) return;
  stop->store(true, std::memory_order_relaxed);
  (void)platform::WaitForSingleObject(*thread, kPatienceMilliseconds);  // the exit code tells
  std::uint32_t exitCode = platform::kStillActive;
  if (!platform::GetExitCodeThread(*thread, &exitCode)) LogInfo("GetExitCodeThread failed");
  if (exitCode == platform::kStillActive && !EndThreadBetweenLines(*thread, exitCode)) {
    LogInfo("%s", failureLine);
    return;  // handle and mark stay with the thread
  }
  thread->Reset();
  stop->store(false, std::memory_order_relaxed);
}

}  // namespace

void StopKVMAgentWatch() {
  if (*gKvmAgentThread) gStopKVMAgentThread.store(true, std::memory_order_relaxed);
}

void TerminateKVMAgentThread() {
  EndSessionThread(&*gKvmAgentThread, &gStopKVMAgentThread, "TerminateThread for KVM Agent failed");
}

void TerminateKeyboardThread() {
  EndSessionThread(&*gKeyboardThread, &gStopKeyboardThread, "TerminateThread for Keyboard failed");
}

void TerminateMouseThread() {
  EndSessionThread(&*gMouseThread, &gStopMouseThread, "TerminateThread for Mouse failed");
}

}  // namespace stewardry
