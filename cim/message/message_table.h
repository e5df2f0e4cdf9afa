// The table of all messages: the name, size and fields of each record. It defines the wire format.
#pragma once

#include "cim/message/message.h"

namespace stewardry::cim {

enum MessageFieldKind : std::uint32_t {
  mft_end,                // the end of a list of rows
  mft_pointer,            // a required text
  mft_pointer_optional,   // a text
  mft_clear,              // a word that has no meaning at the receiver
  mft_instance,           // a required instance, or its packed bytes
  mft_instance_optional,  // an instance, or its packed bytes
};

// Offsets into the record. Only the instances use the last two.
struct MessageFieldRow {
  std::uint32_t kind;
  std::uint32_t filler;
  std::uint64_t field;
  std::uint64_t packed;      // the pointer to an instance's packed bytes
  std::uint64_t packedSize;  // their number, 32 bits
};
static_assert(sizeof(MessageFieldRow) == 32 && offsetof(MessageFieldRow, field) == 8 &&
              offsetof(MessageFieldRow, packed) == 16 &&
              offsetof(MessageFieldRow, packedSize) == 24);

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

// Returns the row of `tag & kTagMask`, or null for an index above 23.
const MessageRow* FindMessageRow(std::uint32_t tag);

}  // namespace stewardry::cim
