#include "lab/scm/line_stream.h"

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

namespace scm {
namespace {

constexpr std::size_t kMaxUnread = std::size_t{1} << 20;

bool WouldBlock() { return errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR; }

}  // namespace

bool LineStream::Read() {
  char bytes[4096];
  const ssize_t count = read(socket_.Get(), bytes, sizeof bytes);
  if (count < 0) return WouldBlock();
  if (count == 0) return false;
  in_.append(bytes, static_cast<std::size_t>(count));
  return in_.size() <= kMaxLine || in_.find('\n') != std::string::npos;
}

std::optional<std::string> LineStream::Line() {
  const std::size_t end = in_.find('\n');
  if (end == std::string::npos) return std::nullopt;
  std::string line = in_.substr(0, end);
  in_.erase(0, end + 1);
  return line;
}

void LineStream::Send(std::string_view line) {
  assert(line.find('\n') == std::string_view::npos);
  out_.append(line).push_back('\n');
}

bool LineStream::Flush() {
  while (!out_.empty()) {
    const ssize_t count = send(socket_.Get(), out_.data(), out_.size(), MSG_NOSIGNAL);
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) return WouldBlock() && out_.size() <= kMaxUnread;
    out_.erase(0, static_cast<std::size_t>(count));
  }
  return true;
}

}  // namespace scm
