// Follows the record layer of a TLS stream (RFC 8446, section 5.1) as it passes, for the trace.
// Writes to the mailbox have no regard for record boundaries: one may end inside a record's head.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "lab/firmware/core/bytes.h"

namespace orrin {

class TlsRecordWatch {
 public:
  // The records that begin in these bytes, in words: "TLS handshake (ClientHello)", "3 TLS
  // application data"; "TLS record continued" when none begins; "not TLS" once the stream has left
  // the record layer.
  std::string Describe(ByteView bytes);

 private:
  std::string TakeHead(ByteView rest);

  static constexpr std::size_t kHeadSize = 5;
  std::uint8_t head_[kHeadSize] = {};
  std::size_t headFilled_ = 0;
  std::size_t bodyLeft_ = 0;
  bool broken_ = false;
};

}  // namespace orrin
