// Follows the record layer of a TLS stream (RFC 8446, section 5.1), for the trace. A write to the
// mailbox may end anywhere, even inside a record's head.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "lab/firmware/core/bytes.h"

namespace orrin {

class TlsRecordWatch {
 public:
  // Returns the records that begin in these bytes: "TLS handshake (ClientHello)", "3 TLS
  // application data"; "TLS record continued" if none begins; "not TLS" once a record's head is not
  // valid.
  std::string Describe(ByteView bytes);

 private:
  std::string ReadHead(ByteView rest);

  static constexpr std::size_t kHeadSize = 5;
  std::uint8_t head_[kHeadSize] = {};
  std::size_t headFilled_ = 0;
  std::size_t bodyLeft_ = 0;
  bool broken_ = false;
};

}  // namespace orrin
