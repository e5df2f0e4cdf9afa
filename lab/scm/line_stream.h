// A connected socket as lines: complete lines of what was read, and lines queued for writing.
#pragma once

#include <cassert>
#include <optional>
#include <string>
#include <string_view>

#include "lab/local/local_socket.h"

namespace scm {

// The longest line either side sends: a control with its record.
constexpr std::size_t kMaxLine = 64 * 1024;

// One thread. Takes ownership of a blocking or non-blocking socket.
class LineStream {
 public:
  explicit LineStream(lab::Descriptor socket) : socket_(std::move(socket)) { assert(socket_); }

  int Get() const { return socket_.Get(); }
  // Reads once. Returns false if the peer has closed or has sent a line longer than kMaxLine.
  bool Read();
  // Returns the next complete line, without its end.
  std::optional<std::string> Line();

  // Queues a line. Requires one without a line end.
  void Send(std::string_view line);
  // Writes what the socket accepts. Returns false if the peer has closed or left more than 1 MiB
  // unread.
  bool Flush();
  bool HasOutput() const { return !out_.empty(); }

 private:
  lab::Descriptor socket_;
  std::string in_;
  std::string out_;
};

}  // namespace scm
