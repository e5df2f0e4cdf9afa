// A program of the user's session as a test needs it: it serves a pipe byte by byte, and breaks off
// where it likes.
#pragma once

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <cerrno>

#include <filesystem>
#include <string>

namespace stewardry {

class AskingProgram {
 public:
  // Uses no GoogleTest, since a fuzz target links none. If the bind fails, Meet returns false.
  AskingProgram(const std::string& lab, const std::string& pipe) : path_(lab + "/pipe/" + pipe) {
    std::filesystem::create_directories(lab + "/pipe");
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path_.copy(address.sun_path, sizeof address.sun_path - 1);
    if (::bind(listener_, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0)
      (void)::listen(listener_, 8);
  }
  AskingProgram(const AskingProgram&) = delete;
  AskingProgram& operator=(const AskingProgram&) = delete;
  ~AskingProgram() {
    HangUp();
    ::close(listener_);
    ::unlink(path_.c_str());
  }

  // Waits, for a minute at most, until the service has connected.
  bool Meet() {
    HangUp();
    if (IsReadable(listener_, kHangMs)) peer_ = ::accept(listener_, nullptr, nullptr);
    // Little room on the way, so that a long question is not sent before it is read.
    const int room = 2048;
    return peer_ >= 0 && ::setsockopt(peer_, SOL_SOCKET, SO_SNDBUF, &room, sizeof room) == 0;
  }
  // Returns false if the service has closed the connection already.
  bool Say(const std::string& bytes) {
    for (std::size_t sent = 0; sent < bytes.size();) {
      const ssize_t n =
          TEMP_FAILURE_RETRY(::send(peer_, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL));
      if (n <= 0) return false;
      sent += static_cast<std::size_t>(n);
    }
    return true;
  }
  // Closes the sending side only.
  void FallSilent() { ::shutdown(peer_, SHUT_WR); }
  // Receives until the service closes the connection, or `most` bytes.
  std::string Hear(std::size_t most = 4096) {
    std::string heard;
    for (char next;
         heard.size() < most && IsReadable(peer_, kHangMs) && ::recv(peer_, &next, 1, 0) == 1;)
      heard += next;
    return heard;
  }
  void HangUp() {
    if (peer_ >= 0) ::close(peer_);
    peer_ = -1;
  }
  // Returns true if there is something to receive now, be it the end.
  bool IsAddressed() { return IsReadable(peer_, 0); }

  // One whole exchange.
  std::string Ask(const std::string& bytes) {
    if (!Meet() || !Say(bytes)) return "no exchange";
    FallSilent();
    return Hear();
  }

 private:
  static constexpr int kHangMs = 60'000;

  // A signal, such as a fuzzer's alarm, ends no wait.
  static bool IsReadable(int descriptor, int milliseconds) {
    pollfd ready{descriptor, POLLIN, 0};
    return TEMP_FAILURE_RETRY(::poll(&ready, 1, milliseconds)) > 0;
  }

  std::string path_;
  int listener_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  int peer_ = -1;
};

}  // namespace stewardry
