// An instance: one CIM object, a 64-byte head followed by one value slot for each property of its
// class. A static instance has a class' definition and a fixed size; its handle is the address of
// its body. A dynamic one begins empty and grows with AddProperty; its handle is a small wrapper
// that stays while the body behind it moves.
//
// Invariants:
// 1. `body` of a body points to itself, `body` of a wrapper to the current body. Every operation
//    resolves it first. Only the body's head is up to date: of a wrapper's copy, `ops` and `body`
//    are read, and `hostName` is kept in step.
// 2. A slot lies at the body's address plus the property's offset. In a dynamic instance that is
//    64 + 40 x index, and the body has room for DynamicDef_Capacity slots.
// 3. The definition's `owner` tells who ends it: nobody (kOwnerNone), this instance
// (kOwnerDynamic),
//    or a ClassObject on which this instance holds a reference. `ownsDef` marks a deep copy of a
//    class in this instance's batch, which no other instance may share.
// 4. Everything of an instance lies in `batch`. With `ownsBatch` the batch goes with the instance,
//    and the instance's own memory with it.
// 5. A header with the reference count lies right in front of each body and wrapper that the
//    library allocated; one made by Instance_InitAt has none.
//
// An instance has no lock: one thread at a time, but for Instance_Retain and Instance_Drop. An
// instance must not hold itself, at any depth.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "cim/instance/class_definitions.h"
#include "cim/instance/class_object.h"
#include "cim/memory/batch.h"
#include "cim/memory/result.h"
#include "cim/value/values.h"

