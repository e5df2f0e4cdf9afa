// Keeps a thread that uses what another thread owns apart from the end of that thing.
#pragma once

#include <atomic>
#include <cstdint>

#include "platform/thread.h"

namespace stewardry {

// Keeps apart the reader thread, which writes to the socket in a slot, and the thread that closes
// that socket. The writer holds a Use from before it reads the slot until its write is over; the
// closer clears the slot and then awaits the end of a use. All of it is sequentially consistent:
// either the writer finds the slot cleared, or the closer finds the mark and waits. So the writer
// never meets a socket number that has been given to somebody else.
class SlotMark {
 public:
  // One at a time: the reader thread's.
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

  // Returns once a use that may have seen the slot's old value is over. A use doesn't block, so one
  // that lasts two seconds is that of a thread which was ended within it: it is given up, and its
  // mark taken away.
  void AwaitEndOfUse();
  bool InUse() const { return used_.load(std::memory_order_seq_cst); }

 private:
  std::atomic<bool> used_{false};
};

// How a thread is asked to leave that mostly waits in something of its own: a selector, a
// completion port. The thread lends what it waits in while that exists, and looks at the mark
// before each piece of work; the asker sets the mark, then wakes what is lent. Sequentially
// consistent on both sides: either the asker finds it lent and wakes it, or the thread finds the
// mark.
template <class Waiting>
class StopMark {
 public:
  bool IsSet() const { return stop_.load(std::memory_order_seq_cst) != 0; }
  // The mark as a word, which is 0 until it is set.
  const std::atomic<std::uint32_t>& Word() const { return stop_; }

  // The thread that is asked. What is taken back isn't used by the asker any more.
  void Lend(Waiting* waiting) { lent_.store(waiting, std::memory_order_seq_cst); }
  void TakeBack() {
    lent_.store(nullptr, std::memory_order_seq_cst);
    while (use_.InUse()) platform::Sleep(0);  // nobody ends the asker
  }

  // One thread at a time. wake(Waiting*) mustn't block, and what it does must end a wait that
  // begins later, too. Only the first call does anything: the thread may have been ended since.
  template <class Wake>
  void Ask(Wake wake) {
    if (stop_.exchange(1, std::memory_order_seq_cst) != 0) return;
    const SlotMark::Use use(&use_);
    if (Waiting* waiting = lent_.load(std::memory_order_seq_cst)) wake(waiting);
  }

 private:
  std::atomic<std::uint32_t> stop_{0};
  std::atomic<Waiting*> lent_{nullptr};
  SlotMark use_;
};

}  // namespace stewardry
