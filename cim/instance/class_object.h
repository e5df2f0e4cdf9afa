// The class object: the handle of a class, shared by counted references. One made by Class_FromDef
// holds a deep copy of a definition in a batch of its own, in which it lies itself. A view refers
// to a definition that something else owns, and owns nothing.
//
// Invariants:
// 1. `refs` is 0 for a view and at least 1 for a class object in use. No other field changes after
//    creation: any thread may read a class object that it holds a reference on.
// 2. The definition's `owner` is the class object's address: an instance of that definition
//    releases its reference through it.
// 3. Default values may hold instances, which may hold references on other class objects. They are
//    deleted before the batch is destroyed.
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
  const char16_t* namespaceName;  // or null
  const char16_t* hostName;       // or null
  Batch* batch;                   // holds everything of this object; null in a view
  std::atomic<std::uint64_t> refs;
};

// The operations of a class object, in the table's order. Each returns RESULT_OK, or
// RESULT_INVALID_PARAMETER for a null object or a null required out. Outs point into the
// definition: they are not to be freed and are valid as long as the class object exists.
struct ClassOps {
  // Store the class name, the name space and the host name, of which the last two may be null.
  Result (*ClassNameOf)(const ClassObject* self, const char16_t** name);
  Result (*NamespaceOf)(const ClassObject* self, const char16_t** name);
  Result (*HostNameOf)(const ClassObject* self, const char16_t** name);
  Result (*PropertyCountOf)(const ClassObject* self, std::uint32_t* count);
  // Finds the property by name, ignoring case, and continues as PropertyAt. The name is required,
  // the outs may be null. Returns RESULT_NO_SUCH_PROPERTY for an unknown name.
  Result (*ReadProperty)(const ClassObject* self, const char16_t* name, CimValue* value,
                         bool* present, std::uint32_t* type, const char16_t** referenceClass,
                         QualifierSet* qualifiers, std::uint32_t* flags, std::uint32_t* index);
  // Stores one property's definition and default. Every out may be null. Without a default
  // `present` is false and `value` zeroed. Returns RESULT_NO_SUCH_PROPERTY for a wrong index.
  Result (*PropertyAt)(const ClassObject* self, std::uint32_t index, const char16_t** name,
                       CimValue* value, bool* present, std::uint32_t* type,
                       const char16_t** referenceClass, QualifierSet* qualifiers,
                       std::uint32_t* flags);
  // Stores a view of the class' own qualifiers.
  Result (*ClassQualifiers)(const ClassObject* self, QualifierSet* qualifiers);
  Result (*MethodCountOf)(const ClassObject* self, std::uint32_t* count);
  // Stores one method's definition. Only `name` is required. Returns RESULT_METHOD_NOT_FOUND for a
  // wrong index.
  Result (*MethodAt)(const ClassObject* self, std::uint32_t index, const char16_t** name,
                     QualifierSet* qualifiers, ParameterSet* parameters);
  // Finds the method by name, ignoring case. The outs may be null. Returns RESULT_METHOD_NOT_FOUND
  // for an unknown name.
  Result (*FindMethod)(const ClassObject* self, const char16_t* name, QualifierSet* qualifiers,
                       ParameterSet* parameters, std::uint32_t* index);
  // Stores the superclass' name. Returns RESULT_INVALID_SUPERCLASS and stores null without one.
  Result (*SuperclassNameOf)(const ClassObject* self, const char16_t** name);
  // Always returns RESULT_FAILED. Use Class_Superclass.
  Result (*SuperclassOf)(const ClassObject* self, ClassObject** superclass);
  // Releases one reference; the last one frees the object. Does nothing for a view. Any thread.
  Result (*Delete)(ClassObject* self);
  // Adds a reference and stores the same object. Returns RESULT_FAILED for a view. Any thread.
  Result (*Clone)(ClassObject* self, ClassObject** clone);
};

static_assert(offsetof(ClassObject, def) == 8 && offsetof(ClassObject, namespaceName) == 16 &&
              offsetof(ClassObject, hostName) == 24 && offsetof(ClassObject, batch) == 32 &&
              offsetof(ClassObject, refs) == 40 && sizeof(ClassObject) == 48);
static_assert(sizeof(ClassOps) == 14 * sizeof(void*));

// The table of class objects.
extern const ClassOps kClassOps;

// Makes a class object with a deep copy of `def` and of both names, which may be null. The caller
// owns its one reference, to be released with Class_Delete. Returns RESULT_OK. Stores null and
// returns RESULT_INVALID_PARAMETER for a null definition or out, and RESULT_SERVER_LIMITS_EXCEEDED
// if allocation fails.
Result Class_FromDef(const ClassDef* def, const char16_t* namespaceName, const char16_t* hostName,
                     ClassObject** made);

// Makes a view of `def`, which must outlive it, in the caller's memory. Returns
// RESULT_INVALID_PARAMETER for a null argument.
Result Class_View(ClassObject* view, const ClassDef* def);

// Stores the definition's flags. Returns RESULT_INVALID_PARAMETER for a null argument.
Result Class_Flags(const ClassObject* object, std::uint32_t* flags);

// Makes a view of the superclass in the caller's memory. It must not outlive `object`. Returns
// RESULT_INVALID_SUPERCLASS without a superclass, RESULT_INVALID_PARAMETER for a null argument.
Result Class_Superclass(const ClassObject* object, ClassObject* view);

// As PropertyAt, and stores the size limit, the slot's offset and the classes the property comes
// from. Every out may be null.
Result Class_PropertyAtExt(const ClassObject* object, std::uint32_t index, const char16_t** name,
                           CimValue* value, bool* present, std::uint32_t* type,
                           const char16_t** referenceClass, QualifierSet* qualifiers,
                           std::uint32_t* flags, std::uint32_t* maxSize, std::uint32_t* offset,
                           const char16_t** originClass, const char16_t** propagatorClass);

// As MethodAt, and stores the classes the method comes from and its flags. Only `name` is required.
Result Class_MethodAtExt(const ClassObject* object, std::uint32_t index, const char16_t** name,
                         QualifierSet* qualifiers, ParameterSet* parameters,
                         const char16_t** originClass, const char16_t** propagatorClass,
                         std::uint32_t* flags);

// Call the operation of that name through the object's own table. Return RESULT_INVALID_PARAMETER
// for a null object or table, and otherwise what the operation returns.
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
