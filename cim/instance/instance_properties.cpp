// The properties of an instance: the operations table with the calls through it, arrays filled by
// elements, and keys.
#include <algorithm>
#include <bit>
#include <cassert>
#include <cstring>
#include <limits>
#include <new>

#include "cim/instance/definition_copy.h"
#include "cim/instance/instance.h"
#include "cim/instance/instance_body.h"
#include "cim/instance/operations.h"
#include "cim/instance/property_table.h"
#include "cim/value/names.h"

namespace stewardry::cim {
namespace {

Result IsKindOf(const Instance* self, const ClassDef* def, bool* isKind) {
  const Instance* body = Instance_LiveBody(self);
  if (body == nullptr || def == nullptr) return RESULT_INVALID_PARAMETER;
  const ClassDef* each = body->def;
  while (each != nullptr && each != def) each = each->superclass;
  StoreOut(isKind, each != nullptr);
  return RESULT_OK;
}

Result ClassNameOf(const Instance* self, const char16_t** name) {
  const Instance* body = Instance_LiveBody(self);
  if (body == nullptr) return RESULT_INVALID_PARAMETER;
  StoreOut(name, body->def->name);
  return RESULT_OK;
}

// Replaces one of the body's texts by a copy of `text`, which may be null. Returns false and keeps
// the old text if allocation fails.
bool ReplaceText(Instance* body, const char16_t** field, const char16_t* text) {
  const char16_t* copy = nullptr;
  if (!CopyOptionalText(body->batch, text, &copy)) return false;
  Batch_Release(body->batch, *field);
  *field = copy;
  return true;
}

Result SetNamespace(Instance* self, const char16_t* name) {
  Instance* body = Instance_LiveBody(self);
  if (body == nullptr) return RESULT_INVALID_PARAMETER;
  return ReplaceText(body, &body->namespaceName, name) ? RESULT_OK : RESULT_FAILED;
}

Result NamespaceOf(const Instance* self, const char16_t** name) {
  const Instance* body = Instance_LiveBody(self);
  if (body == nullptr) return RESULT_INVALID_PARAMETER;
  StoreOut(name, body->namespaceName);
  return RESULT_OK;
}

Result SetHostName(Instance* self, const char16_t* name) {
  Instance* body = Instance_LiveBody(self);
  if (body == nullptr) return RESULT_INVALID_PARAMETER;
  if (!ReplaceText(body, &body->hostName, name)) return RESULT_SERVER_LIMITS_EXCEEDED;
  self->hostName = body->hostName;
  return RESULT_OK;
}

Result HostNameOf(const Instance* self, const char16_t** name) {
  const Instance* body = Instance_LiveBody(self);
  if (body == nullptr) return RESULT_INVALID_PARAMETER;
  StoreOut(name, body->hostName);
  return RESULT_OK;
}

Result PropertyCountOf(const Instance* self, std::uint32_t* count) {
  const Instance* body = Instance_LiveBody(self);
  if (body == nullptr) return RESULT_INVALID_PARAMETER;
  StoreOut(count, body->def->propertyCount);
  return RESULT_OK;
}

Result StorePropertyAt(Instance* self, std::uint32_t index, const CimValue* value,
                       std::uint32_t type, std::uint32_t flags) {
  Instance* body = Instance_LiveBody(self);
  if (body == nullptr) return RESULT_INVALID_PARAMETER;
  if (index >= body->def->propertyCount) return RESULT_FAILED;
  const PropertyDef& property = *body->def->properties[index];
  if (property.type != type) return RESULT_TYPE_MISMATCH;
  return ValueSlot_Assign(Instance_Slot(body, property), type, value, flags, body->batch);
}

// Stores the index of the property with that name. Returns the failures of the operations by name.
Result FindByName(const Instance* self, const char16_t* name, std::uint32_t* index) {
  const Instance* body = Instance_LiveBody(self);
  if (body == nullptr || name == nullptr) return RESULT_INVALID_PARAMETER;
  const std::int64_t found = ClassDef_FindProperty(body->def, name);
  if (found == kNoIndex) return RESULT_NO_SUCH_PROPERTY;
  *index = static_cast<std::uint32_t>(found);
  return RESULT_OK;
}

Result StoreProperty(Instance* self, const char16_t* name, const CimValue* value,
                     std::uint32_t type, std::uint32_t flags) {
  std::uint32_t index = 0;
  const Result result = FindByName(self, name, &index);
  return result != RESULT_OK ? result : StorePropertyAt(self, index, value, type, flags);
}

std::uint32_t FlagsOf(const PropertyDef& property, bool present, std::uint8_t slotFlags) {
  std::uint32_t flags = property.flags & ~(FLAG_NULL | FLAG_NOT_MODIFIED);
  if (!present) flags |= FLAG_NULL;
  if ((slotFlags & SLOT_MODIFIED) == 0) flags |= FLAG_NOT_MODIFIED;
  return flags;
}

Result PropertyAt(const Instance* self, std::uint32_t index, const char16_t** name, CimValue* value,
                  std::uint32_t* type, std::uint32_t* flags) {
  const Instance* body = Instance_LiveBody(self);
  if (body == nullptr || index >= body->def->propertyCount) return RESULT_INVALID_PARAMETER;
  const PropertyDef& property = *body->def->properties[index];
  StoreOut(name, property.name);
  StoreOut(type, property.type);
  bool present = false;
  std::uint8_t slotFlags = 0;
  const ValueSlot* slot = Instance_Slot(body, property);
  if (value != nullptr) {
    ValueSlot_Read(slot, property.type, value, &present, &slotFlags);
  } else {
    ValueSlot_ReadFlags(slot, property.type, &present, &slotFlags);
  }
  if (flags != nullptr) *flags = FlagsOf(property, present, slotFlags);
  return RESULT_OK;
}

Result ReadProperty(const Instance* self, const char16_t* name, CimValue* value,
                    std::uint32_t* type, std::uint32_t* flags, std::uint32_t* index) {
  std::uint32_t found = 0;
  const Result result = FindByName(self, name, &found);
  if (result != RESULT_OK) return result;
  StoreOut(index, found);
  return PropertyAt(self, found, nullptr, value, type, flags);
}

Result ClearPropertyAt(Instance* self, std::uint32_t index) {
  Instance* body = Instance_LiveBody(self);
  if (body == nullptr) return RESULT_INVALID_PARAMETER;
  if (index >= body->def->propertyCount) return RESULT_FAILED;
  const PropertyDef& property = *body->def->properties[index];
  ValueSlot_Clear(Instance_Slot(body, property), property.type, body->batch);
  return RESULT_OK;
}

Result ClearProperty(Instance* self, const char16_t* name) {
  std::uint32_t index = 0;
  const Result result = FindByName(self, name, &index);
  return result != RESULT_OK ? result : ClearPropertyAt(self, index);
}

// Reserves room for one more property, which may move the body. Returns the body, or null if
// allocation fails.
Instance* ReserveSlot(Instance* wrapper, ClassDef* def) {
  Instance* body = wrapper->body;
  assert(wrapper != body && body->def == def && def->owner == kOwnerDynamic);
  const std::uint32_t count = def->propertyCount;
  if (count < DynamicDef_Capacity(count)) return body;
  // The tags stay valid for `count` properties, in places of which the next one takes the first.
  const std::uint64_t oldTable = PropertyTable_Size(count);
  void* table = Batch_Realloc(body->batch, def->properties, oldTable,
                              PropertyTable_Size(2 * std::uint64_t{count}));
  if (table == nullptr) return nullptr;
  const std::uint64_t oldSize = DynamicBodySize(count) + sizeof(InstanceHeader);
  const std::uint64_t newSize = DynamicBodySize(2 * std::uint64_t{count}) + sizeof(InstanceHeader);
  void* block = Batch_Realloc(body->batch, Instance_Header(body), oldSize, newSize);
  if (block == nullptr) return nullptr;
  auto* header = new (block) InstanceHeader{kInstanceMagic, 0, {1}};
  auto* moved = reinterpret_cast<Instance*>(header + 1);
  moved->body = moved;
  def->properties = static_cast<const PropertyDef**>(table);
  Instance_SyncWrapper(wrapper, moved);
  return moved;
}

PropertyDef* MakeProperty(Batch* batch, const char16_t* name, std::uint32_t type,
                          std::uint32_t flags, std::uint32_t offset) {
  auto* property = static_cast<PropertyDef*>(Batch_AllocZero(batch, sizeof(PropertyDef)));
  if (property == nullptr) return nullptr;
  property->name = Batch_DupText(batch, name);
  if (property->name == nullptr) return nullptr;
  property->nameCode = Name_Code(name);
  property->flags = flags;
  property->type = type;
  property->offset = offset;
  return property;
}

// Appends the property as a null. Requires a reserved slot.
void AppendProperty(Instance* body, ClassDef* def, PropertyDef* property) {
  assert(property->offset == DynamicBodySize(def->propertyCount) && def->size == property->offset);
  auto** table = const_cast<const PropertyDef**>(def->properties);
  const std::uint32_t count = def->propertyCount++;
  table[count] = property;
  // A table that has just grown has its tags elsewhere.
  const bool hasGrown = std::has_single_bit(count) && count >= INSTANCE_MIN_CAPACITY;
  PropertyTable_WriteTags(table, hasGrown ? 0 : count, count + 1);
  def->size += DYNAMIC_SLOT_SIZE;
  std::memset(static_cast<void*>(Instance_Slot(body, *property)), 0, DYNAMIC_SLOT_SIZE);
}

Result AddProperty(Instance* self, const char16_t* name, const CimValue* value, std::uint32_t type,
                   std::uint32_t flags) {
  Instance* body = Instance_LiveBody(self);
  if (body == nullptr || name == nullptr) return RESULT_INVALID_PARAMETER;
  if (body == self) return RESULT_FAILED;
  if (!Name_IsValid(name) || type >= kCimTypes) return RESULT_INVALID_PARAMETER;
  if (ClassDef_FindProperty(body->def, name) != kNoIndex) return RESULT_ALREADY_EXISTS;
  ClassDef* def = Instance_PrivateDef(body);
  assert(def != nullptr);
  const std::uint64_t offset = DynamicBodySize(def->propertyCount);
  if (offset + DYNAMIC_SLOT_SIZE > std::numeric_limits<std::uint32_t>::max()) return RESULT_FAILED;
  body = ReserveSlot(self, def);
  if (body == nullptr) return RESULT_FAILED;
  PropertyDef* property =
      MakeProperty(body->batch, name, type, flags, static_cast<std::uint32_t>(offset));
  if (property == nullptr) return RESULT_FAILED;
  AppendProperty(body, def, property);
  Instance_SyncWrapper(self, body);
  const std::uint32_t valueFlags = flags & (FLAG_NULL | FLAG_BORROW);
  return StorePropertyAt(self, def->propertyCount - 1, value, type, valueFlags);
}

Result MakeClassObject(const Instance* self, ClassObject** made) {
  const Instance* body = Instance_LiveBody(self);
  if (body == nullptr) return RESULT_INVALID_PARAMETER;
  return Class_FromDef(body->def, body->namespaceName, body->hostName, made);
}

bool IsKey(const PropertyDef* property) { return (property->flags & FLAG_KEY) != 0; }

// Returns true if `b` has the key `key` of `a`, with the same type and an equal value.
bool HasEqualKey(const Instance* a, const PropertyDef& key, const Instance* b) {
  assert(IsKey(&key));
  const PropertyDef* other = ClassDef_GetProperty(b->def, key.name);
  if (other == nullptr || !IsKey(other) || other->type != key.type) return false;
  return ValueSlot_Equal(Instance_Slot(a, key), Instance_Slot(b, *other), key.type);
}

}  // namespace

const InstanceOps kInstanceOps = {
    instance_ops::Clone,  instance_ops::Dismantle,
    instance_ops::Delete, IsKindOf,
    ClassNameOf,          SetNamespace,
    NamespaceOf,          PropertyCountOf,
    AddProperty,          StoreProperty,
    StorePropertyAt,      ReadProperty,
    PropertyAt,           ClearProperty,
    ClearPropertyAt,      HostNameOf,
    SetHostName,          MakeClassObject,
};

Result Instance_ReserveArray(Instance* instance, const char16_t* name, std::uint32_t elementType,
                             std::uint32_t flags, std::uint32_t capacity, std::uint32_t* index) {
  Instance* body = Instance_LiveBody(instance);
  if (body == nullptr || index == nullptr) return RESULT_INVALID_PARAMETER;
  const std::int64_t found = ClassDef_FindProperty(body->def, name);
  if (found == kNoIndex) return RESULT_NO_SUCH_PROPERTY;
  const PropertyDef& property = *body->def->properties[found];
  const std::uint32_t type = elementType | CIM_ARRAY;
  if (property.type != type) return RESULT_TYPE_MISMATCH;
  // Allocates first: the old value is released only when nothing can fail any more.
  CimValue empty{};
  void* data = nullptr;
  if (capacity > 0) {
    const std::size_t elementSize = kElementSizes[CimType_Element(type)];
    data = Batch_Alloc(body->batch, std::size_t{capacity} * elementSize);
    if (data == nullptr) return RESULT_SERVER_LIMITS_EXCEEDED;
  }
  empty.array = ArrayValue{};
  ValueSlot* slot = Instance_Slot(body, property);
  const Result result = ValueSlot_Assign(slot, type, &empty, flags, body->batch);
  if (result != RESULT_OK) return result;
  const ArrayValue reserved{data, 0, 0};
  std::memcpy(static_cast<void*>(slot), &reserved, sizeof reserved);
  *index = static_cast<std::uint32_t>(found);
  return RESULT_OK;
}

Result Instance_AppendToArray(Instance* instance, std::uint32_t index, const void* element) {
  Instance* body = Instance_LiveBody(instance);
  if (body == nullptr || element == nullptr) return RESULT_INVALID_PARAMETER;
  if (index >= body->def->propertyCount) return RESULT_INVALID_PARAMETER;
  const PropertyDef& property = *body->def->properties[index];
  if (!CimType_IsArray(property.type)) return RESULT_TYPE_MISMATCH;
  ValueSlot* slot = Instance_Slot(body, property);
  CimValue value{};
  bool present = false;
  std::uint8_t slotFlags = 0;
  ValueSlot_Read(slot, property.type, &value, &present, &slotFlags);
  if (value.array.data == nullptr || (slotFlags & SLOT_BORROWED) != 0) return RESULT_FAILED;
  const Result result = ArrayValue_StoreAt(body->batch, CimType_Element(property.type),
                                           value.array.data, value.array.size, element);
  if (result != RESULT_OK) return result;
  ++value.array.size;
  std::memcpy(static_cast<void*>(slot), &value.array, sizeof value.array);
  reinterpret_cast<std::uint8_t*>(slot)[sizeof(ArrayValue)] = 1;  // `present`
  return RESULT_OK;
}

std::uint32_t Instance_KeyCount(const Instance* instance) {
  const Instance* body = Instance_LiveBody(instance);
  if (body == nullptr || body->def->propertyCount == 0) return 0;
  const PropertyDef* const* first = body->def->properties;
  return static_cast<std::uint32_t>(std::count_if(first, first + body->def->propertyCount, IsKey));
}

bool Instance_KeysComplete(const Instance* instance) {
  std::uint32_t count = 0;
  if (Instance_PropertyCountOf(instance, &count) != RESULT_OK) return false;
  for (std::uint32_t i = 0; i < count; ++i) {
    std::uint32_t flags = 0;
    if (Instance_PropertyAt(instance, i, nullptr, nullptr, nullptr, &flags) != RESULT_OK)
      return false;
    if ((flags & FLAG_KEY) != 0 && (flags & FLAG_NULL) != 0) return false;
  }
  return true;
}

bool Instance_KeysEqual(const Instance* a, const Instance* b) {
  const Instance* left = Instance_LiveBody(a);
  const Instance* right = Instance_LiveBody(b);
  if (left == nullptr || right == nullptr) return false;
  const std::uint32_t count = Instance_KeyCount(left);
  if (count == 0 || count != Instance_KeyCount(right)) return false;
  const PropertyDef* const* first = left->def->properties;
  return std::all_of(first, first + left->def->propertyCount, [&](const PropertyDef* property) {
    return !IsKey(property) || HasEqualKey(left, *property, right);
  });
}

Result Instance_Clone(const Instance* instance, Instance** clone) {
  return CallThroughTable(instance, &InstanceOps::Clone, clone);
}

Result Instance_Dismantle(Instance* instance) {
  return CallThroughTable(instance, &InstanceOps::Dismantle);
}

Result Instance_Delete(Instance* instance) {
  return CallThroughTable(instance, &InstanceOps::Delete);
}

Result Instance_IsKindOf(const Instance* instance, const ClassDef* def, bool* isKind) {
  return CallThroughTable(instance, &InstanceOps::IsKindOf, def, isKind);
}

Result Instance_ClassNameOf(const Instance* instance, const char16_t** name) {
  return CallThroughTable(instance, &InstanceOps::ClassNameOf, name);
}

Result Instance_SetNamespace(Instance* instance, const char16_t* name) {
  return CallThroughTable(instance, &InstanceOps::SetNamespace, name);
}

Result Instance_NamespaceOf(const Instance* instance, const char16_t** name) {
  return CallThroughTable(instance, &InstanceOps::NamespaceOf, name);
}

Result Instance_PropertyCountOf(const Instance* instance, std::uint32_t* count) {
  return CallThroughTable(instance, &InstanceOps::PropertyCountOf, count);
}

Result Instance_AddProperty(Instance* instance, const char16_t* name, const CimValue* value,
                            std::uint32_t type, std::uint32_t flags) {
  return CallThroughTable(instance, &InstanceOps::AddProperty, name, value, type, flags);
}

Result Instance_StoreProperty(Instance* instance, const char16_t* name, const CimValue* value,
                              std::uint32_t type, std::uint32_t flags) {
  return CallThroughTable(instance, &InstanceOps::StoreProperty, name, value, type, flags);
}

Result Instance_StorePropertyAt(Instance* instance, std::uint32_t index, const CimValue* value,
                                std::uint32_t type, std::uint32_t flags) {
  return CallThroughTable(instance, &InstanceOps::StorePropertyAt, index, value, type, flags);
}

Result Instance_ReadProperty(const Instance* instance, const char16_t* name, CimValue* value,
                             std::uint32_t* type, std::uint32_t* flags, std::uint32_t* index) {
  return CallThroughTable(instance, &InstanceOps::ReadProperty, name, value, type, flags, index);
}

Result Instance_PropertyAt(const Instance* instance, std::uint32_t index, const char16_t** name,
                           CimValue* value, std::uint32_t* type, std::uint32_t* flags) {
  return CallThroughTable(instance, &InstanceOps::PropertyAt, index, name, value, type, flags);
}

Result Instance_ClearProperty(Instance* instance, const char16_t* name) {
  return CallThroughTable(instance, &InstanceOps::ClearProperty, name);
}

Result Instance_ClearPropertyAt(Instance* instance, std::uint32_t index) {
  return CallThroughTable(instance, &InstanceOps::ClearPropertyAt, index);
}

Result Instance_HostNameOf(const Instance* instance, const char16_t** name) {
  return CallThroughTable(instance, &InstanceOps::HostNameOf, name);
}

Result Instance_SetHostName(Instance* instance, const char16_t* name) {
  return CallThroughTable(instance, &InstanceOps::SetHostName, name);
}

Result Instance_MakeClassObject(const Instance* instance, ClassObject** made) {
  return CallThroughTable(instance, &InstanceOps::MakeClassObject, made);
}

}  // namespace stewardry::cim
