// Messages: reference-counted records in batches of their own, together with all that they point
// to. Within a process a message is passed by pointer, with a reference. To another process it is
// sent as its pages: in the sending form every text and every packed instance lies in the message's
// batch; the transport copies the pages byte for byte, with their list (Batch_PageList) and the
// message's address; the receiver allocates the pages (Batch_FromPageSizes) and Message_Restore
// translates the pointers. The record is therefore a wire format.
//
// Invariants:
// 1. A record's layout is fixed: little-endian, 64-bit pointers, the fields of its tag's row in the
//    message table. A request has a request head and its own fields from byte 136 on, other
//    messages have theirs from byte 80 on.
// 2. Once a message is shared only `refs` changes. The last Message_Drop frees message and batch.
// 3. A received message is untrusted: each address and size is used only after it was found to lie
//    inside a received page.
#pragma once

#include <atomic>
#include <cassert>
#include <cstddef>
#include <cstdint>

#include "cim/memory/batch.h"
#include "cim/memory/result.h"
#include "sock/selector.h"

namespace stewardry::cim {

// Tags: the index of the row in the message table.
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
// The index in `tag`.
constexpr std::uint32_t kTagMask = 0xFFF;
// The bit in `tag` of a message with a request head.
constexpr std::uint32_t kTagIsRequest = 0x1000;

struct Message {
  Message* next;  // list links for the message's holder
  Message* prev;
  Batch* batch;  // holds the message
  std::uint32_t tag;
  std::uint32_t flags;
  std::atomic<std::uint64_t> refs;
  std::uint64_t unused[2];
  std::uint64_t correlationId;
  // Called with the last reference, before the batch is destroyed; or null.
  void (*release)(Message* message, void* releaseData);
  void* releaseData;
};
static_assert(sizeof(Message) == 80 && offsetof(Message, prev) == 8 &&
              offsetof(Message, batch) == 16 && offsetof(Message, tag) == 24 &&
              offsetof(Message, flags) == 28 && offsetof(Message, refs) == 32 &&
              offsetof(Message, correlationId) == 56 && offsetof(Message, release) == 64 &&
              offsetof(Message, releaseData) == 72);

// Returns the field of type T at a byte offset into the record.
template <class T>
T& Message_Field(Message* message, std::uint64_t offset) {
  assert(offset % alignof(T) == 0);
  return *reinterpret_cast<T*>(reinterpret_cast<std::uint8_t*>(message) + offset);
}
template <class T>
const T& Message_Field(const Message* message, std::uint64_t offset) {
  assert(offset % alignof(T) == 0);
  return *reinterpret_cast<const T*>(reinterpret_cast<const std::uint8_t*>(message) + offset);
}

// Makes a message with one reference in a new batch: `size` bytes, at least the head's 80, zeroed
// except for the arguments. Returns null if allocation fails. Released by the last Message_Drop.
Message* Message_Create(std::uint32_t tag, std::uint32_t size, std::uint64_t correlationId,
                        std::uint32_t flags);

// Returns the size of a tag's record, or 0 for "UNKNOWN Message" and an index above 23.
std::uint32_t Message_SizeOf(std::uint32_t tag);

// Adds one reference. Any thread that holds a reference.
void Message_Retain(Message* message);

// Releases one reference. The last one calls `release` and destroys the batch. Any thread.
void Message_Drop(Message* message);

// Returns the name of the tag's row, or "UNKNOWN Message" for an index above 23.
const char* Message_TagName(std::uint32_t tag);

// Returns true for a tag with the request bit.
bool Message_IsRequest(std::uint32_t tag);

// Stores a form of the message that can be sent to another process, to be released by the caller: a
// clone, or, if the tag's row requires none, the message itself with one more reference. Does not
// change the source's content. Returns RESULT_OK; RESULT_INVALID_PARAMETER for an index above 23, a
// request bit on a record without a request head, and a missing text or instance; or RESULT_FAILED
// if allocation fails. All failures but the first are logged (events 20003, 20004).
Result MessagePackCloneForBinarySending(const Message* message, Message** clone);

// Copies the record after the head into `destination`, whose record has the same size, and texts
// and packed instances into its batch. Returns what MessagePackCloneForBinarySending returns; an
// index above 23 is logged (event 30089).
Result Message_CopyForSend(const Message* source, Message* destination, std::uint32_t tag);

// Makes a message of received pages. `batch` holds them with their content (Batch_FromPageSizes),
// `list` has their addresses and sizes at the sender, `address` is the message's address there.
// With `skipUnpack` the instances stay packed. Returns RESULT_OK and stores a message with one
// reference that owns the batch. Otherwise logs an event (30032, 30088 to 30096), stores null and
// returns RESULT_INVALID_PARAMETER; the batch, partly translated, remains the caller's to destroy.
Result Message_Restore(Batch* batch, const void* address, const BatchPageInfo* list,
                       std::size_t count, bool skipUnpack, Message** message);

// Runs callback(callbackData, message) on the selector's run thread: immediately if that is the
// calling thread, otherwise at the start of the selector's next pass, or not at all if the selector
// is destroyed first. A pending call holds a reference on the message and is allocated in the
// message's batch: one thread at a time may post a message. Returns RESULT_OK, or RESULT_FAILED if
// allocation fails or the selector is not initialized. Any thread, not concurrently with
// Selector_Destroy.
Result Selector_CallInRunThread(Selector* selector, void (*callback)(void*, Message*),
                                void* callbackData, Message* message);

}  // namespace stewardry::cim
