#include "lab/firmware/core/link.h"

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace orrin {
namespace {

constexpr std::size_t kHeadSize = sizeof(lablink::Head);
// Room for the longest message behind the start of any other.
constexpr std::size_t kBufferSize = 2 * (kHeadSize + lablink::kMaxBody);
// A buffer that grew past this for a long response is given back once it is empty.
constexpr std::size_t kKeptCapacity = std::size_t{1} << 20;

}  // namespace

LinkReader::LinkReader() : buffer_(kBufferSize) {}

std::span<std::uint8_t> LinkReader::Room() {
  if (begin_ > 0) {
    std::copy(buffer_.begin() + static_cast<std::ptrdiff_t>(begin_),
              buffer_.begin() + static_cast<std::ptrdiff_t>(end_), buffer_.begin());
    end_ -= begin_;
    begin_ = 0;
  }
  return std::span(buffer_).subspan(end_);
}

void LinkReader::Filled(std::size_t count) { end_ += count; }

LinkReader::Result LinkReader::Next(LinkMessage* message) {
  const std::size_t available = end_ - begin_;
  if (available < kHeadSize) return Result::kNeedMore;
  lablink::Head head;
  std::memcpy(&head, buffer_.data() + begin_, kHeadSize);
  if (head.magic != lablink::kMagic || head.length > lablink::kMaxBody) return Result::kMalformed;
  if (available < kHeadSize + head.length) return Result::kNeedMore;
  message->head = head;
  message->body = ByteView(buffer_).subspan(begin_ + kHeadSize, head.length);
  begin_ += kHeadSize + head.length;
  return Result::kMessage;
}

void LinkReader::Clear() { begin_ = end_ = 0; }

void LinkWriter::Send(lablink::Kind kind, std::uint64_t id, std::uint32_t word, ByteView body) {
  const lablink::Head head{lablink::kMagic, kind, id, word,
                           static_cast<std::uint32_t>(body.size())};
  const auto* bytes = reinterpret_cast<const std::uint8_t*>(&head);
  out_.insert(out_.end(), bytes, bytes + kHeadSize);
  out_.insert(out_.end(), body.begin(), body.end());
}

bool LinkWriter::Flush(int socket) {
  while (Pending() > 0) {
    const ssize_t sent = send(socket, out_.data() + sent_, Pending(), MSG_NOSIGNAL);
    if (sent < 0 && errno == EINTR) continue;
    if (sent < 0 && errno != EAGAIN && errno != EWOULDBLOCK) return false;
    if (sent < 0) {
      DropSent();
      return true;
    }
    sent_ += static_cast<std::size_t>(sent);
  }
  Clear();
  return true;
}

// A queue that is never quite empty must not keep all that ever went through it.
void LinkWriter::DropSent() {
  if (sent_ < out_.size() / 2) return;
  out_.erase(out_.begin(), out_.begin() + static_cast<std::ptrdiff_t>(sent_));
  sent_ = 0;
}

void LinkWriter::Clear() {
  out_.clear();
  sent_ = 0;
  if (out_.capacity() > kKeptCapacity) out_ = Bytes();
}

}  // namespace orrin
