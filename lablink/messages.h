// The reader and the writer of the lab link: messages out of a byte stream, and into one. They make
// no system call, so torn and hostile streams can be tried in memory.
#pragma once

#include <cassert>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <span>

#include "lablink/lab_link.h"

namespace lablink {

struct Message {
  Head head;
  std::span<const std::uint8_t> body;   // within the reader; valid until its next Room()
  std::span<const std::uint8_t> bytes;  // head and body, as they were received
};

// Cuts a stream into messages. After kMalformed the reader stays malformed until Clear.
class MessageReader {
 public:
  using Result = Parsed;

  MessageReader() : pages_(std::make_unique_for_overwrite<Page[]>(kPages)) {}

  // Returns where the next bytes of the stream go. Never empty once Next has returned kNeedMore.
  std::span<std::uint8_t> Room() {
    if (begin_ > 0 && end_ > begin_) std::memmove(Data(), Data() + begin_, end_ - begin_);
    end_ -= begin_;
    begin_ = 0;
    return {Data() + end_, kPages * kPage - end_};
  }
  // Counts `count` bytes that were put there. Requires no more than the room.
  void Filled(std::size_t count) {
    assert(count <= kPages * kPage - end_);
    end_ += count;
  }
  // Takes the next whole message; *message is set on kMessage only.
  Result Next(Message* message) {
    Head head;
    const Result result = ParseMessage(Data() + begin_, end_ - begin_, &head);
    if (result != Result::kMessage) return result;
    const std::size_t size = sizeof head + head.length;
    message->head = head;
    message->bytes = {Data() + begin_, size};
    message->body = message->bytes.subspan(sizeof head);
    begin_ += size;
    return result;
  }
  // Drops everything: a new stream begins.
  void Clear() { begin_ = end_ = 0; }
  // Returns the number of bytes that no message has taken yet, and these bytes.
  std::size_t Torn() const { return end_ - begin_; }
  std::span<const std::uint8_t> Begun() const { return {pages_[0].bytes + begin_, Torn()}; }

 private:
  static constexpr std::size_t kPage = 4096;
  // Room for the longest message behind the start of any other.
  static constexpr std::size_t kPages = (2 * kMaxMessage + kPage - 1) / kPage;
  // Page-aligned: copies that begin a few bytes into a page are many times slower.
  struct alignas(kPage) Page {
    std::uint8_t bytes[kPage];
  };

  std::uint8_t* Data() { return pages_[0].bytes; }

  std::unique_ptr<Page[]> pages_;
  std::size_t begin_ = 0;
  std::size_t end_ = 0;
};

// Appends a message to `buffer`, a std::string or a vector of bytes.
template <class Buffer>
void AppendMessage(Buffer* buffer, std::uint32_t kind, std::uint64_t id, std::uint32_t word,
                   std::span<const typename Buffer::value_type> body = {}) {
  assert(body.size() <= kMaxBody);
  const Head head = MakeHead(kind, id, word, body.size());
  const auto* bytes = reinterpret_cast<const typename Buffer::value_type*>(&head);
  buffer->insert(buffer->end(), bytes, bytes + sizeof head);
  buffer->insert(buffer->end(), body.begin(), body.end());
}

}  // namespace lablink
