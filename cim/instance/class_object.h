// The class object: the handle by which a class is passed around, shared by counted references.
// One made by Class_FromDef holds a deep copy of a definition in a batch of its own and lies in
// that batch itself; a view shows somebody else's definition and owns nothing.
//
// Invariants:
// 1. `refs` is 0 for a view and at least 1 for a class object until its end. It is the only field
//    that changes after creation, so any thread may read a class object it holds a reference on.
// 2. The definition's `owner` is the class object's address, which is how an instance built on that
//    definition gives its reference back.
// 3. Default values may hold instances, and these may hold references on other class objects; they
//    are deleted before the batch goes.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

#include "cim/instance/class_definitions.h"
#include "cim/instance/definition_sets.h"
#include "cim/memory/batch.h"
#include "cim/memory/result.h"
#include "cim/value/values.h"

namespace stewardry::cim {

struct ClassOps;

struct ClassObject {
  const ClassOps* ops;
  const ClassDef* def;
  const char16_t* namespaceName;  // or empty
  const char16_t* hostName;       // or empty
  Batch* batch;                   // holds everything of this object; empty in a view
  std::atomic<std::uint64_t> refs;
};

// The operations of a class object, in the table's order. Each gives RESULT_INVALID_PARAMETER for
// an empty object or required out pointer unless it says otherwise. What comes out is the
// definition's: not to be freed, and good as long as the class object lives.
struct ClassOps {
  Result (*ClassNameOf)(const ClassObject* self, const char16_t** name);
  Result (*NamespaceOf)(const ClassObject* self, const char16_t** name);
  Result (*HostNameOf)(const ClassObject* self, const char16_t** name);
  Result (*PropertyCountOf)(const ClassObject* self, std::uint32_t* count);
  // Finds the property by name, ignoring case, then gives what PropertyAt gives. The name is
  // required, the outs may be empty. RESULT_NO_SUCH_PROPERTY.
  Result (*ReadProperty)(const ClassObject* self, const char16_t* name, CimValue* value,
                         bool* present, std::uint32_t* type, const char16_t** referenceClass,
                         QualifierSet* qualifiers, std::uint32_t* flags, std::uint32_t* index);
  // One property's definition and default; every out may be empty. Without a default `present` is
  // false and `value` zeroed. RESULT_NO_SUCH_PROPERTY at or past the count.
  Result (*PropertyAt)(const ClassObject* self, std::uint32_t index, const char16_t** name,
                       CimValue* value, bool* present, std::uint32_t* type,
                       const char16_t** referenceClass, QualifierSet* qualifiers,
                       std::uint32_t* flags);
  Result (*ClassQualifiers)(const ClassObject* self, QualifierSet* qualifiers);
  Result (*MethodCountOf)(const ClassObject* self, std::uint32_t* count);
  // One method; the name is required. RESULT_METHOD_NOT_FOUND at or past the count.
  Result (*MethodAt)(const ClassObject* self, std::uint32_t index, const char16_t** name,
                     QualifierSet* qualifiers, ParameterSet* parameters);
  // The method of that name, ignoring case; the outs may be empty. RESULT_METHOD_NOT_FOUND.
  Result (*FindMethod)(const ClassObject* self, const char16_t* name, QualifierSet* qualifiers,
                       ParameterSet* parameters, std::uint32_t* index);
  // Stores the superclass' name; RESULT_INVALID_SUPERCLASS, with empty stored, if there is none.
  Result (*SuperclassNameOf)(const ClassObject* self, const char16_t** name);
  // Always RESULT_FAILED: Class_Superclass is the form that works.
  Result (*SuperclassOf)(const ClassObject* self, ClassObject** superclass);
  // Gives one reference back; the last one ends the object. A view stays. Any thread. RESULT_OK.
  Result (*Delete)(ClassObject* self);
  // A further reference on the same object. RESULT_FAILED for a view. Any thread.
  Result (*Clone)(ClassObject* self, ClassObject** clone);
};

static_assert(offsetof(ClassObject, def) == 8 && offsetof(ClassObject, namespaceName) == 16 &&
              offsetof(ClassObject, hostName) == 24 && offsetof(ClassObject, batch) == 32 &&
              offsetof(ClassObject, refs) == 40 && sizeof(ClassObject) == 48);
static_assert(sizeof(ClassOps) == 14 * sizeof(void*));

// The one table of class objects.
extern const ClassOps kClassOps;

// Makes a class object with a deep copy of `def` and of both names, which may be empty. The caller
// has its one reference and gives it back with Class_Delete. RESULT_INVALID_PARAMETER for an empty
// definition or out pointer; RESULT_SERVER_LIMITS_EXCEEDED, with nothing left behind and empty
// stored, when memory fails.
Result Class_FromDef(const ClassDef* def, const char16_t* namespaceName, const char16_t* hostName,
                     ClassObject** made);

// Makes a view of `def` in the caller's memory. RESULT_INVALID_PARAMETER for an empty argument.
Result Class_View(ClassObject* view, const ClassDef* def);

// The definition's flags. RESULT_INVALID_PARAMETER for an empty argument.
Result Class_Flags(const ClassObject* object, std::uint32_t* flags);

// Makes a view of the superclass in the caller's memory; it must not outlive `object`.
// RESULT_INVALID_SUPERCLASS if there is none, RESULT_INVALID_PARAMETER for an empty argument.
Result Class_Superclass(const ClassObject* object, ClassObject* view);

// PropertyAt with the size limit, the slot's offset and the classes the property comes from; every
// out may be empty. The same results.
Result Class_PropertyAtExt(const ClassObject* object, std::uint32_t index, const char16_t** name,
                           CimValue* value, bool* present, std::uint32_t* type,
                           const char16_t** referenceClass, QualifierSet* qualifiers,
                           std::uint32_t* flags, std::uint32_t* maxSize, std::uint32_t* offset,
                           const char16_t** originClass, const char16_t** propagatorClass);

// MethodAt with the classes the method comes from and its flags; the name alone is required. The
// same results.
Result Class_MethodAtExt(const ClassObject* object, std::uint32_t index, const char16_t** name,
                         QualifierSet* qualifiers, ParameterSet* parameters,
                         const char16_t** originClass, const char16_t** propagatorClass,
                         std::uint32_t* flags);

// The operations through the object's own table: RESULT_INVALID_PARAMETER for an empty object or
// table, else what the operation of that name gives.
Result Class_ClassNameOf(const ClassObject* object, const char16_t** name);
Result Class_NamespaceOf(const ClassObject* object, const char16_t** name);
Result Class_HostNameOf(const ClassObject* object, const char16_t** name);
Result Class_PropertyCountOf(const ClassObject* object, std::uint32_t* count);
Result Class_ReadProperty(const ClassObject* object, const char16_t* name, CimValue* value,
                          bool* present, std::uint32_t* type, const char16_t** referenceClass,
                          QualifierSet* qualifiers, std::uint32_t* flags, std::uint32_t* index);
Result Class_PropertyAt(const ClassObject* object, std::uint32_t index, const char16_t** name,
                        CimValue* value, bool* present, std::uint32_t* type,
                        const char16_t** referenceClass, QualifierSet* qualifiers,
                        std::uint32_t* flags);
Result Class_ClassQualifiers(const ClassObject* object, QualifierSet* qualifiers);
Result Class_MethodCountOf(const ClassObject* object, std::uint32_t* count);
Result Class_MethodAt(const ClassObject* object, std::uint32_t index, const char16_t** name,
                      QualifierSet* qualifiers, ParameterSet* parameters);
Result Class_FindMethod(const ClassObject* object, const char16_t* name, QualifierSet* qualifiers,
                        ParameterSet* parameters, std::uint32_t* index);
Result Class_SuperclassNameOf(const ClassObject* object, const char16_t** name);
Result Class_SuperclassOf(const ClassObject* object, ClassObject** superclass);
Result Class_Delete(ClassObject* object);
Result Class_Clone(ClassObject* object, ClassObject** clone);

}  // namespace stewardry::cim
