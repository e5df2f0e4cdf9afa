#include "lab/local/local_socket.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cassert>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <system_error>

namespace lab {
namespace {

constexpr int kBacklog = SOMAXCONN;  // an agent receives a connection for each event

bool MakeAddress(const std::string& path, sockaddr_un* address) {
  *address = {};
  address->sun_family = AF_UNIX;
  if (path.size() >= sizeof address->sun_path) return false;
  std::memcpy(address->sun_path, path.c_str(), path.size() + 1);
  return true;
}

bool Problem(std::string* problem, const std::string& what) {
  *problem = what + ": " + std::strerror(errno);
  return false;
}

int Bind(int socket, const sockaddr_un& address) {
  return bind(socket, reinterpret_cast<const sockaddr*>(&address), sizeof address);
}

// Removes a socket that no program serves. Any other file there is left alone.
bool RemoveStale(const std::string& path, std::string* problem) {
  struct stat info {};
  if (lstat(path.c_str(), &info) == 0 && !S_ISSOCK(info.st_mode)) {
    *problem = path + " is not a socket";
    return false;
  }
  if (ConnectLocal(path)) {
    *problem = path + " is served by another program";
    return false;
  }
  return unlink(path.c_str()) == 0 || errno == ENOENT || Problem(problem, "unlink " + path);
}

}  // namespace

Descriptor& Descriptor::operator=(Descriptor&& other) noexcept {
  if (this != &other) {
    Close();
    value_ = std::exchange(other.value_, -1);
  }
  return *this;
}

void Descriptor::Close() {
  if (value_ >= 0) (void)close(value_);  // the descriptor is freed even on an error
  value_ = -1;
}

std::string LabFolder() {
  const char* folder = std::getenv("STEWARDRY_LAB");
  std::string path = folder != nullptr && *folder != 0 ? folder : "/tmp/stewardry-lab";
  while (path.size() > 1 && path.back() == '/') path.pop_back();
  return path;
}

bool LocalListener::Open(const std::string& path, std::string* problem) {
  assert(!socket_);
  sockaddr_un address;
  if (!MakeAddress(path, &address)) {
    *problem = path + " is too long for a socket's name";
    return false;
  }
  std::error_code error;
  std::filesystem::create_directories(std::filesystem::path(path).parent_path(), error);
  if (error) {
    *problem = "folder of " + path + ": " + error.message();
    return false;
  }
  Descriptor made(socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  if (!made) return Problem(problem, "socket");
  if (Bind(made.Get(), address) != 0) {
    if (errno != EADDRINUSE) return Problem(problem, "bind " + path);
    if (!RemoveStale(path, problem)) return false;
    if (Bind(made.Get(), address) != 0) return Problem(problem, "bind " + path);
  }
  path_ = path;
  socket_ = std::move(made);
  if (listen(socket_.Get(), kBacklog) == 0) return true;
  Problem(problem, "listen " + path);
  Close();
  return false;
}

void LocalListener::Close() {
  if (!socket_) return;
  (void)unlink(path_.c_str());  // another program may have removed it
  socket_.Close();
}

Descriptor ConnectLocal(const std::string& path) {
  sockaddr_un address;
  if (!MakeAddress(path, &address)) {
    errno = ENAMETOOLONG;
    return {};
  }
  Descriptor made(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!made) return {};
  if (connect(made.Get(), reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) return made;
  const int error = errno;
  made.Close();
  errno = error;
  return {};
}

Descriptor ListenLoopback(std::uint16_t* port, std::string* problem) {
  Descriptor made(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
  const int on = 1;
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(*port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  auto* generic = reinterpret_cast<sockaddr*>(&address);
  if (!made || setsockopt(made.Get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof on) != 0 ||
      bind(made.Get(), generic, size) != 0 || listen(made.Get(), kBacklog) != 0 ||
      getsockname(made.Get(), generic, &size) != 0) {
    Problem(problem, "127.0.0.1:" + std::to_string(*port));
    return {};
  }
  *port = ntohs(address.sin_port);
  return made;
}

Descriptor AcceptOne(int listener) {
  Descriptor accepted(accept4(listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
  const int on = 1;
  // Fails on a Unix socket, which has no such delay.
  if (accepted) (void)setsockopt(accepted.Get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  return accepted;
}

Descriptor OpenStopSignals() {
  signal(SIGPIPE, SIG_IGN);
  sigset_t stops;
  sigemptyset(&stops);
  sigaddset(&stops, SIGTERM);
  sigaddset(&stops, SIGINT);
  sigprocmask(SIG_BLOCK, &stops, nullptr);
  return Descriptor(signalfd(-1, &stops, SFD_NONBLOCK | SFD_CLOEXEC));
}

}  // namespace lab
