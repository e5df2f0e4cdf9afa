#include "cim/message/message.h"

#include <algorithm>
#include <cstring>

#include "cim/log/log_events.h"
#include "cim/memory/arithmetic.h"
#include "cim/message/message_table.h"
#include "cim/packing/packing.h"

namespace stewardry::cim {

namespace {

using Text = const char16_t*;

Result SendText(const MessageFieldRow& row, const Message* source, Message* destination) {
  const Text text = Message_Field<Text>(source, row.field);
  if (text == nullptr) return row.kind == mft_pointer ? RESULT_INVALID_PARAMETER : RESULT_OK;
  Text& copy = Message_Field<Text>(destination, row.field);
  copy = Batch_DupText(destination->batch, text);
  return copy != nullptr ? RESULT_OK : RESULT_FAILED;
}

// An instance that is already packed is copied as bytes.
Result SendInstance(const MessageFieldRow& row, const Message* source, Message* destination) {
  Message_Field<Instance*>(destination, row.field) = nullptr;
  void*& packed = Message_Field<void*>(destination, row.packed);
  std::uint32_t& size = Message_Field<std::uint32_t>(destination, row.packedSize);
  if (const void* bytes = Message_Field<void*>(source, row.packed); bytes != nullptr) {
    size = Message_Field<std::uint32_t>(source, row.packedSize);
    packed = Batch_Realloc(destination->batch, bytes, size, size);  // a copy
    return packed != nullptr ? RESULT_OK : RESULT_FAILED;
  }
  const Instance* instance = Message_Field<Instance*>(source, row.field);
  if (instance != nullptr) {
    const Result result =
        Instance_PackToBatch(instance, nullptr, nullptr, destination->batch, &packed, &size);
    return result == RESULT_OK ? RESULT_OK : RESULT_FAILED;
  }
  return row.kind == mft_instance ? RESULT_INVALID_PARAMETER : RESULT_OK;
}

Result SendField(const MessageFieldRow& row, const Message* source, Message* destination) {
  switch (row.kind) {
    case mft_pointer:
    case mft_pointer_optional:
      return SendText(row, source, destination);
    case mft_instance:
    case mft_instance_optional:
      return SendInstance(row, source, destination);
    default:
      return RESULT_OK;
  }
}

Result SendFields(const MessageFieldRow* row, const Message* source, Message* destination) {
  Result result = RESULT_OK;
  for (; row->kind != mft_end && result == RESULT_OK; ++row)
    result = SendField(*row, source, destination);
  return result;
}

// A posted call with the callback in the library's own type, in the message's batch.
struct MessageCall {
  PostedCall posted;
  void (*callback)(void* callbackData, Message* message);
  void* callbackData;
};

void RunMessageCall(void* call, void* message) {
  const auto* own = static_cast<const MessageCall*>(call);
  own->callback(own->callbackData, static_cast<Message*>(message));
}

void DropMessage(void* message) { Message_Drop(static_cast<Message*>(message)); }

}  // namespace

Message* Message_Create(std::uint32_t tag, std::uint32_t size, std::uint64_t correlationId,
                        std::uint32_t flags) {
  Batch* batch = Batch_Create(kNoPageLimit);
  if (batch == nullptr) return nullptr;
  auto* message =
      static_cast<Message*>(Batch_AllocZero(batch, std::max<std::size_t>(size, sizeof(Message))));
  if (message == nullptr) {
    Batch_Destroy(batch);
    return nullptr;
  }
  message->batch = batch;
  message->tag = tag;
  message->flags = flags;
  message->refs.store(1, std::memory_order_relaxed);  // not shared yet
  message->correlationId = correlationId;
  return message;
}

std::uint32_t Message_SizeOf(std::uint32_t tag) {
  const MessageRow* row = FindMessageRow(tag);
  return row == nullptr ? 0 : row->size;
}

void Message_Retain(Message* message) {
  [[maybe_unused]] const std::uint64_t refs = Atomic_Inc(&message->refs);
  assert(refs > 1);
}

void Message_Drop(Message* message) {
  assert(message->refs.load() > 0 && message->batch != nullptr);
  if (Atomic_Dec(&message->refs) != 0) return;
  if (message->release != nullptr) message->release(message, message->releaseData);
  Batch_Destroy(message->batch);
}

const char* Message_TagName(std::uint32_t tag) {
  const MessageRow* row = FindMessageRow(tag);
  return (row != nullptr ? row : FindMessageRow(kUnknownMessage))->name;
}

bool Message_IsRequest(std::uint32_t tag) { return (tag & kTagIsRequest) != 0; }

Result MessagePackCloneForBinarySending(const Message* message, Message** clone) {
  const MessageRow* row = FindMessageRow(message->tag);
  if (row == nullptr) return RESULT_INVALID_PARAMETER;
  if (!row->needsClone) {
    *clone = const_cast<Message*>(message);  // only its count changes
    Message_Retain(*clone);
    return RESULT_OK;
  }
  Message* made = Message_Create(message->tag, row->size, message->correlationId, message->flags);
  if (made == nullptr) {
    LibLog_CloneNotAllocated("", 0, message->tag);
    return RESULT_FAILED;
  }
  const Result result = Message_CopyForSend(message, made, message->tag);
  if (result != RESULT_OK) {
    LibLog_CloneFailed("", 0, made->tag, result);
    Message_Drop(made);
    return result;
  }
  *clone = made;
  return RESULT_OK;
}

Result Message_CopyForSend(const Message* source, Message* destination, std::uint32_t tag) {
  assert(source != destination && destination->batch != nullptr);
  const MessageRow* row = FindMessageRow(tag);
  if (row == nullptr) {
    LibLog_InvalidTag("", 0, destination->tag);
    return RESULT_INVALID_PARAMETER;
  }
  const bool isRequest = Message_IsRequest(tag);
  if (isRequest && row->size < kRequestHeadSize) return RESULT_INVALID_PARAMETER;
  if (row->size > sizeof(Message))
    std::memcpy(&Message_Field<std::uint8_t>(destination, sizeof(Message)),
                &Message_Field<std::uint8_t>(source, sizeof(Message)), row->size - sizeof(Message));
  const Result result = isRequest ? SendFields(kRequestFields, source, destination) : RESULT_OK;
  return result == RESULT_OK ? SendFields(row->fields, source, destination) : result;
}

Result Selector_CallInRunThread(Selector* selector, void (*callback)(void*, Message*),
                                void* callbackData, Message* message) {
  assert(callback != nullptr && message->refs.load() > 0);
  if (selector->state == nullptr) return RESULT_FAILED;
  if (Selector_IsRunThread(selector)) {
    callback(callbackData, message);
    return RESULT_OK;
  }
  auto* call = static_cast<MessageCall*>(Batch_AllocZero(message->batch, sizeof(MessageCall)));
  if (call == nullptr) return RESULT_FAILED;
  call->callback = callback;
  call->callbackData = callbackData;
  call->posted.callback = RunMessageCall;
  call->posted.callbackData = call;
  call->posted.message = message;
  Message_Retain(message);
  Selector_Post(selector, &call->posted, DropMessage);
  return RESULT_OK;
}

}  // namespace stewardry::cim
