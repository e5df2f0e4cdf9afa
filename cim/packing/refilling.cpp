#include "cim/packing/refilling.h"

#include <cassert>
#include <cstring>
#include <string_view>

#include "cim/instance/instance_body.h"
#include "cim/packing/packed_walk.h"

namespace stewardry::cim {
namespace {

// The bytes of a STRINGA's slot that no value uses.
struct TextsSlot {
  ArrayValue array;
  std::uint64_t state;  // present and flags
  TextsSlot* next;
  std::uint64_t unused;
};
static_assert(sizeof(TextsSlot) == DYNAMIC_SLOT_SIZE);

// The state of one call. The offsets of a STRINGA become pointers once the whole instance has been
// read: until then its bytes can be unpacked afresh.
struct Refilling {
  PackBuf reader;    // a copy
  TextsSlot* texts;  // the slots with offsets, in a list through `next`
};

bool RefillInstance(Refilling& call, Instance* instance);

bool IsSameText(const char16_t* a, const char16_t* b) {
  if (a == nullptr || b == nullptr) return a == b;
  return std::u16string_view(a) == b;
}

// Returns true if the record is the one that unpacking makes of the property. A name of more than
// 255 units never is, since a code does not hold its length.
bool IsSameProperty(const PropertyDef& record, const PackedProperty& property) {
  const std::uint32_t length = record.nameCode & 0xFF;
  return record.flags == (property.flags | FLAG_BORROW) && record.type == property.type &&
         property.name != nullptr && property.nameLength == length &&
         Pack_EqualShort(record.name, property.name, (length + 1) * sizeof(char16_t));
}

void StoreNull(ValueSlot* slot) { std::memset(static_cast<void*>(slot), 0, DYNAMIC_SLOT_SIZE); }

bool RefillText(PackBuf* reader, ValueSlot* slot) {
  CimValue value;
  std::uint32_t length = 0;
  if (Packed_ReadText(reader, &value.string, &length) != RESULT_OK) return false;
  if (value.string == nullptr)
    StoreNull(slot);
  else
    ValueSlot_Store(slot, CIM_STRING, &value, SLOT_BORROWED);
  return true;
}

template <class Number>
bool RefillNumber(PackBuf* reader, ValueSlot* slot) {
  Number number;
  if (Pack_GetNumber(reader, &number) != RESULT_OK) return false;
  auto* bytes = reinterpret_cast<std::uint8_t*>(slot);
  std::memcpy(bytes, &number, sizeof number);
  bytes[sizeof number] = 1;
  bytes[sizeof number + 1] = 0;
  return true;
}

// Accepts DATETIME and arrays of a type up to it.
bool RefillPlain(PackBuf* reader, ValueSlot* slot, std::uint32_t type) {
  CimValue value;
  if (Packed_ReadValue(reader, type, &value) != RESULT_OK) return false;
  const bool isBorrowed = CimType_IsArray(type) && value.array.data != nullptr;
  ValueSlot_Store(slot, type, &value, isBorrowed ? SLOT_BORROWED : 0);
  return true;
}

bool RefillTexts(Refilling& call, ValueSlot* slot) {
  PackedTexts texts;
  if (Packed_ReadTexts(&call.reader, &texts) != RESULT_OK) return false;
  CimValue value;
  value.array = {const_cast<std::uint64_t*>(texts.offsets), texts.count, 0};
  ValueSlot_Store(slot, CIM_STRINGA, &value, texts.count == 0 ? 0 : SLOT_BORROWED);
  if (texts.count == 0) return true;
  auto* pending = reinterpret_cast<TextsSlot*>(slot);
  pending->next = call.texts;
  call.texts = pending;
  return true;
}

void MakePointers(TextsSlot* slot) {
  while (slot != nullptr) {
    const auto* offsets = static_cast<const std::uint64_t*>(slot->array.data);
    const auto* texts = reinterpret_cast<const char16_t*>(offsets + slot->array.size + 1);
    (void)Pack_PointersInPlace({slot->array.size, offsets, texts});  // they lie where offsets lay
    TextsSlot* next = slot->next;
    slot->next = nullptr;  // zero, as in a new slot
    slot = next;
  }
}

// Expects as many instances as the slot has.
bool RefillInstances(Refilling& call, ValueSlot* slot, std::uint32_t type) {
  CimValue value;
  bool present = false;
  std::uint8_t flags = 0;
  ValueSlot_Read(slot, type, &value, &present, &flags);
  if (!present) return false;
  if (!CimType_IsArray(type)) return RefillInstance(call, value.instance);
  std::uint32_t count = 0;
  if (Packed_ReadInstanceCount(&call.reader, &count) != RESULT_OK) return false;
  if (count != value.array.size) return false;
  auto* const* instances = static_cast<Instance* const*>(value.array.data);
  for (std::uint32_t i = 0; i < count; ++i)
    if (!RefillInstance(call, instances[i])) return false;
  return true;
}

bool RefillPresent(Refilling& call, ValueSlot* slot, std::uint32_t type) {
  switch (type) {
    case CIM_BOOLEAN:
    case CIM_UINT8:
    case CIM_SINT8:
      return RefillNumber<std::uint8_t>(&call.reader, slot);
    case CIM_UINT16:
    case CIM_SINT16:
    case CIM_CHAR16:
      return RefillNumber<std::uint16_t>(&call.reader, slot);
    case CIM_UINT32:
    case CIM_SINT32:
    case CIM_REAL32:
      return RefillNumber<std::uint32_t>(&call.reader, slot);
    case CIM_UINT64:
    case CIM_SINT64:
    case CIM_REAL64:
      return RefillNumber<std::uint64_t>(&call.reader, slot);
    case CIM_STRING:
      return RefillText(&call.reader, slot);
    case CIM_STRINGA:
      return RefillTexts(call, slot);
    case CIM_REFERENCE:
    case CIM_INSTANCE:
    case CIM_REFERENCEA:
    case CIM_INSTANCEA:
      return RefillInstances(call, slot, type);
    default:
      return RefillPlain(&call.reader, slot, type);
  }
}

bool IsSameHead(const Instance* body, const PackedHead& head) {
  const ClassDef& def = *body->def;
  return head.propertyCount == def.propertyCount && DynamicDef_Kind(head.classFlags) == def.flags &&
         IsSameText(head.className, def.name) &&
         IsSameText(head.namespaceName, body->namespaceName) && body->hostName == nullptr;
}

bool RefillInstance(Refilling& call, Instance* instance) {
  Instance* body = Instance_LiveBody(instance);
  PackedHead head;
  if (body == nullptr || Packed_ReadHead(&call.reader, &head) != RESULT_OK) return false;
  if (!IsSameHead(body, head)) return false;
  for (std::uint32_t i = 0; i < head.propertyCount; ++i) {
    const PropertyDef& record = *body->def->properties[i];
    PackedProperty property;
    if (Packed_ReadProperty(&call.reader, &property) != RESULT_OK) return false;
    // A property with FLAG_NULL may have a value, which is read but not stored.
    if (!IsSameProperty(record, property) || (property.flags & FLAG_NULL) != 0) return false;
    ValueSlot* slot = Instance_Slot(body, record);
    if (!property.present)
      StoreNull(slot);
    else if (!RefillPresent(call, slot, property.type))
      return false;
  }
  return Packed_ReadTail(&call.reader) == RESULT_OK;
}

}  // namespace

bool Instance_Refill(Instance* instance, PackBuf* reader) {
  if (instance == nullptr || reader->data == nullptr || !Pack_IsAligned(reader->data)) return false;
  if (Instance_Header(instance)->refs.load(std::memory_order_acquire) != 1) return false;
  Refilling call = {*reader, nullptr};
  if (!RefillInstance(call, instance)) return false;
  MakePointers(call.texts);
  reader->offset = call.reader.offset;
  return true;
}

}  // namespace stewardry::cim
