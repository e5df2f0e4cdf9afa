// The outgoing side of the lab link. Nothing here blocks on a firmware that doesn't read: what the
// socket can't take waits in the outbox until the link's backstop flushes it.
#pragma once

#include <sys/uio.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <span>
#include <string>

namespace platform {

class LinkSender {
 public:
  // `bell` is an eventfd that is signalled when the outbox begins to hold something. Both
  // descriptors stay the caller's.
  LinkSender(int socket, int bell) : socket_(socket), bell_(bell) {}
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
  bool HoldsReads();
  bool HasOutbox();
  // Sends what the socket takes of the outbox.
  void Flush();

 private:
  // Held reads, a head and its body.
  using Parts = std::array<iovec, 2 + kMostParts>;

  void SendParts(Parts parts, std::size_t count);
  void KeepRest(std::span<const iovec> parts, std::size_t sent);

  const int socket_;
  const int bell_;

  std::mutex lock_;     // guards all below; never held together with WaitLock
  std::string outbox_;  // bytes that the socket didn't take
  std::string held_;    // reports of reads that wait for the next message
  bool holdReads_ = false;
};

}  // namespace platform
