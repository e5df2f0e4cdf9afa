// A program of the user's session that serves a pipe: it accepts the service's connection, sends a
// question in any pieces, and may close at any point.
#pragma once

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "tests/socket_address.h"

namespace stewardry {

class PipeServer {
 public:
  PipeServer(const std::string& lab, const std::string& pipe)
      : path_(lab + "/pipe/" + pipe), listener_(ListenUnix(path_)) {}
  PipeServer(const PipeServer&) = delete;
  PipeServer& operator=(const PipeServer&) = delete;
  ~PipeServer() {
    Close();
    ::close(listener_);
    ::unlink(path_.c_str());
  }

  // Waits, for a minute at most, until the service has connected.
  bool Accept() {
    Close();
    if (IsReadable(listener_, kHangMs)) peer_ = ::accept(listener_, nullptr, nullptr);
    // A small buffer, so that a long question is not sent before it is read.
    const int room = 2048;
    return peer_ >= 0 && ::setsockopt(peer_, SOL_SOCKET, SO_SNDBUF, &room, sizeof room) == 0;
  }
  // Returns false if the service has closed the connection already.
  bool Send(const std::string& bytes) {
    for (std::size_t sent = 0; sent < bytes.size();) {
      const ssize_t n =
          TEMP_FAILURE_RETRY(::send(peer_, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL));
      if (n <= 0) return false;
      sent += static_cast<std::size_t>(n);
    }
    return true;
  }
  // Closes the sending side only.
  void CloseSending() { ::shutdown(peer_, SHUT_WR); }
  // Receives until the service closes the connection, or `most` bytes.
  std::string Receive(std::size_t most = 4096) {
    std::string received;
    for (char next;
         received.size() < most && IsReadable(peer_, kHangMs) && ::recv(peer_, &next, 1, 0) == 1;)
      received += next;
    return received;
  }
  void Close() {
    if (peer_ >= 0) ::close(peer_);
    peer_ = -1;
  }
  // Returns true if there are bytes to receive now, or the end of the connection.
  bool HasInput() { return IsReadable(peer_, 0); }

  // Sends a question on a new connection and returns the answer.
  std::string Exchange(const std::string& bytes) {
    if (!Accept() || !Send(bytes)) return "no exchange";
    CloseSending();
    return Receive();
  }

 private:
  static constexpr int kHangMs = 60'000;

  // A signal, such as a fuzzer's alarm, doesn't end the wait.
  static bool IsReadable(int descriptor, int milliseconds) {
    pollfd ready{descriptor, POLLIN, 0};
    return TEMP_FAILURE_RETRY(::poll(&ready, 1, milliseconds)) > 0;
  }

  std::string path_;
  int listener_;
  int peer_ = -1;
};

}  // namespace stewardry