namespace stewardry::cim {

struct Instance;
struct InstanceOps;

constexpr std::uint32_t kInstanceMagic = 0xB26AEA60;
constexpr std::uint32_t INSTANCE_MIN_CAPACITY = 32;  // slots that a dynamic body begins with
constexpr std::uint32_t DYNAMIC_SLOT_SIZE = 40;      // bytes, whatever the property's type

struct InstanceHeader {
  std::uint32_t magic;  // kInstanceMagic
  std::uint32_t filler;
  std::atomic<std::uint64_t> refs;
};

struct Instance {
  const InstanceOps* ops;
  const ClassDef* def;
  const char16_t* hostName;       // or empty
  const char16_t* namespaceName;  // or empty
  Batch* batch;
  Instance* body;
  std::uint8_t ownsBatch;  // 1: the batch ends with this instance
  std::uint8_t ownsDef;    // 1: the definition is a deep copy of a class, made for this instance
  std::uint8_t filler[14];
};

static_assert(offsetof(InstanceHeader, refs) == 8 && sizeof(InstanceHeader) == 16);
static_assert(offsetof(Instance, def) == 8 && offsetof(Instance, hostName) == 16 &&
              offsetof(Instance, namespaceName) == 24 && offsetof(Instance, batch) == 32 &&
              offsetof(Instance, body) == 40 && offsetof(Instance, ownsBatch) == 48 &&
              sizeof(Instance) == 64);

// The operations of an instance, in the table's order. All but Clone resolve the body first and
// give RESULT_INVALID_PARAMETER for an empty object. Texts and pointers that come out stay the
// instance's and are good until it changes.
struct InstanceOps {
  // A copy in a batch of its own, see Instance_Copy. RESULT_FAILED for an empty object too.
  Result (*Clone)(const Instance* self, Instance** clone);
  // Releases the content, the batch too if the instance owns it, and keeps the instance's own
  // block. RESULT_FAILED for an instance that holds nothing.
  Result (*Dismantle)(Instance* self);
  // Dismantles, and gives the instance's own block back. The instance is gone.
  Result (*Delete)(Instance* self);
  // Whether `def`, by address, is the instance's definition or one of its superclasses.
  // RESULT_INVALID_PARAMETER for an empty definition; an empty out pointer is ignored.
  Result (*IsKindOf)(const Instance* self, const ClassDef* def, bool* isKind);
  // The class' name. An empty out pointer is ignored.
  Result (*ClassNameOf)(const Instance* self, const char16_t** name);
  // Stores a copy of the text, or empty. RESULT_FAILED, and the old text, when memory fails.
  Result (*SetNamespace)(Instance* self, const char16_t* name);
  // The name space or empty. An empty out pointer is ignored.
  Result (*NamespaceOf)(const Instance* self, const char16_t** name);
  // The number of properties. An empty out pointer is ignored.
  Result (*PropertyCountOf)(const Instance* self, std::uint32_t* count);
  // Appends a property to a dynamic instance and stores its value; an empty value or FLAG_NULL
  // makes a null, FLAG_BORROW keeps the caller's pointer, and all flags go into the definition.
  // RESULT_INVALID_PARAMETER: empty or bad name, or a type above 31. RESULT_ALREADY_EXISTS: the
  // name, ignoring case. RESULT_FAILED: a static instance, or no memory. When only the value's copy
  // fails the property stays, as a null, and the result tells.
  Result (*AddProperty)(Instance* self, const char16_t* name, const CimValue* value,
                        std::uint32_t type, std::uint32_t flags);
  // Finds the property by name, ignoring case, then as StorePropertyAt. RESULT_INVALID_PARAMETER
  // for an empty name, RESULT_NO_SUCH_PROPERTY.
  Result (*StoreProperty)(Instance* self, const char16_t* name, const CimValue* value,
                          std::uint32_t type, std::uint32_t flags);
  // Replaces a property's value once the new one is complete; any failure leaves the old one.
  // RESULT_FAILED at or past the count, RESULT_TYPE_MISMATCH for another type than the property's,
  // else what ValueSlot_Assign gives.
  Result (*StorePropertyAt)(Instance* self, std::uint32_t index, const CimValue* value,
                            std::uint32_t type, std::uint32_t flags);
  // Finds the property by name, ignoring case, then as PropertyAt. RESULT_INVALID_PARAMETER for an
  // empty name, RESULT_NO_SUCH_PROPERTY. All outs may be empty.
  Result (*ReadProperty)(const Instance* self, const char16_t* name, CimValue* value,
                         std::uint32_t* type, std::uint32_t* flags, std::uint32_t* index);
  // One property, without copying what its value points to; all outs may be empty. `flags` are the
  // definition's with FLAG_NULL for a null and FLAG_NOT_MODIFIED for a slot not marked modified.
  // RESULT_INVALID_PARAMETER at or past the count.
  Result (*PropertyAt)(const Instance* self, std::uint32_t index, const char16_t** name,
                       CimValue* value, std::uint32_t* type, std::uint32_t* flags);
  // Finds the property by name, then as ClearPropertyAt. The failures of StoreProperty.
  Result (*ClearProperty)(Instance* self, const char16_t* name);
  // Makes the property null. RESULT_FAILED at or past the count.
  Result (*ClearPropertyAt)(Instance* self, std::uint32_t index);
  // The host's name or empty. An empty out pointer is ignored.
  Result (*HostNameOf)(const Instance* self, const char16_t** name);
  // As SetNamespace, but RESULT_SERVER_LIMITS_EXCEEDED when memory fails.
  Result (*SetHostName)(Instance* self, const char16_t* name);
  // Class_FromDef with the instance's definition, name space and host name.
  Result (*MakeClassObject)(const Instance* self, ClassObject** made);
};

static_assert(sizeof(InstanceOps) == 18 * sizeof(void*));

// The one table of the library's instances.
extern const InstanceOps kInstanceOps;

// Makes a static instance of `def` with all properties null and one reference, in `batch` or, if
// that is empty, in one of its own. RESULT_INVALID_PARAMETER for an empty out pointer or definition
// or one whose size is below the 64 bytes of a head; RESULT_FAILED when memory fails. A definition
// that nobody owns is shared: it must outlive the instance.
Result Instance_Create(Instance** made, const ClassDef* def, Batch* batch);

// The same in the caller's memory, `def->size` bytes aligned to 8, that must stay until the
// instance is deleted. It has no reference count.
Result Instance_InitAt(void* memory, const ClassDef* def, Batch* batch);

// Makes a dynamic instance without properties, of a class named `className`, and gives its wrapper
// with one reference. Of `flags` the kind counts: FLAG_KIND_10, FLAG_KIND_20, FLAG_METHOD, else
// FLAG_CLASS. RESULT_INVALID_PARAMETER for an empty argument or a bad name, RESULT_FAILED when
// memory fails. A batch given keeps what a failed call took from it.
Result Instance_CreateDynamic(Instance** made, const char16_t* className, std::uint32_t flags,
                              Batch* batch);

// A deep copy with one reference, in `batch` or, if that is empty, in one of its own; static or
// dynamic as the source's handle. Borrowed data become owned copies. A class that nobody owns is
// shared, a ClassObject gets one more reference. An instance of another table is copied by that
// table's Clone, and then not into `batch`. RESULT_FAILED for an empty instance or out pointer or
// when memory fails, with empty stored; or the failure of a class object's Clone.
Result Instance_Copy(const Instance* instance, Instance** copy, Batch* batch);

// One more reference. An empty pointer does nothing. Any thread that holds one.
void Instance_Retain(Instance* instance);

// Gives one reference back, and deletes the instance with the last one. An empty pointer does
// nothing. Any thread, when no other uses the instance without a reference.
void Instance_Drop(Instance* instance);

// The body of a handle; empty for an empty one.
inline Instance* Instance_Body(Instance* instance) {
  if (instance == nullptr) return nullptr;
  return instance->body != nullptr ? instance->body : instance;
}
inline const Instance* Instance_Body(const Instance* instance) {
  return Instance_Body(const_cast<Instance*>(instance));  // comes out const again
}

// True for a handle that is not its own body, that is for a dynamic instance.
bool Instance_IsWrapped(const Instance* instance);

// Renames the private class of a dynamic instance. RESULT_INVALID_PARAMETER for an empty argument
// or a bad name; RESULT_FAILED when memory fails or the definition isn't the instance's own.
Result Instance_SetClassName(Instance* instance, const char16_t* name);

// Makes an array property empty, with room for `capacity` elements, to be filled by
// Instance_AppendToArray, and stores its index. `elementType` is the scalar type; the flags are
// those of StoreProperty. RESULT_NO_SUCH_PROPERTY for an empty or unknown name,
// RESULT_INVALID_PARAMETER for an empty instance or index, RESULT_TYPE_MISMATCH,
// RESULT_SERVER_LIMITS_EXCEEDED when memory fails. Every failure leaves the old value.
Result Instance_ReserveArray(Instance* instance, const char16_t* name, std::uint32_t elementType,
                             std::uint32_t flags, std::uint32_t capacity, std::uint32_t* index);

// Stores a copy of one element behind the last and makes the property present. The caller keeps to
// the capacity it reserved: it isn't tested. RESULT_INVALID_PARAMETER for an empty argument or an
// index past the count, RESULT_TYPE_MISMATCH for a scalar property, RESULT_FAILED for an array with
// nothing reserved or with borrowed elements, else what ArrayValue_StoreAt gives.
Result Instance_AppendToArray(Instance* instance, std::uint32_t index, const void* element);

// The number of properties with FLAG_KEY; 0 for an empty instance.
std::uint32_t Instance_KeyCount(const Instance* instance);

// True when every key property has a value, also when there is none. False for an empty instance
// and when a property can't be read.
bool Instance_KeysComplete(const Instance* instance);

// True when both instances have the same keys, at least one, under the same names in any order and
// case, with the same types and equal values. False for an empty argument.
bool Instance_KeysEqual(const Instance* a, const Instance* b);

// Makes a view of the instance's class in the caller's memory; it must not outlive the instance.
// RESULT_INVALID_PARAMETER for an empty argument.
Result Instance_GetClassView(const Instance* instance, ClassObject* view);

// The operations through the instance's own table: RESULT_INVALID_PARAMETER for an empty object or
// table, else what the operation of that name gives.
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
