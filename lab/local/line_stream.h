// A connected socket as lines: whole lines out of what was read, lines queued for writing.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "lab/local/local_socket.h"

namespace scm {

// The longest line either side sends: a control with its record.
constexpr std::size_t kMaxLine = 64 * 1024;

// One thread. For blocking and non-blocking sockets.
class LineStream {
 public:
  explicit LineStream(lab::Descriptor socket) : socket_(std::move(socket)) {}

  int Get() const { return socket_.Get(); }
  // Reads once. False: the other end has gone, or sent a line longer than kMaxLine.
  bool Read();
  // The next whole line, without its end.
  std::optional<std::string> Line();

  void Send(std::string_view line);
  // Writes what the socket takes. False: the other end has gone or has let more than 1 MiB pile up.
  bool Flush();
  bool HasOutput() const { return !out_.empty(); }

 private:
  lab::Descriptor socket_;
  std::string in_;
  std::string out_;
};

}  // namespace scm
