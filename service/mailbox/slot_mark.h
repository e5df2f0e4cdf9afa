// Two marks between threads: SlotMark orders the use of a socket before its close, StopMark asks a
// thread to exit. Both are sequentially consistent, because each side writes its own word and then
// reads the other's.
#pragma once

#include <atomic>
#include <cassert>
#include <chrono>
#include <cstdint>

#include "platform/thread.h"

namespace stewardry {

// Orders the reader thread's write to the socket in a slot before the close of that socket by
// another thread. The writer holds a Use from before it reads the slot until its write is over; the
// closer clears the slot and then awaits the end of a use. Either the writer finds the slot
// cleared, or the closer finds the mark and waits. So the writer never uses a socket number that
// the system has given to another socket.
class SlotMark {
 public:
  // At most one at a time.
  class Use {
   public:
    explicit Use(SlotMark* mark) : mark_(mark) {
      mark_->used_.store(true, std::memory_order_seq_cst);
    }
    Use(const Use&) = delete;
    Use& operator=(const Use&) = delete;
    ~Use() { mark_->used_.store(false, std::memory_order_release); }

   private:
    SlotMark* mark_;
  };

  // Blocks until a use that may have seen the slot's old value is over. A use doesn't block, so one
  // that lasts two seconds belongs to a thread that was ended within it. Its mark is then cleared,
  // or each later close would wait again.
  void AwaitEndOfUse() {
    const auto end = std::chrono::steady_clock::now() + kLongestUse;
    while (InUse()) {
      if (std::chrono::steady_clock::now() >= end) {
        used_.store(false, std::memory_order_relaxed);
        return;
      }
      platform::Sleep(0);
    }
  }
  bool InUse() const { return used_.load(std::memory_order_seq_cst); }

 private:
  static constexpr std::chrono::seconds kLongestUse{2};

  std::atomic<bool> used_{false};
};

// Asks a thread to exit that mostly waits in an object of its own: a selector, a completion port.
// The thread lends that object while it exists and checks the mark before each piece of work. The
// asking thread sets the mark, then wakes the lent object. Either it finds the object lent and
// wakes it, or the thread finds the mark.
template <class Waiting>
class StopMark {
 public:
  bool IsSet() const { return stop_.load(std::memory_order_seq_cst) != 0; }
  // The mark as a word: 0 until it is set.
  const std::atomic<std::uint32_t>& Word() const { return stop_; }

  // Called by the thread that is asked. Once TakeBack returns, the object is no longer used.
  void Lend(Waiting* waiting) {
    assert(waiting != nullptr && lent_.load(std::memory_order_relaxed) == nullptr);
    lent_.store(waiting, std::memory_order_seq_cst);
  }
  void TakeBack() {
    lent_.store(nullptr, std::memory_order_seq_cst);
    while (use_.InUse()) platform::Sleep(0);  // the asking thread is never ended from outside
  }

  // Called by one thread at a time. wake(Waiting*) must not block, and its effect must also end a
  // wait that begins later. Only the first call has an effect: the thread may have been ended
  // since.
  template <class Wake>
  void Ask(Wake wake) {
    if (stop_.exchange(1, std::memory_order_seq_cst) != 0) return;
    const SlotMark::Use use(&use_);
    Waiting* const waiting = lent_.load(std::memory_order_seq_cst);
    if (waiting != nullptr) wake(waiting);
  }

 private:
  std::atomic<std::uint32_t> stop_{0};
  std::atomic<Waiting*> lent_{nullptr};
  SlotMark use_;
};

}  // namespace stewardry
