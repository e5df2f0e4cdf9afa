// A served pipe as a Unix socket in the lab folder.
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

#include "lab/local/local_socket.h"
#include "lab/local/served_pipe.h"

namespace lab {

namespace {

constexpr std::size_t kLongestAnswer = 4096;  // beyond any: a bound on what a stranger may say

bool Await(int descriptor, short events, Deadline deadline) {
  pollfd ready{descriptor, events, 0};
  return ::poll(&ready, 1, MillisecondsTo(deadline)) > 0;
}

bool Send(int peer, const char* bytes, std::size_t size, Deadline deadline) {
  while (size > 0) {
    if (!Await(peer, POLLOUT, deadline)) return false;
    const ssize_t n = ::send(peer, bytes, size, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (n < 0 && errno != EAGAIN) return false;
    if (n > 0) bytes += n, size -= static_cast<std::size_t>(n);
  }
  return true;
}

// False at the deadline; a far end that breaks off has hung up, too.
bool ReceiveAll(int peer, Deadline deadline, std::string* said) {
  while (said->size() < kLongestAnswer) {
    if (!Await(peer, POLLIN, deadline)) return false;
    char piece[256];
    const ssize_t n = ::recv(peer, piece, sizeof piece, 0);
    if (n <= 0) return true;
    said->append(piece, static_cast<std::size_t>(n));
  }
  return true;
}

}  // namespace

struct ServedPipe::Ends {
  LocalListener listener;
};

ServedPipe::ServedPipe() : ends_(std::make_unique<Ends>()) {}
ServedPipe::~ServedPipe() = default;

bool ServedPipe::Open(const std::string& name, std::string* problem) {
  return ends_->listener.Open(LabFolder() + "/pipe/" + name, problem);
}

bool ServedPipe::Exchange(const std::string& question, Deadline deadline, std::string* said,
                          std::string* problem) {
  Descriptor peer;
  while (!peer) {
    if (!Await(ends_->listener.Get(), POLLIN, deadline))
      return *problem = "the service hasn't connected in time", false;
    peer = AcceptOne(ends_->listener.Get());
  }
  if (Send(peer.Get(), question.c_str(), question.size() + 1, deadline) &&
      ReceiveAll(peer.Get(), deadline, said))
    return true;
  *problem = "the service hasn't answered in time";
  return false;
}

}  // namespace lab
