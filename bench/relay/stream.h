// What the relay's two ends and its floor share: descriptors and buffers with owners, whole
// transfers, and the few words of the stream that a client and a far end speak. Changing the stream
// changes what every peer is measured with.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <utility>

namespace relay {

// What a client says first, little-endian as this machine has it. With a `roundSize` of 0 `total`
// bytes follow, which the far end takes in and answers with their number in 8 bytes. Else the far
// end answers each round of `roundSize` bytes, until the client closes: with `total` bytes, or with
// the round itself if that is 0.
struct StreamHead {
  std::uint64_t roundSize;
  std::uint64_t total;
};
static_assert(sizeof(StreamHead) == 16);

constexpr std::size_t kPage = 4096;
constexpr std::size_t kSmallRound = 64;
constexpr std::size_t kChunk = 131072;     // the mailbox's frame limit, and every peer's buffer
constexpr std::size_t kPicture = 1 << 20;  // what a far end answers at most

// Owns a descriptor; -1 is none.
class Descriptor {
 public:
  explicit Descriptor(int value = -1) : value_(value) {}
  Descriptor(Descriptor&& other) noexcept : value_(std::exchange(other.value_, -1)) {}
  Descriptor& operator=(Descriptor&& other) noexcept {
    std::swap(value_, other.value_);
    return *this;
  }
  Descriptor(const Descriptor&) = delete;
  Descriptor& operator=(const Descriptor&) = delete;
  ~Descriptor();

  int Get() const { return value_; }
  explicit operator bool() const { return value_ >= 0; }

 private:
  int value_;
};

// Zeroed bytes that begin a page: a copy that begins a few bytes into one is many times slower.
class PageBuffer {
 public:
  explicit PageBuffer(std::size_t size);
  std::byte* Data() { return bytes_.get(); }
  std::size_t Size() const { return size_; }

 private:
  std::size_t size_;
  std::unique_ptr<std::byte, void (*)(void*)> bytes_{nullptr, std::free};
};

// Blocking transfers of all `size` bytes; false at the peer's end or on an error.
bool SendAll(int descriptor, const void* data, std::size_t size);
bool ReceiveAll(int descriptor, void* data, std::size_t size);

// Listeners on 127.0.0.1 and on a Unix socket, whose old file goes. An empty owner on failure, with
// the reason on standard error.
Descriptor ListenTcp(std::uint16_t port);
Descriptor ListenUnix(const std::string& path);
// Connections. TCP ones are made and accepted with TCP_NODELAY, so that no peer has more of it than
// another.
Descriptor DialTcp(std::uint16_t port);
Descriptor DialUnix(const std::string& path);
Descriptor Accept(const Descriptor& listener);

}  // namespace relay
