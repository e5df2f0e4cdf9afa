// Each thread starts in Run, an entry of Windows' type, which owns the record of what to call.
#include "platform/thread.h"

#include <cassert>
#include <memory>

#include "platform/windows/runtime/windows_api.h"

namespace platform {

static_assert(kStillActive == STILL_ACTIVE);

namespace {

struct Start {
  ThreadEntry entry;
  void* parameter;
};

DWORD WINAPI Run(void* record) {
  std::unique_ptr<Start> owner(static_cast<Start*>(record));
  const Start start = *owner;
  owner.reset();  // now, because a terminated thread does not return here
  return start.entry(start.parameter);
}

}  // namespace

void CloseThread(RawHandle raw) { ::CloseHandle(raw); }

Thread CreateThread(ThreadEntry entry, void* parameter) {
  assert(entry != nullptr);
  auto start = std::make_unique<Start>(Start{entry, parameter});
  Thread thread(::CreateThread(nullptr, 0, Run, start.get(), 0, nullptr));
  if (thread) (void)start.release();  // Run owns it
  return thread;
}

bool TerminateThread(const Thread& thread, std::uint32_t exitCode) {
  return ::TerminateThread(thread.Raw(), exitCode) != FALSE;
}

bool GetExitCodeThread(const Thread& thread, std::uint32_t* exitCode) {
  DWORD code = 0;
  if (!::GetExitCodeThread(thread.Raw(), &code)) return false;
  *exitCode = code;
  return true;
}

std::uint32_t WaitForSingleObject(const Thread& thread, std::uint32_t milliseconds) {
  return ::WaitForSingleObject(thread.Raw(), milliseconds);
}

std::uint32_t GetCurrentThreadId() { return ::GetCurrentThreadId(); }

std::uint32_t GetCurrentProcessId() { return ::GetCurrentProcessId(); }

void Sleep(std::uint32_t milliseconds) { ::Sleep(milliseconds); }

void PauseProcessor() { YieldProcessor(); }

void SwitchToThread() { ::SwitchToThread(); }

void CloseWaitTimer(RawHandle raw) { ::CloseHandle(raw); }

WaitTimer CreateWaitTimer() {
  constexpr DWORD kHighResolution = 2;  // CREATE_WAITABLE_TIMER_HIGH_RESOLUTION, not in every SDK
  constexpr DWORD kAccess = TIMER_MODIFY_STATE | SYNCHRONIZE;
  WaitTimer timer(::CreateWaitableTimerExW(nullptr, nullptr, kHighResolution, kAccess));
  if (!timer) timer.Reset(::CreateWaitableTimerExW(nullptr, nullptr, 0, kAccess));
  return timer;
}

void WaitMicroseconds(const WaitTimer& timer, std::uint32_t microseconds) {
  LARGE_INTEGER due;
  due.QuadPart = -10 * static_cast<LONGLONG>(microseconds);  // relative, in 100 nanoseconds
  if (!timer || !::SetWaitableTimer(timer.Raw(), &due, 0, nullptr, nullptr, FALSE) ||
      ::WaitForSingleObject(timer.Raw(), INFINITE) != WAIT_OBJECT_0)
    ::Sleep(1);
}

StayInThread::StayInThread() = default;
StayInThread::~StayInThread() = default;

}  // namespace platform
