// An instance: one CIM object, a head of 64 bytes followed by one value slot for each property of
// its class. A static instance has the definition of a class and a fixed size; its handle is the
// address of its body. A dynamic instance begins without properties and grows with AddProperty; its
// handle is a small wrapper that stays in place while the body behind it moves.
//
// Invariants:
// 1. `body` of a body points to itself, `body` of a wrapper to the current body. Every operation
//    resolves it first. Only the body's head is current: of a wrapper's copy, `ops` and `body` are
//    read, and `hostName` is kept in step.
// 2. A slot lies at the body's address plus the property's offset. In a dynamic instance the offset
//    is 64 + 40 x index, and the body has room for DynamicDef_Capacity slots.
// 3. The definition's `owner` names what frees it: nothing (kOwnerNone), this instance
//    (kOwnerDynamic), or a ClassObject on which this instance holds a reference. `ownsDef` marks a
//    deep copy of a class in this instance's batch, which no other instance may share.
// 4. Everything of an instance lies in `batch`. With `ownsBatch` the batch is freed with the
//    instance, and the instance's own memory with it.
// 5. A header with the reference count lies directly before each body and wrapper that the library
//    allocated. An instance made by Instance_InitAt has none.
//
// An instance has no lock: one thread at a time uses it, except for Instance_Retain and
// Instance_Drop. An instance must not contain itself, at any depth.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "cim/instance/class_definitions.h"
#include "cim/instance/class_object.h"
#include "cim/instance/value_slot.h"
#include "cim/memory/batch.h"
#include "cim/memory/result.h"
#include "cim/value/values.h"

