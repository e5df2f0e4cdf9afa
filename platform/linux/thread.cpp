// A terminated thread leaves at its next wait (runtime/wait.h).
#include "platform/thread.h"

#include <sched.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cassert>
#include <cstdint>
#include <ctime>
#include <memory>
#include <system_error>
#include <thread>

#include "platform/event.h"
#include "platform/linux/runtime/descriptor.h"
#include "platform/linux/runtime/gate.h"
#include "platform/linux/runtime/last_error.h"
#include "platform/linux/runtime/wait.h"

namespace platform {

namespace {

using RecordPointer = std::shared_ptr<ThreadRecord>;

const RecordPointer& RecordOf(const Thread& thread) {
  assert(thread);
  return *static_cast<RecordPointer*>(thread.Raw());
}

void MarkFinished(ThreadRecord& record, std::uint32_t exitCode) {
  std::lock_guard guard(WaitLock());
  assert(record.running);
  record.running = false;
  if (!record.ended) record.exitCode = exitCode;
  record.finished.notify_all();
}

void RunThread(const RecordPointer& record, ThreadEntry entry, void* parameter) {
  SetCurrentThread(record);
  std::uint32_t exitCode = 0;
  try {
    exitCode = entry(parameter);
  } catch (const ThreadEnd&) {
    // Terminated: TerminateThread has set the exit code.
  }
  MarkFinished(*record, exitCode);
}

bool Start(const RecordPointer& record, ThreadEntry entry, void* parameter) {
  try {
    std::thread(RunThread, record, entry, parameter).detach();
    return true;
  } catch (const std::system_error&) {
    return false;
  }
}

}  // namespace

void CloseThread(RawHandle raw) {
  gate::Note("CloseHandle");
  delete static_cast<RecordPointer*>(raw);
}

Thread CreateThread(ThreadEntry entry, void* parameter) {
  assert(entry != nullptr);
  if (gate::Fails("CreateThread")) return Thread();
  auto record = std::make_shared<ThreadRecord>();
  record->endDescriptor = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (record->endDescriptor < 0 || !Start(record, entry, parameter))
    return Fail(kErrorNotEnoughMemory, Thread());
  return Thread(new RecordPointer(std::move(record)));
}

bool TerminateThread(const Thread& thread, std::uint32_t exitCode) {
  if (gate::Fails("TerminateThread", "exitCode=%u", exitCode)) return false;
  if (!thread) return Fail(kErrorInvalidHandle);
  ThreadRecord& record = *RecordOf(thread);
  std::lock_guard guard(WaitLock());
  if (!record.running) return true;
  record.ended = true;
  record.exitCode = exitCode;
  if (record.waitingOn != nullptr) record.waitingOn->notify_all();
  SignalDescriptor(record.endDescriptor);
  SignalDescriptor(record.wakeDescriptor);
  if (&record == &CurrentThread()) throw ThreadEnd{};
  return true;
}

bool GetExitCodeThread(const Thread& thread, std::uint32_t* exitCode) {
  if (gate::Fails("GetExitCodeThread")) return false;
  if (!thread) return Fail(kErrorInvalidHandle);
  std::lock_guard guard(WaitLock());
  ThreadRecord& record = *RecordOf(thread);
  *exitCode = record.running ? kStillActive : record.exitCode;
  return true;
}

std::uint32_t WaitForSingleObject(const Thread& thread, std::uint32_t milliseconds) {
  if (gate::Fails("WaitForSingleObject")) return kWaitFailed;
  if (!thread) return Fail(kErrorInvalidHandle, kWaitFailed);
  ThreadRecord& record = *RecordOf(thread);
  std::unique_lock lock(WaitLock());
  const bool done = WaitUntil(lock, record.finished, DeadlineAfter(milliseconds),
                              [&] { return !record.running; });
  return done ? kWaitObject0 : kWaitTimeout;
}

std::uint32_t GetCurrentThreadId() {
  thread_local const auto id = static_cast<std::uint32_t>(::gettid());
  return id;
}

std::uint32_t GetCurrentProcessId() {
  static const auto id = static_cast<std::uint32_t>(::getpid());
  return id;
}

void PauseProcessor() {
#if defined(__x86_64__)
  __builtin_ia32_pause();
#endif
}

// Passes no gate: a spinning thread would fill every trace.
void SwitchToThread() {
  ::sched_yield();
  if (CurrentThread().ended.load(std::memory_order_relaxed)) LeaveIfEnded();
}

void Sleep(std::uint32_t milliseconds) {
  if (gate::Skips("Sleep", milliseconds) || milliseconds == 0) {
    ::sched_yield();
    return LeaveIfEnded();
  }
  std::condition_variable never;
  std::unique_lock lock(WaitLock());
  WaitUntil(lock, never, DeadlineAfter(milliseconds), [] { return false; });
}

// Every wait of clock_nanosleep is precise, so a timer holds nothing.
void CloseWaitTimer(RawHandle) { gate::Note("CloseHandle"); }

WaitTimer CreateWaitTimer() {
  static char none;
  if (gate::Fails("CreateWaitableTimerExW")) return WaitTimer();
  return WaitTimer(&none);
}

void WaitMicroseconds(const WaitTimer& timer, std::uint32_t microseconds) {
  if (!timer) return Sleep(1);
  if (!gate::Skips("SetWaitableTimer", microseconds)) {
    const timespec time{microseconds / 1'000'000, microseconds % 1'000'000 * 1000L};
    (void)::clock_nanosleep(CLOCK_MONOTONIC, 0, &time, nullptr);  // a signal only shortens it
  }
  if (CurrentThread().ended.load(std::memory_order_relaxed)) LeaveIfEnded();
}

}  // namespace platform
