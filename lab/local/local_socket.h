// The lab folder and the sockets in it, for the lab's own programs. They depend on nothing of the
// service, so the folder's rule ($STEWARDRY_LAB, else /tmp/stewardry-lab) is told once more here.
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

// The lab folder, without a trailing slash.
std::string LabFolder();

// A listening Unix stream socket and the file that names it; the file goes with its owner.
class LocalListener {
 public:
  LocalListener() = default;
  ~LocalListener() { Close(); }
  LocalListener(const LocalListener&) = delete;
  LocalListener& operator=(const LocalListener&) = delete;

  // Makes the folders above `path`, takes a stale socket file away and listens; non-blocking. False
  // leaves nothing behind and puts a sentence in `problem`; so it is when a live program listens
  // there already.
  bool Open(const std::string& path, std::string* problem);
  void Close();
  int Get() const { return socket_.Get(); }
  const std::string& Path() const { return path_; }

 private:
  Descriptor socket_;
  std::string path_;
};

// Connects to such a socket, blocking; an empty descriptor leaves the reason in errno.
Descriptor ConnectLocal(const std::string& path);
// Listens on 127.0.0.1, non-blocking; port 0 picks one. `port` gets the port in use.
Descriptor ListenLoopback(std::uint16_t* port, std::string* problem);
// Accepts one connection, non-blocking; empty when none waits.
Descriptor AcceptOne(int listener);
// Reads SIGTERM and SIGINT from a descriptor from now on, instead of dying of them, and ignores
// SIGPIPE. REQUIRES: called before any thread is made.
Descriptor OpenStopSignals();

}  // namespace lab
