// Messages: counted records in batches of their own, together with all that they point to. Inside a
// process a message is passed by pointer, with a reference. To another process it goes as its
// pages: the sending form has every text and every packed instance in the message's batch, the
// transport ships the pages byte for byte with their list (Batch_PageList) and the message's
// address, and at the far end (Batch_FromPageSizes) the pointers are translated. So the record is a
// wire format.
//
// Invariants:
// 1. A record's layout is fixed: little-endian, pointers of 64 bits, the fields that its tag's row
//    of the message table names. Requests have a request head and their own fields from 136 on, the
//    others theirs from 80 on.
// 2. `refs` alone changes once a message is shared; the last Message_Drop ends message and batch.
// 3. A shipped message is hostile: nothing that it says of addresses and sizes is believed before
// it
//    lies inside a shipped page.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "cim/memory/batch.h"
#include "cim/memory/result.h"

namespace stewardry::cim {

// Tags, the index of a row of the message table.
enum MessageTag : std::uint32_t {
  kUnknownMessage,
  kGetInstanceReq,
  kPostInstanceMsg,
  kEnumerateInstancesReq,
  kPostResultMsg,
  kNoOpReq,
  kNoOpRsp,
  kInvokeReq,
  kAssociatorsOfReq,
  kReferencesOfReq,
  kSubscribeReq,
  kUnsubscribeReq,
  kDeleteInstanceReq,
  kCreateInstanceReq,
  kModifyInstanceReq,
  kBinProtocolNotification,
  kGetClassReq,
  kPostSchemaMsg,
  kHttpRequestMsg,
  kHttpResponseMsg,
  kPostIndicationMsg,
  kSubscribeRes,
  kCancelMsg,
  kProtocolEventConnect,
};
constexpr std::uint32_t kMessageTags = 24;
constexpr std::uint32_t kTagMask = 0xFFF;
// In `tag`: a request head is there.
constexpr std::uint32_t kTagIsRequest = 0x1000;

struct Message {
  Message* next;  // the owner's list
  Message* prev;
  Batch* batch;  // holds the message
  std::uint32_t tag;
  std::uint32_t flags;
  std::atomic<std::uint64_t> refs;
  std::uint64_t unused[2];
  std::uint64_t correlationId;
  // Called when the last reference goes, before the batch does; or empty.
  void (*release)(Message* message, void* releaseData);
  void* releaseData;
};
static_assert(sizeof(Message) == 80 && offsetof(Message, prev) == 8 &&
              offsetof(Message, batch) == 16 && offsetof(Message, tag) == 24 &&
              offsetof(Message, flags) == 28 && offsetof(Message, refs) == 32 &&
              offsetof(Message, correlationId) == 56 && offsetof(Message, release) == 64 &&
              offsetof(Message, releaseData) == 72);

enum MessageFieldKind : std::uint32_t {
  mft_end,
  mft_pointer,            // a text that must be there
  mft_pointer_optional,   // a text
  mft_clear,              // a word that means nothing at the far end
  mft_instance,           // an instance that must be there, or its packed bytes
  mft_instance_optional,  // an instance, or its packed bytes
};

// Offsets into the message; of the first three kinds only `field` counts.
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

// The field of a message at an offset of its table.
template <class T>
T& Message_Field(Message* message, std::uint64_t offset) {
  return *reinterpret_cast<T*>(reinterpret_cast<std::uint8_t*>(message) + offset);
}
template <class T>
const T& Message_Field(const Message* message, std::uint64_t offset) {
  return *reinterpret_cast<const T*>(reinterpret_cast<const std::uint8_t*>(message) + offset);
}

// A message with one reference in a new batch, `size` bytes (at least the head's 80) zeroed but for
// what the arguments say. Empty when memory fails. Ends with the last Message_Drop.
Message* Message_Create(std::uint32_t tag, std::uint32_t size, std::uint64_t correlationId,
                        std::uint32_t flags);
// The size of a tag's record; 0 for "UNKNOWN Message" and from 24 up.
std::uint32_t Message_SizeOf(std::uint32_t tag);

// One more reference. Any thread that holds one.
void Message_Retain(Message* message);
// Gives one reference back; the last one calls `release` and destroys the batch. Any thread.
void Message_Drop(Message* message);

// The row's name; "UNKNOWN Message" from 24 up.
const char* Message_TagName(std::uint32_t tag);
bool Message_IsRequest(std::uint32_t tag);

// Stores a form of the message that can be shipped: the message itself with one more reference
// where its row asks for no clone, else a clone that the caller drops. The source stays as it is.
// RESULT_INVALID_PARAMETER for a tag from 24 up, a request bit on a record without a request head,
// and a missing text or instance; RESULT_FAILED when memory fails. Both but the first are logged
// (events 20003, 20004).
Result MessagePackCloneForBinarySending(const Message* message, Message** clone);

// Copies what follows the head into `destination`, whose record is as large, texts and packed
// instances into its batch. The results of the above; event 30089 for a tag from 24 up.
Result Message_CopyForSend(const Message* source, Message* destination, std::uint32_t tag);

// Makes a message of shipped pages: `batch` has them, with their content, from Batch_FromPageSizes,
// `list` says where they lay at the sender, `address` where the message lay. With `skipUnpack` the
// instances stay packed. RESULT_OK, the message has one reference and owns the batch; or
// RESULT_INVALID_PARAMETER after a logged event (30032, 30088 to 30096), *message is empty, and the
// batch, half translated, stays the caller's to destroy.
Result Message_Restore(Batch* batch, const void* address, const BatchPageInfo* list,
                       std::size_t count, bool skipUnpack, Message** message);

}  // namespace stewardry::cim
