// Instance_Unpack: the walk over the bytes, and the instance that is built on the way.
#include <array>
#include <cstring>
#include <new>

#include "cim/instance/instance_body.h"
#include "cim/packing/pack_steps.h"
#include "cim/packing/packing.h"
#include "cim/value/names.h"

namespace stewardry::cim {
namespace {

// One call of Instance_Unpack, and where it stands.
struct Unpacking {
  PackBuf* reader;
  Batch* batch;         // empty until the outermost instance has made its own
  bool copy;            // of names, texts and arrays
  std::uint32_t depth;  // instances that are being read, one inside the other
  // What is left of the block of records that is being used up.
  PropertyDef* records;
  std::uint32_t recordsLeft;
};

bool HoldsInstances(std::uint32_t type) { return CimType_Element(type) >= CIM_REFERENCE; }

// *made is set as soon as there is something to end.
Result UnpackInstance(Unpacking& call, Instance** made);

// The table's own memory is in the batch, and so is all that the instances hold: a failure leaves
// nothing that the batch wouldn't end.
Result UnpackInstances(Unpacking& call, ArrayValue* array) {
  *array = {nullptr, 0, 0};
  std::uint32_t count = 0;
  if (Packed_ReadInstanceCount(call.reader, &count) != RESULT_OK) return RESULT_FAILED;
  if (count == 0) return RESULT_OK;
  auto** table = static_cast<Instance**>(Batch_Alloc(call.batch, count * sizeof(void*)));
  if (table == nullptr) return RESULT_FAILED;
  for (std::uint32_t i = 0; i < count; ++i) {
    const Result result = UnpackInstance(call, &table[i]);
    if (result != RESULT_OK) return result;
  }
  *array = {table, count, 0};
  return RESULT_OK;
}

Result UnpackTexts(PackBuf* reader, ArrayValue* array) {
  const char16_t* const* table = nullptr;
  *array = {nullptr, 0, 0};
  const Result result = PackBuf_GetStrA(reader, &table, &array->size);
  array->data = const_cast<const char16_t**>(table);  // an array's data are as the type says
  return result;
}

Result UnpackValue(Unpacking& call, std::uint32_t type, CimValue* value) {
  if (type == CIM_STRINGA) return UnpackTexts(call.reader, &value->array);
  if (!HoldsInstances(type)) return Packed_ReadValue(call.reader, type, value);
  if (CimType_IsArray(type)) return UnpackInstances(call, &value->array);
  return UnpackInstance(call, &value->instance);
}

// The names that an instance has so far: a bit that isn't set tells that a name is new. A bit that
// is set may be another name's.
class NamesSeen {
 public:
  // False when no name like this one was marked before. `code` is the name's.
  bool Mark(const char16_t* name, std::uint32_t code) {
    // A code tells neighbours like Port and Part from others only; the second unit tells them
    // apart.
    const std::uint32_t key = code + ((name[1] | 0x20u) << 24);  // in one case
    const std::uint32_t hash = (key * 0x9E3779B1u) >> 24;  // the golden ratio spreads, 8 bits stay
    std::uint64_t& word = words_[hash / 64];
    const std::uint64_t bit = std::uint64_t{1} << (hash % 64);
    const bool wasSet = (word & bit) != 0;
    word |= bit;
    return wasSet;
  }

