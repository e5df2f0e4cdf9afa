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

// Refills one instance. The offsets of a STRINGA become pointers once the outermost one has been
// read: until then its bytes can be unpacked afresh. `texts` lists the slots with offsets.
bool RefillInstance(PackBuf* from, TextsSlot** texts, Instance* instance);

bool IsSameText(const char16_t* a, const char16_t* b) {
  if (a == nullptr || b == nullptr) return a == b;
  return std::u16string_view(a) == b;
}

// Reads a property up to its value if the record is the one that unpacking makes of it. Each place
// follows from the record, so the processor needs no count from the bytes to go on. Returns false
// for a name of more than 255 units, since a code does not hold its length.
inline bool ReadSameProperty(PackBuf* reader, const PropertyDef& record, bool* present) {
  const std::uint32_t count = (record.nameCode & 0xFF) + 1;
  const std::uint32_t nameBytes = count * sizeof(char16_t);
  const std::uint64_t start = Pack_Align(reader->offset, 4);
  const std::uint64_t typeAt = Pack_Align(start + 8 + nameBytes, 4);
  if (typeAt + 5 > reader->size) return false;
  const std::uint8_t* bytes = reader->data + start;
  const auto flags = Pack_Load<std::uint32_t>(bytes);
  if ((flags | FLAG_BORROW) != record.flags || Pack_Load<std::uint32_t>(bytes + 4) != count)
    return false;
  if (!Pack_EqualShort(record.name, bytes + 8, nameBytes)) return false;
  if (Pack_Load<std::uint32_t>(reader->data + typeAt) != record.type) return false;
  // A property with FLAG_NULL may have a value, which is read but not stored.
  if ((flags & FLAG_NULL) != 0) return false;
  *present = reader->data[typeAt + 4] != 0;
  reader->offset = static_cast<std::uint32_t>(typeAt + 5);
  return true;
}

// Calls `refill` with a copy, so that the reader stays in registers.
template <class Refill>
bool Aside(PackBuf* reader, Refill refill) {
  PackBuf copy = *reader;
  const bool isRefilled = refill(&copy);
  reader->offset = copy.offset;
  return isRefilled;
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

bool RefillTexts(PackBuf* reader, TextsSlot** texts, ValueSlot* slot) {
  PackedTexts found;
  if (Packed_ReadTexts(reader, &found) != RESULT_OK) return false;
  CimValue value;
  value.array = {const_cast<std::uint64_t*>(found.offsets), found.count, 0};
  ValueSlot_Store(slot, CIM_STRINGA, &value, found.count == 0 ? 0 : SLOT_BORROWED);
  if (found.count == 0) return true;
  auto* pending = reinterpret_cast<TextsSlot*>(slot);
  pending->next = *texts;
  *texts = pending;
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
bool RefillInstances(PackBuf* reader, TextsSlot** texts, ValueSlot* slot, std::uint32_t type) {
  CimValue value;
  bool present = false;
  std::uint8_t flags = 0;
  ValueSlot_Read(slot, type, &value, &present, &flags);
  if (!present) return false;
  if (!CimType_IsArray(type)) return RefillInstance(reader, texts, value.instance);
  std::uint32_t count = 0;
  if (Packed_ReadInstanceCount(reader, &count) != RESULT_OK) return false;
  if (count != value.array.size) return false;
  auto* const* instances = static_cast<Instance* const*>(value.array.data);
  for (std::uint32_t i = 0; i < count; ++i)
    if (!RefillInstance(reader, texts, instances[i])) return false;
  return true;
}

inline bool RefillPresent(PackBuf* reader, TextsSlot** texts, ValueSlot* slot, std::uint32_t type) {
  switch (type) {
    case CIM_BOOLEAN:
    case CIM_UINT8:
    case CIM_SINT8:
      return RefillNumber<std::uint8_t>(reader, slot);
    case CIM_UINT16:
    case CIM_SINT16:
    case CIM_CHAR16:
      return RefillNumber<std::uint16_t>(reader, slot);
    case CIM_UINT32:
    case CIM_SINT32:
    case CIM_REAL32:
      return RefillNumber<std::uint32_t>(reader, slot);
    case CIM_UINT64:
    case CIM_SINT64:
    case CIM_REAL64:
      return RefillNumber<std::uint64_t>(reader, slot);
    case CIM_STRING:
      return RefillText(reader, slot);
    case CIM_STRINGA:
      return Aside(reader, [&](PackBuf* at) { return RefillTexts(at, texts, slot); });
    case CIM_REFERENCE:
    case CIM_INSTANCE:
    case CIM_REFERENCEA:
    case CIM_INSTANCEA:
      return Aside(reader, [&](PackBuf* at) { return RefillInstances(at, texts, slot, type); });
    default:
      return Aside(reader, [&](PackBuf* at) { return RefillPlain(at, slot, type); });
  }
}

bool IsSameHead(const Instance* body, const PackedHead& head) {
  const ClassDef& def = *body->def;
  return head.propertyCount == def.propertyCount && DynamicDef_Kind(head.classFlags) == def.flags &&
         IsSameText(head.className, def.name) &&
         IsSameText(head.namespaceName, body->namespaceName) && body->hostName == nullptr;
}

bool RefillInstance(PackBuf* from, TextsSlot** texts, Instance* instance) {
  Instance* body = Instance_LiveBody(instance);
  PackBuf reader = *from;  // stays in registers
  PackedHead head;
  if (body == nullptr || Packed_ReadHead(&reader, &head) != RESULT_OK) return false;
  if (!IsSameHead(body, head)) return false;
  const PropertyDef* const* next = body->def->properties;
  for (const PropertyDef* const* end = next + head.propertyCount; next != end; ++next) {
    const PropertyDef& record = **next;
    bool present = false;
    if (!ReadSameProperty(&reader, record, &present)) return false;
    ValueSlot* slot = Instance_Slot(body, record);
    if (!present)
      StoreNull(slot);
    else if (!RefillPresent(&reader, texts, slot, record.type))
      return false;
  }
  if (Packed_ReadTail(&reader) != RESULT_OK) return false;
  from->offset = reader.offset;
  return true;
}

}  // namespace

bool Instance_Refill(Instance* instance, PackBuf* reader) {
  if (instance == nullptr || reader->data == nullptr || !Pack_IsAligned(reader->data)) return false;
  if (Instance_Header(instance)->refs.load(std::memory_order_acquire) != 1) return false;
  TextsSlot* texts = nullptr;
  if (!RefillInstance(reader, &texts, instance)) return false;
  MakePointers(texts);
  return true;
}

}  // namespace stewardry::cim
