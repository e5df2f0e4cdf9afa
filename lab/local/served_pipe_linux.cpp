#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>

#include "lab/local/local_socket.h"
#include "lab/local/served_pipe.h"

namespace lab {

namespace {

constexpr std::size_t kLongestAnswer = 4096;  // above any answer: a bound for any other client

bool Await(int descriptor, short events, Deadline deadline) {
  pollfd ready{descriptor, events, 0};
  return ::poll(&ready, 1, MillisecondsTo(deadline)) > 0;
}

bool Send(int peer, const char* bytes, std::size_t size, Deadline deadline) {
  while (size > 0) {
    if (!Await(peer, POLLOUT, deadline)) return false;
    const ssize_t n = ::send(peer, bytes, size, MSG_NOSIGNAL | MSG_DONTWAIT);
    if (n < 0 && errno != EAGAIN) return false;
    if (n <= 0) continue;
    bytes += n;
    size -= static_cast<std::size_t>(n);
  }
  return true;
}

// Returns false at the deadline. A reset ends the answer as a close does.
bool ReceiveAll(int peer, Deadline deadline, std::string* received) {
  while (received->size() < kLongestAnswer) {
    if (!Await(peer, POLLIN, deadline)) return false;
    char piece[256];
    const ssize_t n = ::recv(peer, piece, sizeof piece, 0);
    if (n <= 0) return true;
    received->append(piece, static_cast<std::size_t>(n));
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

bool ServedPipe::Exchange(const std::string& question, Deadline deadline, std::string* received,
                          std::string* problem) {
  Descriptor peer;
  while (!peer) {
    if (!Await(ends_->listener.Get(), POLLIN, deadline)) {
      *problem = "the service has not connected in time";
      return false;
    }
    peer = AcceptOne(ends_->listener.Get());
  }
  ucred client{};
  socklen_t size = sizeof client;
  const bool isKnown = ::getsockopt(peer.Get(), SOL_SOCKET, SO_PEERCRED, &client, &size) == 0;
  clientProcess_ = isKnown ? static_cast<std::uint32_t>(client.pid) : 0;
  if (Send(peer.Get(), question.c_str(), question.size() + 1, deadline) &&
      ReceiveAll(peer.Get(), deadline, received))
    return true;
  *problem = "the service has not answered in time";
  return false;
}

}  // namespace lab
