// The three threads of a KVM session. None has a stop condition in its work, so each checks a stop
// request between two steps. A thread is terminated only if it does not exit on request: a thread
// that is ended at any instruction may hold the lock of the heap or of the loader.
#pragma once

#include <atomic>

#include "platform/thread.h"

namespace stewardry {

// One thread of the session. The thread that sets up or tears down the session makes all calls but
// StopRequested and StopFlag, which are the session thread's own.
class SessionThread {
 public:
  // `name` is the thread's in the log lines.
  explicit SessionThread(const char* name) : name_(name) {}
  SessionThread(const SessionThread&) = delete;
  SessionThread& operator=(const SessionThread&) = delete;

  // Starts the thread. Requires that none exists. Returns false, and logs it, on failure.
  bool Start(platform::ThreadEntry entry);
  // True from Start until the thread has ended.
  bool Exists() const { return static_cast<bool>(thread_); }
  // Asks the thread, if it exists, to exit. EndOrTerminate must follow.
  void AskToStop();
  // Ends the thread, if it exists, and closes its handle. A thread that cannot be ended, which is
  // logged, keeps handle and stop request: a pump that went on would read a region that was given
  // back. May be repeated. Not on the thread itself.
  void EndOrTerminate();

  // Relaxed: the request publishes nothing else.
  bool StopRequested() const { return stop_.load(std::memory_order_relaxed); }
  const std::atomic<bool>& StopFlag() const { return stop_; }

 private:
  const char* const name_;
  platform::Thread thread_;
  std::atomic<bool> stop_{false};
};

// EndOrTerminate of each thread.
void TerminateKVMAgentThread();
void TerminateKeyboardThread();
void TerminateMouseThread();

}  // namespace stewardry
