#include "cim/instance/class_object.h"

#include <cassert>
#include <new>

#include "cim/instance/definition_copy.h"
#include "cim/instance/operations.h"
#include "cim/memory/arithmetic.h"

namespace stewardry::cim {
namespace {

const PropertyDef* PropertyOf(const ClassObject& self, std::uint32_t index) {
  return index < self.def->propertyCount ? self.def->properties[index] : nullptr;
}

QualifierSet QualifiersOf(const MethodDef& method) {
  return QualifierSet_Of(method.qualifiers, method.qualifierCount);
}

template <class Value>
Result StoreField(const ClassObject* self, Value* out, Value ClassDef::*field) {
  if (self == nullptr || out == nullptr) return RESULT_INVALID_PARAMETER;
  assert(self->def != nullptr);
  *out = self->def->*field;
  return RESULT_OK;
}

Result ClassNameOf(const ClassObject* self, const char16_t** name) {
  return StoreField(self, name, &ClassDef::name);
}

Result NamespaceOf(const ClassObject* self, const char16_t** name) {
  if (self == nullptr || name == nullptr) return RESULT_INVALID_PARAMETER;
  *name = self->namespaceName;
  return RESULT_OK;
}

Result HostNameOf(const ClassObject* self, const char16_t** name) {
  if (self == nullptr || name == nullptr) return RESULT_INVALID_PARAMETER;
  *name = self->hostName;
  return RESULT_OK;
}

Result PropertyCountOf(const ClassObject* self, std::uint32_t* count) {
  return StoreField(self, count, &ClassDef::propertyCount);
}

Result PropertyAt(const ClassObject* self, std::uint32_t index, const char16_t** name,
                  CimValue* value, bool* present, std::uint32_t* type,
                  const char16_t** referenceClass, QualifierSet* qualifiers, std::uint32_t* flags) {
  if (self == nullptr) return RESULT_INVALID_PARAMETER;
  const PropertyDef* property = PropertyOf(*self, index);
  if (property == nullptr) return RESULT_NO_SUCH_PROPERTY;
  StoreOut(name, property->name);
  if (value != nullptr) CimValue_FromRaw(property->type, property->value, value);
  StoreOut(present, property->value != nullptr);
  StoreOut(type, property->type);
  StoreOut(referenceClass, property->referenceClass);
  StoreOut(qualifiers, QualifierSet_Of(property->qualifiers, property->qualifierCount));
  StoreOut(flags, property->flags);
  return RESULT_OK;
}

Result ReadProperty(const ClassObject* self, const char16_t* name, CimValue* value, bool* present,
                    std::uint32_t* type, const char16_t** referenceClass, QualifierSet* qualifiers,
                    std::uint32_t* flags, std::uint32_t* index) {
  if (self == nullptr || name == nullptr) return RESULT_INVALID_PARAMETER;
  const std::int64_t found = ClassDef_FindProperty(self->def, name);
  if (found == kNoIndex) return RESULT_NO_SUCH_PROPERTY;
  StoreOut(index, static_cast<std::uint32_t>(found));
  return PropertyAt(self, static_cast<std::uint32_t>(found), nullptr, value, present, type,
                    referenceClass, qualifiers, flags);
}

Result ClassQualifiers(const ClassObject* self, QualifierSet* qualifiers) {
  if (self == nullptr || qualifiers == nullptr) return RESULT_INVALID_PARAMETER;
  *qualifiers = QualifierSet_Of(self->def->qualifiers, self->def->qualifierCount);
  return RESULT_OK;
}

Result MethodCountOf(const ClassObject* self, std::uint32_t* count) {
  return StoreField(self, count, &ClassDef::methodCount);
}

Result MethodAt(const ClassObject* self, std::uint32_t index, const char16_t** name,
                QualifierSet* qualifiers, ParameterSet* parameters) {
  if (self == nullptr || name == nullptr) return RESULT_INVALID_PARAMETER;
  if (index >= self->def->methodCount) return RESULT_METHOD_NOT_FOUND;
  const MethodDef& method = *self->def->methods[index];
  *name = method.name;
  StoreOut(qualifiers, QualifiersOf(method));
  StoreOut(parameters, ParameterSet_Of(&method));
  return RESULT_OK;
}

Result FindMethod(const ClassObject* self, const char16_t* name, QualifierSet* qualifiers,
                  ParameterSet* parameters, std::uint32_t* index) {
  if (self == nullptr || name == nullptr) return RESULT_INVALID_PARAMETER;
  const std::int64_t found = Names_Find(self->def->methods, self->def->methodCount, name);
  if (found == kNoIndex) return RESULT_METHOD_NOT_FOUND;
  const MethodDef& method = *self->def->methods[found];
  StoreOut(qualifiers, QualifiersOf(method));
  StoreOut(parameters, ParameterSet_Of(&method));
  StoreOut(index, static_cast<std::uint32_t>(found));
  return RESULT_OK;
}

Result SuperclassNameOf(const ClassObject* self, const char16_t** name) {
  const Result result = StoreField(self, name, &ClassDef::superclassName);
  if (result != RESULT_OK) return result;
  return *name == nullptr ? RESULT_INVALID_SUPERCLASS : RESULT_OK;
}

Result SuperclassOf(const ClassObject*, ClassObject**) { return RESULT_FAILED; }

Result Delete(ClassObject* self) {
  if (self == nullptr) return RESULT_INVALID_PARAMETER;
  if (self->refs.load(std::memory_order_relaxed) == 0) return RESULT_OK;  // a view never changes
  const std::uint64_t refs = Atomic_Dec(&self->refs);
  assert(refs != UINT64_MAX);
  if (refs != 0 || self->batch == nullptr) return RESULT_OK;
  ClassDef_Release(self->def);
  Batch_Destroy(self->batch);  // the object lies in it
  return RESULT_OK;
}

Result Clone(ClassObject* self, ClassObject** clone) {
  if (self == nullptr || clone == nullptr) return RESULT_INVALID_PARAMETER;
  if (self->refs.load(std::memory_order_relaxed) == 0) return RESULT_FAILED;
  [[maybe_unused]] const std::uint64_t refs = Atomic_Inc(&self->refs);
  assert(refs > 1);
  *clone = self;
  return RESULT_OK;
}

// Makes a class object in `batch` with one reference. Returns null if allocation fails.
ClassObject* BuildIn(Batch* batch, const ClassDef* def, const char16_t* namespaceName,
                     const char16_t* hostName) {
  void* block = Batch_AllocZero(batch, sizeof(ClassObject));
  if (block == nullptr) return nullptr;
  auto* made = new (block) ClassObject{&kClassOps, nullptr, nullptr, nullptr, batch, {1}};
  if (!CopyOptionalText(batch, namespaceName, &made->namespaceName)) return nullptr;
  if (!CopyOptionalText(batch, hostName, &made->hostName)) return nullptr;
  ClassDef* copy = ClassDef_Clone(batch, def);
  if (copy == nullptr) return nullptr;
  copy->owner = reinterpret_cast<std::uintptr_t>(made);
  made->def = copy;
  return made;
}

}  // namespace

const ClassOps kClassOps = {
    ClassNameOf,      NamespaceOf,     HostNameOf,    PropertyCountOf, ReadProperty,
    PropertyAt,       ClassQualifiers, MethodCountOf, MethodAt,        FindMethod,
    SuperclassNameOf, SuperclassOf,    Delete,        Clone,
};

Result Class_FromDef(const ClassDef* def, const char16_t* namespaceName, const char16_t* hostName,
                     ClassObject** made) {
  if (made == nullptr) return RESULT_INVALID_PARAMETER;
  *made = nullptr;
  if (def == nullptr) return RESULT_INVALID_PARAMETER;
  Batch* batch = Batch_Create(kNoPageLimit);
  if (batch == nullptr) return RESULT_SERVER_LIMITS_EXCEEDED;
  *made = BuildIn(batch, def, namespaceName, hostName);
  if (*made != nullptr) return RESULT_OK;
  Batch_Destroy(batch);
  return RESULT_SERVER_LIMITS_EXCEEDED;
}

Result Class_View(ClassObject* view, const ClassDef* def) {
  if (view == nullptr || def == nullptr) return RESULT_INVALID_PARAMETER;
  new (view) ClassObject{&kClassOps, def, nullptr, nullptr, nullptr, {0}};
  return RESULT_OK;
}

Result Class_Flags(const ClassObject* object, std::uint32_t* flags) {
  return StoreField(object, flags, &ClassDef::flags);
}

Result Class_Superclass(const ClassObject* object, ClassObject* view) {
  if (object == nullptr || view == nullptr) return RESULT_INVALID_PARAMETER;
  const ClassDef* superclass = object->def->superclass;
  return superclass == nullptr ? RESULT_INVALID_SUPERCLASS : Class_View(view, superclass);
}

Result Class_PropertyAtExt(const ClassObject* object, std::uint32_t index, const char16_t** name,
                           CimValue* value, bool* present, std::uint32_t* type,
                           const char16_t** referenceClass, QualifierSet* qualifiers,
                           std::uint32_t* flags, std::uint32_t* maxSize, std::uint32_t* offset,
                           const char16_t** originClass, const char16_t** propagatorClass) {
  const Result result =
      PropertyAt(object, index, name, value, present, type, referenceClass, qualifiers, flags);
  if (result != RESULT_OK) return result;
  const PropertyDef* property = PropertyOf(*object, index);
  StoreOut(maxSize, property->maxSize);
  StoreOut(offset, property->offset);
  StoreOut(originClass, property->originClass);
  StoreOut(propagatorClass, property->propagatorClass);
  return RESULT_OK;
}

Result Class_MethodAtExt(const ClassObject* object, std::uint32_t index, const char16_t** name,
                         QualifierSet* qualifiers, ParameterSet* parameters,
                         const char16_t** originClass, const char16_t** propagatorClass,
                         std::uint32_t* flags) {
  const Result result = MethodAt(object, index, name, qualifiers, parameters);
  if (result != RESULT_OK) return result;
  const MethodDef& method = *object->def->methods[index];
  StoreOut(originClass, method.originClass);
  StoreOut(propagatorClass, method.propagatorClass);
  StoreOut(flags, method.flags);
  return RESULT_OK;
}

Result Class_ClassNameOf(const ClassObject* object, const char16_t** name) {
  return CallThroughTable(object, &ClassOps::ClassNameOf, name);
}

Result Class_NamespaceOf(const ClassObject* object, const char16_t** name) {
  return CallThroughTable(object, &ClassOps::NamespaceOf, name);
}

Result Class_HostNameOf(const ClassObject* object, const char16_t** name) {
  return CallThroughTable(object, &ClassOps::HostNameOf, name);
}

Result Class_PropertyCountOf(const ClassObject* object, std::uint32_t* count) {
  return CallThroughTable(object, &ClassOps::PropertyCountOf, count);
}

Result Class_ReadProperty(const ClassObject* object, const char16_t* name, CimValue* value,
                          bool* present, std::uint32_t* type, const char16_t** referenceClass,
                          QualifierSet* qualifiers, std::uint32_t* flags, std::uint32_t* index) {
  return CallThroughTable(object, &ClassOps::ReadProperty, name, value, present, type,
                          referenceClass, qualifiers, flags, index);
}

Result Class_PropertyAt(const ClassObject* object, std::uint32_t index, const char16_t** name,
                        CimValue* value, bool* present, std::uint32_t* type,
                        const char16_t** referenceClass, QualifierSet* qualifiers,
                        std::uint32_t* flags) {
  return CallThroughTable(object, &ClassOps::PropertyAt, index, name, value, present, type,
                          referenceClass, qualifiers, flags);
}

Result Class_ClassQualifiers(const ClassObject* object, QualifierSet* qualifiers) {
  return CallThroughTable(object, &ClassOps::ClassQualifiers, qualifiers);
}

Result Class_MethodCountOf(const ClassObject* object, std::uint32_t* count) {
  return CallThroughTable(object, &ClassOps::MethodCountOf, count);
}

Result Class_MethodAt(const ClassObject* object, std::uint32_t index, const char16_t** name,
                      QualifierSet* qualifiers, ParameterSet* parameters) {
  return CallThroughTable(object, &ClassOps::MethodAt, index, name, qualifiers, parameters);
}

Result Class_FindMethod(const ClassObject* object, const char16_t* name, QualifierSet* qualifiers,
                        ParameterSet* parameters, std::uint32_t* index) {
  return CallThroughTable(object, &ClassOps::FindMethod, name, qualifiers, parameters, index);
}

Result Class_SuperclassNameOf(const ClassObject* object, const char16_t** name) {
  return CallThroughTable(object, &ClassOps::SuperclassNameOf, name);
}

Result Class_SuperclassOf(const ClassObject* object, ClassObject** superclass) {
  return CallThroughTable(object, &ClassOps::SuperclassOf, superclass);
}

Result Class_Delete(ClassObject* object) { return CallThroughTable(object, &ClassOps::Delete); }

Result Class_Clone(ClassObject* object, ClassObject** clone) {
  return CallThroughTable(object, &ClassOps::Clone, clone);
}

}  // namespace stewardry::cim
