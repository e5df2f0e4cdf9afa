// The firmware's side of the lab link: the messages of a mailbox end, and the queue of those for
// it.
#pragma once

#include <cstddef>
#include <cstdint>

#include "lab/firmware/core/bytes.h"
#include "lablink/messages.h"

namespace orrin {

using LinkMessage = lablink::Message;
using LinkReader = lablink::MessageReader;

// Gathers messages for the mailbox end until Flush, so that all answers of a turn leave in one
// write.
class LinkWriter {
 public:
  // Requires body.size() <= lablink::kMaxBody.
  void Send(lablink::Kind kind, std::uint64_t id, std::uint32_t word, ByteView body) {
    lablink::AppendMessage(&out_, kind, id, word, body);
  }
  std::size_t Pending() const { return out_.size() - sent_; }
  // Writes what the socket takes without waiting. Returns false if the link is broken.
  bool Flush(int socket);
  void Clear();

 private:
  void DropSent();

  Bytes out_;
  std::size_t sent_ = 0;
};

}  // namespace orrin
