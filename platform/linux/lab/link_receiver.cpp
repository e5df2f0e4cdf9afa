#include "platform/linux/lab/link_receiver.h"

#include <sys/socket.h>
#include <sys/uio.h>

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <cstring>

namespace platform {

namespace {

// What is received before the kind of a message is known. More would copy more of a long frame
// twice, less would cost a second system call for a shorter one.
constexpr std::size_t kFirstBytes = 8192;
constexpr std::size_t kWorthPlacing = 4096;

}  // namespace

LinkReceiver::Result LinkReceiver::Receive(int socket) {
  const bool hasBegun = reader_.Torn() > 0;
  const std::span<std::uint8_t> room = reader_.Room();
  iovec parts[2];
  std::size_t count = 0;
  std::size_t most = 0;
  const auto add = [&](std::uint8_t* data, std::size_t size) {
    parts[count++] = {data, size};
    most += size;
  };
  if (IsPlaced()) add(target_ + filled_, size_ - filled_);
  add(room.data(), hasBegun ? room.size() : std::min(room.size(), kFirstBytes));
  msghdr message{};
  message.msg_iov = parts;
  message.msg_iovlen = count;
  const ssize_t n = ::recvmsg(socket, &message, MSG_DONTWAIT);
  if (n < 0 && errno == EAGAIN) return Result::kDrained;
  if (n < 0 && errno == EINTR) return Result::kMore;
  if (n <= 0) return Result::kEnded;
  const auto received = static_cast<std::size_t>(n);
  const std::size_t placed = IsPlaced() ? std::min(received, size_ - filled_) : 0;
  filled_ += placed;
  reader_.Filled(received - placed);
  return received == most ? Result::kMore : Result::kDrained;
}

std::optional<lablink::Head> LinkReceiver::LongFrame() const {
  lablink::Head head;
  const std::span<const std::uint8_t> begun = reader_.Begun();
  if (begun.size() < sizeof head) return std::nullopt;
  std::memcpy(&head, begun.data(), sizeof head);
  if (head.kind != lablink::kFrame) return std::nullopt;
  const std::size_t received = begun.size() - sizeof head;
  if (head.length < received + kWorthPlacing) return std::nullopt;
  return head;
}

void LinkReceiver::Place(std::uint8_t* target) {
  assert(!IsPlaced() && target != nullptr);
  const std::optional<lablink::Head> head = LongFrame();
  assert(head);
  const std::span<const std::uint8_t> body = reader_.Begun().subspan(sizeof *head);
  std::copy(body.begin(), body.end(), target);
  target_ = target;
  size_ = head->length;
  filled_ = body.size();
  reader_.Clear();
}

void LinkReceiver::MovePlaced(std::uint8_t* target) {
  assert(IsPlaced());
  std::copy(target_, target_ + filled_, target);
  target_ = target;
}

std::optional<std::size_t> LinkReceiver::TakePlaced() {
  assert(IsPlaced());
  if (filled_ < size_) return std::nullopt;
  target_ = nullptr;
  return size_;
}

}  // namespace platform
