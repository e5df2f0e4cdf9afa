#include "platform/linux/lab/link_sender.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <cstdint>

#include "lablink/messages.h"

namespace platform {

void SignalDescriptor(int descriptor) {
  const std::uint64_t one = 1;
  [[maybe_unused]] const ssize_t written = ::write(descriptor, &one, sizeof one);
}

void ResetDescriptor(int descriptor) {
  std::uint64_t count;
  [[maybe_unused]] const ssize_t n = ::read(descriptor, &count, sizeof count);
}

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
    std::lock_guard guard(lock_);
    if (holdReads_) return lablink::AppendMessage(&held_, lablink::kRead, count, size);
  }
  Send(lablink::kRead, count, size);
}

void LinkSender::HoldReads(bool hold) {
  std::string due;
  {
    std::lock_guard guard(lock_);
    holdReads_ = hold;
    if (!hold) due.swap(held_);
  }
  if (!due.empty()) SendParts({{{due.data(), due.size()}}}, 1);
}

LinkSender::Demand LinkSender::CurrentDemand() {
  std::lock_guard guard(lock_);
  return {!outbox_.empty(), holdReads_};
}

// Sends the parts behind the reads that were held; what the socket doesn't take goes to the outbox.
void LinkSender::SendParts(Parts parts, std::size_t count) {
  std::lock_guard guard(lock_);
  std::string held;
  held.swap(held_);
  if (!held.empty()) {
    assert(count < parts.size());
    std::copy_backward(parts.begin(), parts.begin() + count, parts.begin() + count + 1);
    parts[0] = {held.data(), held.size()};
    ++count;
  }
  std::size_t sent = 0;
  if (outbox_.empty()) {
    msghdr message{};
    message.msg_iov = parts.data();
    message.msg_iovlen = count;
    const ssize_t n = ::sendmsg(socket_, &message, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (n < 0 && errno != EAGAIN && errno != EINTR) return;  // the leader finds the link's end
    sent = n > 0 ? static_cast<std::size_t>(n) : 0;
  }
  KeepRest({parts.data(), count}, sent);
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
  if (outbox_.size() > before) SignalDescriptor(bell_);
}

void LinkSender::Flush() {
  std::lock_guard guard(lock_);
  const ssize_t n = ::send(socket_, outbox_.data(), outbox_.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
  if (n > 0) outbox_.erase(0, static_cast<std::size_t>(n));
}

}  // namespace platform
