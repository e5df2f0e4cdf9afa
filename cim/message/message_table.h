// The table of all messages: what lies where in each record.
#pragma once

#include "cim/message/message.h"

namespace stewardry::cim {

struct MessageRow {
  const char* name;
  std::uint32_t size;             // of the whole record
  bool needsClone;                // before it is sent
  const MessageFieldRow* fields;  // up to mft_end
};

extern const MessageFieldRow kMessageHeadFields[];
extern const MessageFieldRow kRequestFields[];
// The bytes of a record with a request head, up to its own fields.
constexpr std::uint32_t kRequestHeadSize = 136;

// The row of `tag & kTagMask`; empty from 24 up.
const MessageRow* FindMessageRow(std::uint32_t tag);

}  // namespace stewardry::cim
