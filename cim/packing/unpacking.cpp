// Instance_Unpack: walks over untrusted bytes and builds the instance on the way.
#include <array>
#include <cassert>
#include <cstring>
#include <new>

#include "cim/instance/instance_body.h"
#include "cim/packing/pack_steps.h"
#include "cim/packing/packing.h"
#include "cim/packing/refilling.h"
#include "cim/value/names.h"

namespace stewardry::cim {
namespace {

// The state of one call of Instance_Unpack.
struct Unpacking {
  PackBuf* reader;
  Batch* batch;  // null until the outermost instance has made its own
  bool copyNames;
  bool copy;            // texts and arrays
  std::uint32_t depth;  // the nesting of the instance that is being read
  // The unused rest of the current block of records.
  PropertyDef* records;
  std::uint32_t recordsLeft;
};

// Sets *made as soon as there is an instance to delete.
Result UnpackInstance(Unpacking& call, Instance** made);

// The table and all that the instances hold lie in the batch: after a failure nothing else is to be
// released.
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
  array->data = const_cast<const char16_t**>(table);  // `data` is untyped
  return result;
}

Result UnpackValue(Unpacking& call, std::uint32_t type, CimValue* value) {
  if (type == CIM_STRINGA) return UnpackTexts(call.reader, &value->array);
  if (!CimType_HoldsInstances(type)) return Packed_ReadValue(call.reader, type, value);
  if (CimType_IsArray(type)) return UnpackInstances(call, &value->array);
  return UnpackInstance(call, &value->instance);
}

// A filter over the names that an instance has so far. If the bit of a name is clear, the name is
// new. If it is set, the name may be new too: names share bits.
class NamesSeen {
 public:
  // Sets the bit of a name with this code. Returns true if it was set before.
  bool Mark(const char16_t* name, std::uint32_t code) {
    assert(*name != 0 && code == Name_Code(name));
    // Names such as Port and Part have one code, so the second unit, in lower case, is added. The
    // multiplier, 2^32 divided by the golden ratio, spreads the keys over the upper 8 bits.
    const std::uint32_t key = code + ((name[1] | 0x20u) << 24);
    const std::uint32_t hash = (key * 0x9E3779B1u) >> 24;
    std::uint64_t& word = words_[hash / 64];
    const std::uint64_t bit = std::uint64_t{1} << (hash % 64);
    const bool wasSet = (word & bit) != 0;
    word |= bit;
    return wasSet;
  }

