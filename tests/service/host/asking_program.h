// A program of the user's session as a test wants it: it serves a pipe byte by byte, and breaks off
// where it likes.
#pragma once

#include <errno.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <filesystem>
#include <string>

namespace stewardry {

class AskingProgram {
 public:
  AskingProgram(const std::string& lab, const std::string& pipe) : path_(lab + "/pipe/" + pipe) {
    std::filesystem::create_directories(lab + "/pipe");
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path_.copy(address.sun_path, sizeof address.sun_path - 1);
    listener_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    // Nobody is met at a socket that can't be bound, and the test says so.
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

  // Waits, for ten seconds at most, until the service has connected.
  bool Meet() {
    HangUp();
    if (Comes(listener_, 10'000)) peer_ = ::accept(listener_, nullptr, nullptr);
    // Little room on the way, so that a long question isn't said before it is read.
    const int room = 2048;
    return peer_ >= 0 && ::setsockopt(peer_, SOL_SOCKET, SO_SNDBUF, &room, sizeof room) == 0;
  }
  // False when the service has hung up already.
  bool Say(const std::string& bytes) {
    for (std::size_t sent = 0; sent < bytes.size();) {
      const ssize_t n =
          TEMP_FAILURE_RETRY(::send(peer_, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL));
      if (n <= 0) return false;
      sent += static_cast<std::size_t>(n);
    }
    return true;
  }
  // Says nothing more, but listens.
  void FallSilent() { ::shutdown(peer_, SHUT_WR); }
  // Hears until the service hangs up, or `most` bytes.
  std::string Hear(std::size_t most = 4096) {
    std::string heard;
    for (char next; heard.size() < most && Comes(peer_, 10'000) && ::recv(peer_, &next, 1, 0) == 1;)
      heard += next;
    return heard;
  }
  void HangUp() {
    if (peer_ >= 0) ::close(peer_);
    peer_ = -1;
  }
  // Something is to be heard, be it the end.
  bool IsAddressed() { return Comes(peer_, 0); }

  // One whole exchange.
  std::string Ask(const std::string& bytes) {
    if (!Meet() || !Say(bytes)) return "no exchange";
    return Hear();
  }

 private:
  // A signal, such as a fuzzer's alarm, ends no wait: the wait starts anew.
  static bool Comes(int descriptor, int milliseconds) {
    pollfd ready{descriptor, POLLIN, 0};
    return TEMP_FAILURE_RETRY(::poll(&ready, 1, milliseconds)) > 0;
  }

  std::string path_;
  int listener_ = -1;
  int peer_ = -1;
};

}  // namespace stewardry
