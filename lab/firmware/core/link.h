// The firmware's side of the lab link: messages out of a byte stream, and messages into one. Both
// halves know nothing of sockets but the one call in Flush, so that every torn and hostile stream
// can be tried in memory.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "lab/firmware/core/bytes.h"
#include "lablink/lab_link.h"

namespace orrin {

struct LinkMessage {
  lablink::Head head;
  ByteView body;  // within the reader; valid until its next Room()
};

// Cuts the stream from the mailbox end into messages. What isn't a message ends the stream: after
// kMalformed the reader stays malformed until Clear.
class LinkReader {
 public:
  enum class Result { kMessage, kNeedMore, kMalformed };

  LinkReader();
  // Where the next bytes of the stream go; never empty unless the stream is malformed.
  std::span<std::uint8_t> Room();
  // So many bytes were put there. REQUIRES: no more than the room.
  void Filled(std::size_t count);
  // The next whole message. A head with another magic or a length over lablink::kMaxBody is
  // malformed as soon as it is there, without waiting for the body.
  Result Next(LinkMessage* message);
  // Forgets everything: a new stream begins.
  void Clear();
  // Bytes of a message that isn't whole yet.
  std::size_t Torn() const { return end_ - begin_; }

 private:
  Bytes buffer_;
  std::size_t begin_ = 0;
  std::size_t end_ = 0;
};

// Gathers messages for the mailbox end until Flush, so that all answers of a turn leave in one
// write.
class LinkWriter {
 public:
  // REQUIRES: body.size() <= lablink::kMaxBody.
  void Send(lablink::Kind kind, std::uint64_t id, std::uint32_t word, ByteView body);
  std::size_t Pending() const { return out_.size() - sent_; }
  // Writes what the socket takes without waiting. False: the link is broken.
  bool Flush(int socket);
  void Clear();

 private:
  void DropSent();

  Bytes out_;
  std::size_t sent_ = 0;
};

}  // namespace orrin
