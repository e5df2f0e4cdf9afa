#include "cim/packing/refilling.h"

#include <cassert>
#include <cstring>
#include <string_view>

#include "cim/instance/instance_body.h"
#include "cim/packing/packed_walk.h"

namespace stewardry::cim {
namespace {

// The state of one call. The offsets of a STRINGA become pointers once the whole instance has been
// read: until then its bytes can be unpacked afresh.
struct Refilling {
  PackBuf reader;  // a copy
  bool hasTexts;   // some slots hold a table of offsets
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
         std::memcmp(record.name, property.name, (length + 1) * sizeof(char16_t)) == 0;
}

void StoreNull(ValueSlot* slot) { std::memset(static_cast<void*>(slot), 0, DYNAMIC_SLOT_SIZE); }

void StoreArray(ValueSlot* slot, std::uint32_t type, void* data, std::uint32_t size) {
  CimValue value;
  value.array = {data, size, 0};
  ValueSlot_Store(slot, type, &value, data == nullptr ? 0 : SLOT_BORROWED);
}

bool RefillTexts(Refilling& call, ValueSlot* slot) {
  PackedTexts texts;
  if (Packed_ReadTexts(&call.reader, &texts) != RESULT_OK) return false;
  StoreArray(slot, CIM_STRINGA, const_cast<std::uint64_t*>(texts.offsets), texts.count);
  call.hasTexts |= texts.count != 0;
  return true;
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
  CimValue value;
  if (type < CIM_STRING) {
    if (Pack_GetScalar(&call.reader, type, &value) != RESULT_OK) return false;
    ValueSlot_Store(slot, type, &value, 0);
    return true;
  }
  if (type == CIM_STRING) {
    std::uint32_t length = 0;
    if (Packed_ReadText(&call.reader, &value.string, &length) != RESULT_OK) return false;
    if (value.string == nullptr)
      StoreNull(slot);
    else
      ValueSlot_Store(slot, type, &value, SLOT_BORROWED);
    return true;
  }
  if (type == CIM_STRINGA) return RefillTexts(call, slot);
  if (CimType_HoldsInstances(type)) return RefillInstances(call, slot, type);
  if (Packed_ReadValue(&call.reader, type, &value) != RESULT_OK) return false;
  StoreArray(slot, type, value.array.data, value.array.size);
  return true;
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

void MakePointers(const Instance* instance);

// Requires a present value of a type that may lead to texts.
void MakePointersOf(const CimValue& value, std::uint32_t type) {
  if (type == CIM_STRINGA) {
    const auto* offsets = static_cast<const std::uint64_t*>(value.array.data);
    if (offsets == nullptr) return;
    const auto* texts = reinterpret_cast<const char16_t*>(offsets + value.array.size + 1);
    (void)Pack_PointersInPlace({value.array.size, offsets, texts});  // they lie in place
  } else if (!CimType_IsArray(type)) {
    MakePointers(value.instance);
  } else {
    for (std::uint32_t i = 0; i < value.array.size; ++i)
      MakePointers(static_cast<Instance* const*>(value.array.data)[i]);
  }
}

// Makes pointers of all offsets in the slots.
void MakePointers(const Instance* instance) {
  const Instance* body = Instance_LiveBody(instance);
  for (std::uint32_t i = 0; i < body->def->propertyCount; ++i) {
    const PropertyDef& record = *body->def->properties[i];
    if (record.type != CIM_STRINGA && !CimType_HoldsInstances(record.type)) continue;
    CimValue value;
    bool present = false;
    std::uint8_t flags = 0;
    ValueSlot_Read(Instance_Slot(body, record), record.type, &value, &present, &flags);
    if (present) MakePointersOf(value, record.type);
  }
}

}  // namespace

bool Instance_Refill(Instance* instance, PackBuf* reader) {
  if (instance == nullptr || reader->data == nullptr || !Pack_IsAligned(reader->data)) return false;
  if (Instance_Header(instance)->refs.load(std::memory_order_acquire) != 1) return false;
  Refilling call = {*reader, false};
  if (!RefillInstance(call, instance)) return false;
  if (call.hasTexts) MakePointers(instance);
  reader->offset = call.reader.offset;
  return true;
}

}  // namespace stewardry::cim
