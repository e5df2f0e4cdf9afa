// Message_Restore. The pages are untrusted: nothing outside them is read, and no pointer is stored
// before its target was checked.
#include <cstdint>

#include "cim/log/log_events.h"
#include "cim/message/message.h"
#include "cim/message/message_table.h"
#include "cim/packing/packing.h"

namespace stewardry::cim {

namespace {

// The arguments of one call, and the message once it is found.
struct Shipment {
  Batch* batch;
  const BatchPageInfo* list;
  std::size_t count;
  bool skipUnpack;
  Message* message;
  std::uint32_t size;  // of the record
};

bool Translate(const Shipment& shipment, void** pointer, std::size_t* left) {
  return Batch_TranslateRange(shipment.batch, shipment.list, shipment.count, pointer, left);
}

bool HasTerminator(const char16_t* text, std::size_t bytes) {
  for (std::size_t i = 0; i < bytes / sizeof(char16_t); ++i)
    if (text[i] == 0) return true;
  return false;
}

bool IsAligned(const void* pointer, std::size_t to) {
  return reinterpret_cast<std::uintptr_t>(pointer) % to == 0;
}

// Logs the event and returns false.
bool Fail(void (*log)(const char* file, std::uint32_t line)) {
  log("", 0);
  return false;
}

// Refuses a text outside the pages and one without its terminator in the same page.
bool RestoreText(const MessageFieldRow& row, const Shipment& shipment) {
  void*& field = Message_Field<void*>(shipment.message, row.field);
  if (field == nullptr) return row.kind != mft_pointer || Fail(LibLog_PointerMissing);
  std::size_t left;
  void* text = field;
  if (!Translate(shipment, &text, &left) || !IsAligned(text, alignof(char16_t)) ||
      !HasTerminator(static_cast<const char16_t*>(text), left))
    return Fail(LibLog_FixTextFailed);
  field = text;
  return true;
}

// Returns true if the bytes do not overlap the record: unpacking changes them.
bool LiesApart(const Shipment& shipment, const void* bytes, std::size_t size) {
  const auto begin = reinterpret_cast<std::uintptr_t>(bytes);
  const auto record = reinterpret_cast<std::uintptr_t>(shipment.message);
  return begin + size <= record || record + shipment.size <= begin;
}

bool RestoreInstance(const MessageFieldRow& row, const Shipment& shipment) {
  Instance*& instance = Message_Field<Instance*>(shipment.message, row.field);
  instance = nullptr;
  void*& field = Message_Field<void*>(shipment.message, row.packed);
  if (field == nullptr) return row.kind != mft_instance || Fail(LibLog_PackedMissing);
  const std::uint32_t size = Message_Field<std::uint32_t>(shipment.message, row.packedSize);
  std::size_t left;
  void* bytes = field;
  if (!Translate(shipment, &bytes, &left) || size > left || !LiesApart(shipment, bytes, size))
    return Fail(LibLog_FixPackedFailed);
  field = bytes;
  if (shipment.skipUnpack || Instance_UnpackBytes(shipment.batch, bytes, size, &instance))
    return true;
  return Fail(LibLog_UnpackFailed);
}

bool RestoreField(const MessageFieldRow& row, const Shipment& shipment) {
  switch (row.kind) {
    case mft_pointer:
    case mft_pointer_optional:
      return RestoreText(row, shipment);
    case mft_clear:
      Message_Field<std::uint64_t>(shipment.message, row.field) = 0;
      return true;
    default:
      return RestoreInstance(row, shipment);
  }
}

bool RestoreFields(const MessageFieldRow* row, const Shipment& shipment) {
  for (; row->kind != mft_end; ++row)
    if (!RestoreField(*row, shipment)) return false;
  return true;
}

// Returns the message's address here. Logs and returns null unless its head lies in a page.
Message* FindMessage(const Shipment& shipment, const void* address, std::size_t* left) {
  void* at = const_cast<void*>(address);
  if (!Translate(shipment, &at, left) || *left < sizeof(Message) ||
      !IsAligned(at, alignof(Message))) {
    LibLog_FixPointerFailed("", 0);
    return nullptr;
  }
  return static_cast<Message*>(at);
}

// Returns the message's row. Logs and returns null unless the whole record lies in its page.
const MessageRow* FindRow(Shipment* shipment, std::size_t left) {
  const MessageRow* row = FindMessageRow(shipment->message->tag);
  if (row == nullptr) {
    LibLog_InvalidTag("", 0, shipment->message->tag);
    return nullptr;
  }
  if (row->size > left) {
    LibLog_FixPointerFailed("", 0);
    return nullptr;
  }
  shipment->size = row->size > sizeof(Message) ? row->size : std::uint32_t{sizeof(Message)};
  return row;
}

}  // namespace

Result Message_Restore(Batch* batch, const void* address, const BatchPageInfo* list,
                       std::size_t count, bool skipUnpack, Message** message) {
  assert(batch != nullptr && (count == 0 || list != nullptr));
  *message = nullptr;
  Shipment shipment = {batch, list, count, skipUnpack, nullptr, 0};
  std::size_t left;
  Message* found = FindMessage(shipment, address, &left);
  if (found == nullptr) return RESULT_INVALID_PARAMETER;
  shipment.message = found;
  found->batch = batch;
  found->refs.store(1, std::memory_order_relaxed);  // not shared yet
  if (!RestoreFields(kMessageHeadFields, shipment)) {
    LibLog_RestoreFailedFirst("", 0);
    return RESULT_INVALID_PARAMETER;
  }
  const MessageRow* row = FindRow(&shipment, left);
  if (row == nullptr) return RESULT_INVALID_PARAMETER;
  if (Message_IsRequest(found->tag) &&
      (row->size < kRequestHeadSize || !RestoreFields(kRequestFields, shipment))) {
    LibLog_RestoreFailedSecond("", 0, found->tag);
    return RESULT_INVALID_PARAMETER;
  }
  if (!RestoreFields(row->fields, shipment)) {
    LibLog_RestoreFailedThird("", 0);
    return RESULT_INVALID_PARAMETER;
  }
  *message = found;
  return RESULT_OK;
}

}  // namespace stewardry::cim