 private:
  std::array<std::uint64_t, 4> words_{};
};

// Returns a zeroed record, or null if allocation fails. Records are allocated in blocks that fit a
// page, after a word of 8 bytes: no record is the start of a block, which Batch_Release could free.
PropertyDef* AllocRecord(Unpacking& call) {
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

// Adds a property as a null to a body that has room. Requires a valid and new name. Without
// `copyNames` the name is borrowed.
Result AppendNull(Unpacking& call, Instance* body, const PackedProperty& property,
                  std::uint32_t nameCode, std::uint32_t flags, ValueSlot** slot) {
  ClassDef* def = Instance_PrivateDef(body);
  assert(def != nullptr && def->propertyCount < INSTANCE_MIN_CAPACITY);
  PropertyDef* record = AllocRecord(call);
  if (record == nullptr) return RESULT_FAILED;
  record->name = call.copyNames ? Batch_DupText(call.batch, property.name) : property.name;
  if (record->name == nullptr) return RESULT_FAILED;
  record->nameCode = nameCode;
  record->flags = flags;
  record->type = property.type;
  record->offset = static_cast<std::uint32_t>(DynamicBodySize(def->propertyCount));
  const_cast<const PropertyDef**>(def->properties)[def->propertyCount++] = record;
  def->size += DYNAMIC_SLOT_SIZE;
  *slot = Instance_Slot(body, *record);  // zeroed when the body was allocated
  return RESULT_OK;
}

// Adds a property as a null to an instance whose body may have to grow.
Result AppendNullAndGrow(Instance* instance, const PackedProperty& property, std::uint32_t flags,
                         ValueSlot** slot) {
  const Result result =
      Instance_AddProperty(instance, property.name, nullptr, property.type, flags);
  if (result != RESULT_OK) return result;
  Instance* body = Instance_Body(instance);  // it may have moved
  *slot = Instance_Slot(body, *body->def->properties[body->def->propertyCount - 1]);
  return RESULT_OK;
}

// Adds the property as a null. Most instances fit their first body, for which AppendNull is faster
// than AddProperty and has the same results.
Result AddNull(Unpacking& call, Instance* instance, const PackedProperty& property, NamesSeen* seen,
               ValueSlot** slot) {
  // FLAG_BORROW in the bytes describes the sender's instance.
  std::uint32_t flags = property.flags & ~FLAG_BORROW;
  if (!call.copy) flags |= FLAG_BORROW;
  Instance* body = Instance_Body(instance);
  if (body->def->propertyCount >= INSTANCE_MIN_CAPACITY)
    return AppendNullAndGrow(instance, property, flags, slot);
  const std::uint32_t code = Name_CodeIfValid(property.name);
  if (code == 0) return RESULT_INVALID_PARAMETER;
  if (seen->Mark(property.name, code) &&
      Names_FindFrom(body->def->properties, 0, body->def->propertyCount, property.name, code) !=
          kNoIndex)
    return RESULT_ALREADY_EXISTS;
  return AppendNull(call, body, property, code, flags, slot);
}

// Stores a value without copying what it points to. Requires a zeroed slot of a dynamic instance,
// and a `value` that is zeroed beyond the bytes of its type.
void StoreUncopied(ValueSlot* slot, std::uint32_t type, const CimValue& value, std::uint8_t flags) {
  const bool isPointer = type >= CIM_STRING;
  const bool isNull = isPointer && Pack_Load<const void*>(&value) == nullptr;
  if (isNull && !CimType_IsArray(type)) return;
  static_assert(sizeof value == DYNAMIC_SLOT_SIZE);
  std::memcpy(static_cast<void*>(slot), &value, sizeof value);
  auto* bytes = reinterpret_cast<std::uint8_t*>(slot);
  bytes[kElementSizes[type]] = 1;
  bytes[kElementSizes[type] + 1] = isPointer && !isNull ? flags : 0;
}

// Stores a value. Nested instances were built in the slot's batch: with `copy` the slot owns them
// as if it had copied them.
Result Store(const Unpacking& call, ValueSlot* slot, std::uint32_t type, const CimValue& value) {
  if (call.copy && !CimType_HoldsInstances(type))
    return ValueSlot_Set(slot, type, &value, 0, call.batch);
  StoreUncopied(slot, type, value, call.copy ? 0 : SLOT_BORROWED);
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
  if ((property.flags & FLAG_NULL) != 0) return RESULT_OK;  // as in AddProperty
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
  assert(call.depth <= kMaxPackedDepth);
  if (call.depth == kMaxPackedDepth) return RESULT_FAILED;
  PackedHead head;
  Result result = Packed_ReadHead(call.reader, &head);
  if (result != RESULT_OK) return result;
  if (head.propertyCount > kMaxUnpackedProperties) return RESULT_FAILED;
  result = Instance_CreateDynamic(made, head.className, head.classFlags, call.batch);
  if (result != RESULT_OK) return result;
  const Instance* body = Instance_Body(*made);
  call.batch = body->batch;
  // A nested instance is like a copy by Instance_Copy, whose class has no flags.
  if (call.copy && call.depth > 0) Instance_PrivateDef(body)->flags = 0;
  ++call.depth;
  result = UnpackContent(call, head, *made);
  --call.depth;
  return result;
}

Result Unpack(Instance** made, PackBuf* reader, Batch* batch, bool copyNames, bool copy) {
  if (made == nullptr || reader == nullptr) return RESULT_INVALID_PARAMETER;
  *made = nullptr;
  if (!Pack_IsAligned(reader->data)) return RESULT_INVALID_PARAMETER;
  if (reader->data == nullptr && reader->size != 0) return RESULT_INVALID_PARAMETER;
  Unpacking call = {reader, batch, copyNames, copy, 0, nullptr, 0};
  Instance* instance = nullptr;
  const Result result = UnpackInstance(call, &instance);
  if (result == RESULT_OK) {
    *made = instance;
  } else if (batch == nullptr) {
    (void)Instance_Delete(instance);  // with its batch; fails only for a null
  }
  return result;
}

}  // namespace

Result Instance_Unpack(Instance** made, PackBuf* reader, Batch* batch, bool copy) {
  return Unpack(made, reader, batch, copy, copy);
}

Result Instance_UnpackInto(Instance** instance, PackBuf* reader) {
  if (instance == nullptr || reader == nullptr) return RESULT_INVALID_PARAMETER;
  if (Instance_Refill(*instance, reader)) return RESULT_OK;
  Instance_Drop(*instance);
  return Unpack(instance, reader, nullptr, true, false);
}

bool Instance_UnpackBytes(Batch* batch, void* bytes, std::uint32_t size, Instance** made) {
  if (made != nullptr) *made = nullptr;
  void* place = bytes;
  if (bytes != nullptr && batch != nullptr && !Pack_IsAligned(bytes)) {
    place = Batch_Alloc(batch, size);
    if (place == nullptr) return false;
    std::memcpy(place, bytes, size);
  }
  PackBuf reader = {static_cast<std::uint8_t*>(place), size, 0, 0};
  return Instance_Unpack(made, &reader, batch, false) == RESULT_OK;
}

}  // namespace stewardry::cim