namespace stewardry::cim {

struct InstanceOps;

constexpr std::uint32_t kInstanceMagic = 0xB26AEA60;
constexpr std::uint32_t INSTANCE_MIN_CAPACITY = 32;  // slots that a dynamic body begins with
constexpr std::uint32_t DYNAMIC_SLOT_SIZE = 40;      // bytes, for every type
static_assert(DYNAMIC_SLOT_SIZE == kMaxSlotSize);

struct InstanceHeader {
  std::uint32_t magic;  // kInstanceMagic
  std::uint32_t filler;
  std::atomic<std::uint64_t> refs;
};

struct Instance {
  const InstanceOps* ops;
  const ClassDef* def;
  const char16_t* hostName;       // or null
  const char16_t* namespaceName;  // or null
  Batch* batch;
  Instance* body;
  std::uint8_t ownsBatch;  // 1: the batch is freed with this instance
  std::uint8_t ownsDef;    // 1: the definition is a deep copy of a class, made for this instance
  std::uint8_t filler[14];
};

static_assert(offsetof(InstanceHeader, refs) == 8 && sizeof(InstanceHeader) == 16);
static_assert(offsetof(Instance, def) == 8 && offsetof(Instance, hostName) == 16 &&
              offsetof(Instance, namespaceName) == 24 && offsetof(Instance, batch) == 32 &&
              offsetof(Instance, body) == 40 && offsetof(Instance, ownsBatch) == 48 &&
              sizeof(Instance) == 64);

// The operations of an instance, in the table's order. All return RESULT_OK on success. All but
// Clone resolve the body first and return RESULT_INVALID_PARAMETER for a null object. Outs may be
// null, except in Clone and MakeClassObject; texts and pointers in them stay the instance's and are
// valid until it changes.
struct InstanceOps {
  // Copies as Instance_Copy does, into a new batch. Returns RESULT_FAILED for a null object.
  Result (*Clone)(const Instance* self, Instance** clone);
  // Releases the content, and the batch if the instance owns it. Keeps the instance's own block.
  // Returns RESULT_FAILED for an instance without content.
  Result (*Dismantle)(Instance* self);
  // Dismantles the instance and releases its own block. Fails as Dismantle.
  Result (*Delete)(Instance* self);
  // Stores whether `def`, by address, is the instance's definition or one of its superclasses.
  // Returns RESULT_INVALID_PARAMETER for a null definition.
  Result (*IsKindOf)(const Instance* self, const ClassDef* def, bool* isKind);
  Result (*ClassNameOf)(const Instance* self, const char16_t** name);
  // Stores a copy of the text, or null, in the instance. Returns RESULT_FAILED and keeps the old
  // text if allocation fails.
  Result (*SetNamespace)(Instance* self, const char16_t* name);
  // Stores the name space or null.
  Result (*NamespaceOf)(const Instance* self, const char16_t** name);
  Result (*PropertyCountOf)(const Instance* self, std::uint32_t* count);
  // Appends a property to a dynamic instance and stores its value. A null value or FLAG_NULL makes
  // a null, FLAG_BORROW stores the caller's pointer, and all flags become the definition's. Returns
  // RESULT_INVALID_PARAMETER for a null or invalid name or a type above 31, RESULT_ALREADY_EXISTS
  // for a name that exists, ignoring case, and RESULT_FAILED for a static instance or if allocation
  // fails. If only copying the value fails, the property stays, as a null.
  Result (*AddProperty)(Instance* self, const char16_t* name, const CimValue* value,
                        std::uint32_t type, std::uint32_t flags);
  // Finds the property by name, ignoring case, and continues as StorePropertyAt. Returns
  // RESULT_INVALID_PARAMETER for a null name and RESULT_NO_SUCH_PROPERTY.
  Result (*StoreProperty)(Instance* self, const char16_t* name, const CimValue* value,
                          std::uint32_t type, std::uint32_t flags);
  // Replaces a property's value once the new one is complete. Any failure leaves the old value.
  // Returns RESULT_FAILED for a wrong index, RESULT_TYPE_MISMATCH for another type than the
  // property's, and otherwise what ValueSlot_Assign returns.
  Result (*StorePropertyAt)(Instance* self, std::uint32_t index, const CimValue* value,
                            std::uint32_t type, std::uint32_t flags);
  // Finds the property by name, ignoring case, and continues as PropertyAt. Returns
  // RESULT_INVALID_PARAMETER for a null name and RESULT_NO_SUCH_PROPERTY.
  Result (*ReadProperty)(const Instance* self, const char16_t* name, CimValue* value,
                         std::uint32_t* type, std::uint32_t* flags, std::uint32_t* index);
  // Stores one property's name, value, type and flags without copying what the value points to.
  // `flags` are the definition's, with FLAG_NULL for a null and FLAG_NOT_MODIFIED for a slot not
  // marked modified. Returns RESULT_INVALID_PARAMETER for a wrong index.
  Result (*PropertyAt)(const Instance* self, std::uint32_t index, const char16_t** name,
                       CimValue* value, std::uint32_t* type, std::uint32_t* flags);
  // Finds the property by name and continues as ClearPropertyAt. Fails as StoreProperty.
  Result (*ClearProperty)(Instance* self, const char16_t* name);
  // Makes the property null. Returns RESULT_FAILED for a wrong index.
  Result (*ClearPropertyAt)(Instance* self, std::uint32_t index);
  // Stores the host's name or null.
  Result (*HostNameOf)(const Instance* self, const char16_t** name);
  // As SetNamespace, but returns RESULT_SERVER_LIMITS_EXCEEDED if allocation fails.
  Result (*SetHostName)(Instance* self, const char16_t* name);
  // Class_FromDef with the instance's definition, name space and host name.
  Result (*MakeClassObject)(const Instance* self, ClassObject** made);
};

static_assert(sizeof(InstanceOps) == 18 * sizeof(void*));

// The table of the library's instances.
extern const InstanceOps kInstanceOps;

// Makes a static instance of `def` with all properties null and one reference, in `batch` or, if
// that is null, in a batch of its own. Accepts MethodDef_AsClass too. A definition without an owner
// is shared and must outlive the instance. Returns RESULT_INVALID_PARAMETER for a null out or
// definition and for a definition whose size is below the 64 bytes of a head, and RESULT_FAILED if
// allocation fails.
Result Instance_Create(Instance** made, const ClassDef* def, Batch* batch);

// Makes a static instance in the caller's memory. Requires `def->size` bytes, aligned to 8, that
// outlive the instance. The instance has no reference count. Fails as Instance_Create.
Result Instance_InitAt(void* memory, const ClassDef* def, Batch* batch);

// Makes a dynamic instance without properties, of a class named `className`, and stores its wrapper
// with one reference. Only the kind in `flags` is used: FLAG_KIND_10, FLAG_KIND_20 or FLAG_METHOD,
// otherwise FLAG_CLASS. Returns RESULT_INVALID_PARAMETER for a null out and a null or invalid name,
// and RESULT_FAILED if allocation fails. A batch of the caller's keeps what a failed call
// allocated.
Result Instance_CreateDynamic(Instance** made, const char16_t* className, std::uint32_t flags,
                              Batch* batch);

// Stores a deep copy with one reference, in `batch` or, if that is null, in a batch of its own. It
// is static or dynamic as the source's handle. Borrowed data become owned copies. A class without
// an owner is shared, a ClassObject gets one more reference. An instance of another table is copied
// by that table's Clone, not into `batch`. Stores null and returns RESULT_FAILED for a null or
// dismantled instance, a null out, or if allocation fails; or returns the failure of a class
// object's Clone.
Result Instance_Copy(const Instance* instance, Instance** copy, Batch* batch);

// Adds one reference. Ignores null. Any thread that holds a reference. Requires an instance that
// the library allocated.
void Instance_Retain(Instance* instance);

// Releases one reference and deletes the instance with the last one. Ignores null. Any thread that
// holds a reference. Requires an instance that the library allocated.
void Instance_Drop(Instance* instance);

// Returns the body of a handle, or null for a null handle.
inline Instance* Instance_Body(Instance* instance) {
  if (instance == nullptr) return nullptr;
  return instance->body != nullptr ? instance->body : instance;
}
inline const Instance* Instance_Body(const Instance* instance) {
  return Instance_Body(const_cast<Instance*>(instance));  // the result is const
}

// Returns true for a handle that is not its own body: the handle of a dynamic instance.
bool Instance_IsWrapped(const Instance* instance);

// Renames the class of a dynamic instance. Returns RESULT_INVALID_PARAMETER for a null instance and
// a null or invalid name, and RESULT_FAILED if allocation fails or the instance does not own its
// definition.
Result Instance_SetClassName(Instance* instance, const char16_t* name);

// Replaces an array property by one without elements that has room for `capacity` elements, to be
// filled by Instance_AppendToArray, and stores its index. `elementType` is the scalar type; the
// flags are those of StoreProperty. Returns RESULT_NO_SUCH_PROPERTY for a null or unknown name,
// RESULT_INVALID_PARAMETER for a null instance or index, RESULT_TYPE_MISMATCH, or
// RESULT_SERVER_LIMITS_EXCEEDED if allocation fails. Every failure leaves the old value.
Result Instance_ReserveArray(Instance* instance, const char16_t* name, std::uint32_t elementType,
                             std::uint32_t flags, std::uint32_t capacity, std::uint32_t* index);

// Appends a copy of one element and makes the property present. The caller stays within the
// capacity that it reserved, which is not checked. Returns RESULT_INVALID_PARAMETER for a null
// argument or a wrong index, RESULT_TYPE_MISMATCH for a scalar property, RESULT_FAILED for an
// array that was not reserved or has borrowed elements, and otherwise what ArrayValue_StoreAt
// returns.
Result Instance_AppendToArray(Instance* instance, std::uint32_t index, const void* element);

// Returns the number of properties with FLAG_KEY, or 0 for a null instance.
std::uint32_t Instance_KeyCount(const Instance* instance);

// Returns true if every key property has a value, which includes an instance without keys. Returns
// false for a null instance and if a property cannot be read.
bool Instance_KeysComplete(const Instance* instance);

// Returns true if both instances have the same keys, at least one, under the same names in any
// order and case, with the same types and equal values. Returns false for a null argument.
bool Instance_KeysEqual(const Instance* a, const Instance* b);

// Makes a view of the instance's class in the caller's memory. The view must not outlive the
// instance. Returns RESULT_INVALID_PARAMETER for a null argument.
Result Instance_GetClassView(const Instance* instance, ClassObject* view);

// Call the operation of that name through the instance's own table. Return RESULT_INVALID_PARAMETER
// for a null object or table, and otherwise what the operation returns.
Result Instance_Clone(const Instance* instance, Instance** clone);
Result Instance_Dismantle(Instance* instance);
Result Instance_Delete(Instance* instance);
Result Instance_IsKindOf(const Instance* instance, const ClassDef* def, bool* isKind);
Result Instance_ClassNameOf(const Instance* instance, const char16_t** name);
Result Instance_SetNamespace(Instance* instance, const char16_t* name);
Result Instance_NamespaceOf(const Instance* instance, const char16_t** name);
Result Instance_PropertyCountOf(const Instance* instance, std::uint32_t* count);
Result Instance_AddProperty(Instance* instance, const char16_t* name, const CimValue* value,
                            std::uint32_t type, std::uint32_t flags);
Result Instance_StoreProperty(Instance* instance, const char16_t* name, const CimValue* value,
                              std::uint32_t type, std::uint32_t flags);
Result Instance_StorePropertyAt(Instance* instance, std::uint32_t index, const CimValue* value,
                                std::uint32_t type, std::uint32_t flags);
Result Instance_ReadProperty(const Instance* instance, const char16_t* name, CimValue* value,
                             std::uint32_t* type, std::uint32_t* flags, std::uint32_t* index);
Result Instance_PropertyAt(const Instance* instance, std::uint32_t index, const char16_t** name,
                           CimValue* value, std::uint32_t* type, std::uint32_t* flags);
Result Instance_ClearProperty(Instance* instance, const char16_t* name);
Result Instance_ClearPropertyAt(Instance* instance, std::uint32_t index);
Result Instance_HostNameOf(const Instance* instance, const char16_t** name);
Result Instance_SetHostName(Instance* instance, const char16_t* name);
Result Instance_MakeClassObject(const Instance* instance, ClassObject** made);

}  // namespace stewardry::cim