 private:
  std::array<std::uint64_t, 4> words_{};
};

// A zeroed record. Seven of them lie in a block that one page serves, behind a word: no record is
// the start of a block, so none is taken for a block that can be released.
PropertyDef* TakeRecord(Unpacking& call) {
  constexpr std::uint32_t kRecords = (kMaxInPage - 8) / sizeof(PropertyDef);
  if (call.recordsLeft == 0) {
    auto* block =
        static_cast<std::uint8_t*>(Batch_Alloc(call.batch, 8 + kRecords * sizeof(PropertyDef)));
    if (block == nullptr) return nullptr;
    call.records = reinterpret_cast<PropertyDef*>(block + 8);
    call.recordsLeft = kRecords;
  }
  --call.recordsLeft;
  return new (call.records++) PropertyDef{};
}

// AddProperty without a value, into a body that has room, of a name that is valid and new. A name
// is borrowed like a text.
Result AppendNull(Unpacking& call, Instance* body, const PackedProperty& property,
                  std::uint32_t nameCode, std::uint32_t flags, ValueSlot** slot) {
  ClassDef* def = Instance_PrivateDef(body);
  PropertyDef* record = TakeRecord(call);
  if (record == nullptr) return RESULT_FAILED;
  record->name = call.copy ? Batch_DupText(call.batch, property.name) : property.name;
  if (record->name == nullptr) return RESULT_FAILED;
  record->nameCode = nameCode;
  record->flags = flags;
  record->type = property.type;
  record->offset = static_cast<std::uint32_t>(DynamicBodySize(def->propertyCount));
  const_cast<const PropertyDef**>(def->properties)[def->propertyCount++] = record;
  def->size += DYNAMIC_SLOT_SIZE;  // the slot is zero since the body was made
  *slot = Instance_Slot(body, *record);
  return RESULT_OK;
}

Result AppendNullAnywhere(Instance* instance, const PackedProperty& property, std::uint32_t flags,
                          ValueSlot** slot) {
  const Result result =
      Instance_AddProperty(instance, property.name, nullptr, property.type, flags);
  if (result != RESULT_OK) return result;
  Instance* body = Instance_Body(instance);  // it may have moved
  *slot = Instance_Slot(body, *body->def->properties[body->def->propertyCount - 1]);
  return RESULT_OK;
}

// Adds the property as a null. Those that the first body has room for, which are all of most
// instances, have a shorter way than AddProperty, with the same results.
Result AddNull(Unpacking& call, Instance* instance, const PackedProperty& property, NamesSeen* seen,
               ValueSlot** slot) {
  // What the bytes say of borrowing doesn't count: it is how the sender's instance was made.
  std::uint32_t flags = property.flags & ~FLAG_BORROW;
  if (!call.copy) flags |= FLAG_BORROW;
  Instance* body = Instance_Body(instance);
  if (body->def->propertyCount >= INSTANCE_MIN_CAPACITY)
    return AppendNullAnywhere(instance, property, flags, slot);
  const std::uint32_t code = Name_CodeIfValid(property.name);
  if (code == 0) return RESULT_INVALID_PARAMETER;
  if (seen->Mark(property.name, code) &&
      Names_FindFrom(body->def->properties, 0, body->def->propertyCount, property.name, code) !=
          kNoIndex)
    return RESULT_ALREADY_EXISTS;
  return AppendNull(call, body, property, code, flags, slot);
}

// ValueSlot_Set of a value that is kept as it is, into a dynamic slot that is all zeros. `value`,
// beyond what its type uses, is zeros too.
void KeepValue(ValueSlot* slot, std::uint32_t type, const CimValue& value, std::uint8_t flags) {
  const bool isPointer = type >= CIM_STRING;
  const bool isEmpty = isPointer && Pack_Load<const void*>(&value) == nullptr;
  if (isEmpty && !CimType_IsArray(type)) return;
  static_assert(sizeof value == DYNAMIC_SLOT_SIZE);
  std::memcpy(static_cast<void*>(slot), &value, sizeof value);
  auto* bytes = reinterpret_cast<std::uint8_t*>(slot);
  bytes[kElementSizes[type]] = 1;
  bytes[kElementSizes[type] + 1] = isPointer && !isEmpty ? flags : 0;
}

// Instances were built for this very slot, in its batch: with `copy` the slot owns them as if it
// had copied them.
Result Store(const Unpacking& call, ValueSlot* slot, std::uint32_t type, const CimValue& value) {
  if (call.copy && !HoldsInstances(type)) return ValueSlot_Set(slot, type, &value, 0, call.batch);
  KeepValue(slot, type, value, call.copy ? 0 : SLOT_BORROWED);
  return RESULT_OK;
}

Result UnpackProperty(Unpacking& call, Instance* instance, NamesSeen* seen) {
  PackedProperty property;
  Result result = Packed_ReadProperty(call.reader, &property);
  if (result != RESULT_OK) return result;
  CimValue value;
  std::memset(&value, 0, sizeof value);
  ValueSlot* slot = nullptr;
  if (property.present) result = UnpackValue(call, property.type, &value);
  if (result == RESULT_OK) result = AddNull(call, instance, property, seen, &slot);
  if (result != RESULT_OK || !property.present) return result;
  if ((property.flags & FLAG_NULL) != 0) return RESULT_OK;  // as AddProperty takes the flag
  return Store(call, slot, property.type, value);
}

Result UnpackContent(Unpacking& call, const PackedHead& head, Instance* instance) {
  if (head.namespaceName != nullptr) {
    const Result result = Instance_SetNamespace(instance, head.namespaceName);
    if (result != RESULT_OK) return result;
  }
  NamesSeen seen;
  for (std::uint32_t i = 0; i < head.propertyCount; ++i) {
    const Result result = UnpackProperty(call, instance, &seen);
    if (result != RESULT_OK) return result;
  }
  return Packed_ReadTail(call.reader);
}

Result UnpackInstance(Unpacking& call, Instance** made) {
  if (call.depth == kMaxPackedDepth) return RESULT_FAILED;
  PackedHead head;
  Result result = Packed_ReadHead(call.reader, &head);
  if (result != RESULT_OK) return result;
  if (head.propertyCount > kMaxUnpackedProperties) return RESULT_FAILED;
  result = Instance_CreateDynamic(made, head.className, head.classFlags, call.batch);
  if (result != RESULT_OK) return result;
  const Instance* body = Instance_Body(*made);
  call.batch = body->batch;
  // A nested instance is stored as if Instance_Copy had made it, whose class has no flags.
  if (call.copy && call.depth > 0) Instance_PrivateDef(body)->flags = 0;
  ++call.depth;
  result = UnpackContent(call, head, *made);
  --call.depth;
  return result;
}

bool IsAligned(const void* bytes) { return reinterpret_cast<std::uintptr_t>(bytes) % 8 == 0; }

}  // namespace

Result Instance_Unpack(Instance** made, PackBuf* reader, Batch* batch, bool copy) {
  if (made == nullptr || reader == nullptr) return RESULT_INVALID_PARAMETER;
  *made = nullptr;
  if (!IsAligned(reader->data)) return RESULT_INVALID_PARAMETER;
  if (reader->data == nullptr && reader->size != 0) return RESULT_INVALID_PARAMETER;
  Unpacking call = {reader, batch, copy, 0, nullptr, 0};
  Instance* instance = nullptr;
  const Result result = UnpackInstance(call, &instance);
  if (result == RESULT_OK) {
    *made = instance;
  } else if (batch == nullptr) {
    (void)Instance_Delete(instance);  // with its batch; an empty one is refused
  }
  return result;
}

bool Instance_UnpackBytes(Batch* batch, void* bytes, std::uint32_t size, Instance** made) {
  if (made != nullptr) *made = nullptr;
  void* place = bytes;
  if (bytes != nullptr && batch != nullptr && !IsAligned(bytes)) {
    place = Batch_Alloc(batch, size);
    if (place == nullptr) return false;
    std::memcpy(place, bytes, size);
  }
  PackBuf reader = {static_cast<std::uint8_t*>(place), size, 0, 0};
  return Instance_Unpack(made, &reader, batch, false) == RESULT_OK;
}

}  // namespace stewardry::cim
