#include "lab/firmware/core/link.h"

#include <sys/socket.h>

#include <cerrno>

namespace orrin {
namespace {

// A buffer that grew past this for a long response is released once it is empty.
constexpr std::size_t kKeptCapacity = std::size_t{1} << 20;

}  // namespace

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

// A queue that is never quite empty must not keep all that was ever sent through it.
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
