// The lab folder and the sockets in it, for the lab's own programs. They depend on nothing of the
// service, so the folder's rule ($STEWARDRY_LAB, else /tmp/stewardry-lab) is repeated here.
#pragma once

#include <cstdint>
#include <string>
#include <utility>

namespace lab {

// Owns a file descriptor; -1 is none. Move-only.
class Descriptor {
 public:
  Descriptor() = default;
  explicit Descriptor(int value) : value_(value) {}
  Descriptor(Descriptor&& other) noexcept : value_(std::exchange(other.value_, -1)) {}
  Descriptor& operator=(Descriptor&& other) noexcept;
  ~Descriptor() { Close(); }

  int Get() const { return value_; }
  explicit operator bool() const { return value_ >= 0; }
  void Close();

 private:
  int value_ = -1;
};

// Returns the lab folder, without a trailing slash.
std::string LabFolder();

// Owns a listening Unix stream socket and its socket file.
class LocalListener {
 public:
  LocalListener() = default;
  ~LocalListener() { Close(); }
  LocalListener(const LocalListener&) = delete;
  LocalListener& operator=(const LocalListener&) = delete;

  // Creates the folders above `path`, removes a stale socket file and listens, non-blocking.
  // Returns false with a sentence in `problem` on failure, also if another program listens there.
  // Requires that this listener is closed.
  bool Open(const std::string& path, std::string* problem);
  void Close();
  int Get() const { return socket_.Get(); }
  const std::string& Path() const { return path_; }

 private:
  Descriptor socket_;
  std::string path_;
};

// Connects to such a socket, blocking. Returns an empty descriptor with the reason in errno on
// failure.
Descriptor ConnectLocal(const std::string& path);
// Listens on 127.0.0.1, non-blocking; port 0 selects a free one. Stores the port in use in `port`.
Descriptor ListenLoopback(std::uint16_t* port, std::string* problem);
// Accepts one connection, non-blocking. Returns an empty descriptor if none is pending.
Descriptor AcceptOne(int listener);
// Redirects SIGTERM and SIGINT to the descriptor that it returns, and ignores SIGPIPE. Requires
// that no thread has been created.
Descriptor OpenStopSignals();

}  // namespace lab
