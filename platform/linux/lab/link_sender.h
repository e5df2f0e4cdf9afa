// The outgoing side of the lab link. Nothing here blocks on a firmware that doesn't read: what the
// socket can't take waits in the outbox until the link's backstop flushes it.
#pragma once

#include <sys/uio.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <span>
#include <string>

namespace platform {

class LinkSender {
 public:
  // `wake` is an eventfd that is signalled when the outbox begins to hold something. Both
  // descriptors stay the caller's.
  LinkSender(int socket, int wake) : socket_(socket), wake_(wake) {}
  LinkSender(const LinkSender&) = delete;
  LinkSender& operator=(const LinkSender&) = delete;

  // Sends a message whose body is the parts of `body`, at most kMostParts.
  static constexpr std::size_t kMostParts = 2;
  void Send(std::uint32_t kind, std::uint64_t id, std::uint32_t word,
            std::span<const iovec> body = {});
  // Reports an armed read. Reporting each one at once would wake the firmware for every frame, so
  // between HoldReads(true) and HoldReads(false) the reports wait for the next message.
  void SendRead(std::uint64_t count, std::uint32_t size);
  void HoldReads(bool hold);

  // Returns whether HoldReads(false) is due soon.
  bool HoldsReads() const { return holdReads_.load(std::memory_order_relaxed); }
  bool HasOutbox() const { return hasOutbox_.load(std::memory_order_relaxed); }
  // Sends what the socket takes of the outbox.
  void Flush();

 private:
  // Held reads, a head and its body.
  using Parts = std::array<iovec, 2 + kMostParts>;

  void SendParts(Parts parts, std::size_t count);
  void KeepRest(std::span<const iovec> parts, std::size_t sent);

  const int socket_;
  const int wake_;

  std::mutex lock_;       // of the thread that sends; never held together with WaitLock
  std::string outbox_;    // under lock_: bytes that the socket didn't take
  std::string released_;  // under lock_: the held reports while they are sent

  std::mutex heldLock_;  // taken after lock_, for a few instructions
  std::string held_;     // under heldLock_: reports of reads that wait for the next message

  // Relaxed: a report that is sent at once or held for a millisecond too long does no harm, and the
  // wake-up follows the store to hasOutbox_.
  std::atomic<bool> holdReads_{false};
  std::atomic<bool> hasOutbox_{false};
};

}  // namespace platform
