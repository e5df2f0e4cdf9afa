#include "platform/linux/lab/link_sender.h"

#include <sys/socket.h>

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <cstdint>

#include "lablink/messages.h"
#include "platform/linux/runtime/descriptor.h"

namespace platform {

void LinkSender::Send(std::uint32_t kind, std::uint64_t id, std::uint32_t word,
                      std::span<const iovec> body) {
  assert(body.size() <= kMostParts);
  lablink::Head head = lablink::MakeHead(kind, id, word, 0);
  Parts parts{{{&head, sizeof head}}};
  std::size_t count = 1;
  for (const iovec& part : body) {
    if (part.iov_len == 0) continue;
    parts[count++] = part;
    head.length += static_cast<std::uint32_t>(part.iov_len);
  }
  SendParts(parts, count);
}

void LinkSender::SendRead(std::uint64_t count, std::uint32_t size) {
  {
    std::lock_guard guard(heldLock_);
    if (HoldsReads()) return lablink::AppendMessage(&held_, lablink::kRead, count, size);
  }
  Send(lablink::kRead, count, size);
}

void LinkSender::HoldReads(bool hold) {
  if (hold) return holdReads_.store(true, std::memory_order_relaxed);
  {
    std::lock_guard guard(heldLock_);
    holdReads_.store(false, std::memory_order_relaxed);
    if (held_.empty()) return;
  }
  SendParts({}, 0);
}

// Sends the parts behind the reads that were held; what the socket doesn't take goes to the outbox.
void LinkSender::SendParts(Parts parts, std::size_t count) {
  std::lock_guard guard(lock_);
  assert(released_.empty());
  {
    std::lock_guard held(heldLock_);
    released_.swap(held_);
  }
  if (!released_.empty()) {
    assert(count < parts.size());
    std::copy_backward(parts.begin(), parts.begin() + count, parts.begin() + count + 1);
    parts[0] = {released_.data(), released_.size()};
    ++count;
  }
  std::size_t sent = 0;
  if (outbox_.empty()) {
    msghdr message{};
    message.msg_iov = parts.data();
    message.msg_iovlen = count;
    const ssize_t n = ::sendmsg(socket_, &message, MSG_NOSIGNAL | MSG_DONTWAIT);
    const bool ended = n < 0 && errno != EAGAIN && errno != EINTR;  // the reader finds it, too
    if (ended) return released_.clear();
    sent = n > 0 ? static_cast<std::size_t>(n) : 0;
  }
  KeepRest({parts.data(), count}, sent);
  released_.clear();
}

// Under lock_. Moves what follows the first `sent` bytes to the outbox.
void LinkSender::KeepRest(std::span<const iovec> parts, std::size_t sent) {
  const std::size_t before = outbox_.size();
  for (const iovec& part : parts) {
    const std::size_t skip = std::min(sent, part.iov_len);
    sent -= skip;
    outbox_.append(static_cast<const char*>(part.iov_base) + skip, part.iov_len - skip);
  }
  assert(sent == 0);
  if (outbox_.size() == before) return;
  hasOutbox_.store(true, std::memory_order_relaxed);
  SignalDescriptor(wake_);
}

void LinkSender::Flush() {
  std::lock_guard guard(lock_);
  const ssize_t n = ::send(socket_, outbox_.data(), outbox_.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
  if (n > 0) outbox_.erase(0, static_cast<std::size_t>(n));
  if (n < 0 && errno != EAGAIN && errno != EINTR) outbox_.clear();  // the link has ended
  hasOutbox_.store(!outbox_.empty(), std::memory_order_relaxed);
}

}  // namespace platform
