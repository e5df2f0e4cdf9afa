// A message out of shipped pages.
#include <cstdint>

#include "cim/log/log_events.h"
#include "cim/message/message.h"
#include "cim/message/message_table.h"
#include "cim/packing/packing.h"

namespace stewardry::cim {

namespace {

// What a restore works on.
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

bool HasEnd(const char16_t* text, std::size_t bytes) {
  for (std::size_t i = 0; i < bytes / sizeof(char16_t); ++i)
    if (text[i] == 0) return true;
  return false;
}

bool IsAligned(const void* pointer, std::size_t to) {
  return reinterpret_cast<std::uintptr_t>(pointer) % to == 0;
}

// A text that leaves its page, as one outside all of them, has no meaning here.
bool RestoreText(const MessageFieldRow& row, const Shipment& shipment) {
  void*& field = Message_Field<void*>(shipment.message, row.field);
  if (field == nullptr) {
    if (row.kind == mft_pointer) LibLog_PointerMissing("", 0);
    return row.kind != mft_pointer;
  }
  std::size_t left;
  void* text = field;
  if (!Translate(shipment, &text, &left) || !IsAligned(text, alignof(char16_t)) ||
      !HasEnd(static_cast<const char16_t*>(text), left))
    return LibLog_FixTextFailed("", 0), false;
  field = text;
  return true;
}

// Unpacking changes the bytes, so the record must not lie among them.
bool LiesApart(const Shipment& shipment, const void* bytes, std::size_t size) {
  const auto begin = reinterpret_cast<std::uintptr_t>(bytes);
  const auto record = reinterpret_cast<std::uintptr_t>(shipment.message);
  return begin + size <= record || record + shipment.size <= begin;
}

bool RestoreInstance(const MessageFieldRow& row, const Shipment& shipment) {
  Instance*& instance = Message_Field<Instance*>(shipment.message, row.field);
  instance = nullptr;
  void*& field = Message_Field<void*>(shipment.message, row.packed);
  if (field == nullptr) {
    if (row.kind == mft_instance) LibLog_PackedMissing("", 0);
    return row.kind != mft_instance;
  }
  const std::uint32_t size = Message_Field<std::uint32_t>(shipment.message, row.packedSize);
  std::size_t left;
  void* bytes = field;
  if (!Translate(shipment, &bytes, &left) || size > left || !LiesApart(shipment, bytes, size))
    return LibLog_FixPackedFailed("", 0), false;
  field = bytes;
  if (shipment.skipUnpack || Instance_UnpackBytes(shipment.batch, bytes, size, &instance))
    return true;
  return LibLog_UnpackFailed("", 0), false;
}

bool RestoreField(const MessageFieldRow& row, const Shipment& shipment) {
  switch (row.kind) {
    case mft_pointer:
    case mft_pointer_optional:
      return RestoreText(row, shipment);
    case mft_clear:
      return Message_Field<std::uint64_t>(shipment.message, row.field) = 0, true;
    default:
      return RestoreInstance(row, shipment);
  }
}

bool RestoreFields(const MessageFieldRow* row, const Shipment& shipment) {
  for (; row->kind != mft_end; ++row)
    if (!RestoreField(*row, shipment)) return false;
  return true;
}

// The message's place here; empty if its head doesn't lie in a shipped page.
Message* FindMessage(const Shipment& shipment, const void* address, std::size_t* left) {
  void* at = const_cast<void*>(address);
  if (!Translate(shipment, &at, left) || *left < sizeof(Message) ||
      !IsAligned(at, alignof(Message)))
    return LibLog_FixPointerFailed("", 0), nullptr;
  return static_cast<Message*>(at);
}

// The row, if the record that it tells of is all there.
const MessageRow* FindRow(Shipment* shipment, std::size_t left) {
  const MessageRow* row = FindMessageRow(shipment->message->tag);
  if (row == nullptr) return LibLog_InvalidTag("", 0, shipment->message->tag), nullptr;
  if (row->size > left) return LibLog_FixPointerFailed("", 0), nullptr;
  shipment->size = row->size > sizeof(Message) ? row->size : std::uint32_t{sizeof(Message)};
  return row;
}

}  // namespace

Result Message_Restore(Batch* batch, const void* address, const BatchPageInfo* list,
                       std::size_t count, bool skipUnpack, Message** message) {
  *message = nullptr;
  Shipment shipment = {batch, list, count, skipUnpack, nullptr, 0};
  std::size_t left;
  Message* found = FindMessage(shipment, address, &left);
  if (found == nullptr) return RESULT_INVALID_PARAMETER;
  shipment.message = found;
  found->batch = batch;
  found->refs.store(1, std::memory_order_relaxed);  // nobody else has it yet
  if (!RestoreFields(kMessageHeadFields, shipment))
    return LibLog_RestoreFailedFirst("", 0), RESULT_INVALID_PARAMETER;
  const MessageRow* row = FindRow(&shipment, left);
  if (row == nullptr) return RESULT_INVALID_PARAMETER;
  if (Message_IsRequest(found->tag) &&
      (row->size < kRequestHeadSize || !RestoreFields(kRequestFields, shipment)))
    return LibLog_RestoreFailedSecond("", 0, found->tag), RESULT_INVALID_PARAMETER;
  if (!RestoreFields(row->fields, shipment))
    return LibLog_RestoreFailedThird("", 0), RESULT_INVALID_PARAMETER;
  *message = found;
  return RESULT_OK;
}

}  // namespace stewardry::cim
