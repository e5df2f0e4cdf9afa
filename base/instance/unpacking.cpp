// Instance_Unpack: the walk over the bytes, and the instance that is built on the way.
#include <cstring>

#include "base/instance/instance_body.h"
#include "base/instance/packing.h"

namespace stewardry {
namespace {

// One call of Instance_Unpack, and where it stands.
struct Unpacking {
  PackBuf* reader;
  Batch* batch;         // empty until the outermost instance has made its own
  bool copy;            // of texts and arrays
  std::uint32_t depth;  // instances that are being read, one inside the other
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
  auto** table = static_cast<Instance**>(Batch_Alloc(call.batch, count * sizeof(Instance*)));
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

// The flags of the definition, which also tell how the value is stored. What the bytes say about
// that doesn't count: an instance that had borrowed was packed with FLAG_BORROW.
std::uint32_t FlagsOf(const Unpacking& call, const PackedProperty& property) {
  std::uint32_t flags = property.flags & ~FLAG_BORROW;
  if (property.present) flags &= ~FLAG_NULL;
  return call.copy ? flags : flags | FLAG_BORROW;
}

// Stores instances that were built for this very slot in its batch: the slot owns them as if it had
// copied them.
Result AddOwned(Instance* instance, const PackedProperty& property, const CimValue& value,
                std::uint32_t flags) {
  const Result result =
      Instance_AddProperty(instance, property.name, nullptr, property.type, flags);
  if (result != RESULT_OK) return result;
  Instance* body = Instance_Body(instance);
  ValueSlot* slot = Instance_Slot(body, *body->def->properties[body->def->propertyCount - 1]);
  // Nothing is copied and so nothing fails.
  (void)ValueSlot_Set(slot, property.type, &value, FLAG_BORROW, body->batch);
  reinterpret_cast<std::uint8_t*>(slot)[kElementSizes[property.type] + 1] = 0;
  return RESULT_OK;
}

Result UnpackProperty(Unpacking& call, Instance* instance) {
  PackedProperty property;
  Result result = Packed_ReadProperty(call.reader, &property);
  if (result != RESULT_OK) return result;
  const std::uint32_t flags = FlagsOf(call, property);
  if (!property.present)
    return Instance_AddProperty(instance, property.name, nullptr, property.type, flags);
  CimValue value{};
  result = UnpackValue(call, property.type, &value);
  if (result != RESULT_OK) return result;
  if (call.copy && HoldsInstances(property.type)) return AddOwned(instance, property, value, flags);
  return Instance_AddProperty(instance, property.name, &value, property.type, flags);
}

Result UnpackContent(Unpacking& call, const PackedHead& head, Instance* instance) {
  if (head.namespaceName != nullptr) {
    const Result result = Instance_SetNamespace(instance, head.namespaceName);
    if (result != RESULT_OK) return result;
  }
  for (std::uint32_t i = 0; i < head.propertyCount; ++i) {
    const Result result = UnpackProperty(call, instance);
    if (result != RESULT_OK) return result;
  }
  return Packed_ReadTail(call.reader);
}

Result UnpackInstance(Unpacking& call, Instance** made) {
  if (call.depth == kMaxPackedDepth) return RESULT_FAILED;
  PackedHead head;
  Result result = Packed_ReadHead(call.reader, &head);
  if (result != RESULT_OK) return result;
  result = Instance_CreateDynamic(made, head.className, head.classFlags, call.batch);
  if (result != RESULT_OK) return result;
  call.batch = Instance_Body(*made)->batch;
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
  Unpacking call = {reader, batch, copy, 0};
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

}  // namespace stewardry
