#include "cim/instance/definition_sets.h"

#include <cassert>

#include "cim/instance/operations.h"
#include "cim/value/names.h"

namespace stewardry::cim {
namespace {

Result QualifierCountOf(const QualifierSet* self, std::uint32_t* count) {
  if (self == nullptr || count == nullptr) return RESULT_INVALID_PARAMETER;
  *count = static_cast<std::uint32_t>(self->count);
  return RESULT_OK;
}

Result QualifierAt(const QualifierSet* self, std::uint32_t index, const char16_t** name,
                   std::uint32_t* type, std::uint32_t* flavor, CimValue* value) {
  if (self == nullptr || name == nullptr || type == nullptr) return RESULT_INVALID_PARAMETER;
  if (flavor == nullptr || value == nullptr) return RESULT_INVALID_PARAMETER;
  if (index >= self->count) return RESULT_NOT_FOUND;
  const QualifierDef& qualifier = *self->qualifiers[index];
  *name = qualifier.name;
  *type = qualifier.type;
  *flavor = qualifier.flavor;
  CimValue_FromRaw(qualifier.type, qualifier.value, value);
  return RESULT_OK;
}

Result FindQualifier(const QualifierSet* self, const char16_t* name, std::uint32_t* type,
                     std::uint32_t* flavor, CimValue* value, std::uint32_t* index) {
  if (self == nullptr || name == nullptr) return RESULT_INVALID_PARAMETER;
  for (std::uint32_t i = 0; i < self->count; ++i) {
    const QualifierDef& qualifier = *self->qualifiers[i];
    if (qualifier.name == nullptr || !Name_Equal(qualifier.name, name)) continue;
    StoreOut(type, qualifier.type);
    StoreOut(flavor, qualifier.flavor);
    if (value != nullptr) CimValue_FromRaw(qualifier.type, qualifier.value, value);
    StoreOut(index, i);
    return RESULT_OK;
  }
  return RESULT_NOT_FOUND;
}

QualifierSet QualifiersOf(const ParameterDef& parameter) {
  return QualifierSet_Of(parameter.qualifiers, parameter.qualifierCount);
}

// Element 0 is the return value.
std::uint32_t CountWithoutReturn(const ParameterSet& set) {
  return set.count == 0 ? 0 : static_cast<std::uint32_t>(set.count - 1);
}

Result ReturnParameterOf(const ParameterSet* self, std::uint32_t* type, QualifierSet* qualifiers) {
  if (self == nullptr || type == nullptr || qualifiers == nullptr) return RESULT_INVALID_PARAMETER;
  if (self->count == 0) return RESULT_NOT_FOUND;
  *type = self->parameters[0]->type;
  *qualifiers = QualifiersOf(*self->parameters[0]);
  return RESULT_OK;
}

Result ParameterCountOf(const ParameterSet* self, std::uint32_t* count) {
  if (self == nullptr || count == nullptr) return RESULT_INVALID_PARAMETER;
  *count = CountWithoutReturn(*self);
  return RESULT_OK;
}

Result ParameterAtExt(const ParameterSet* self, std::uint32_t index, const char16_t** name,
                      std::uint32_t* type, std::uint32_t* maxSize, const char16_t** referenceClass,
                      QualifierSet* qualifiers, std::uint32_t* flags) {
  if (self == nullptr || name == nullptr) return RESULT_INVALID_PARAMETER;
  if (type == nullptr || qualifiers == nullptr) return RESULT_INVALID_PARAMETER;
  if (index >= CountWithoutReturn(*self)) return RESULT_NOT_FOUND;
  const ParameterDef& parameter = *self->parameters[index + 1];
  *name = parameter.name;
  *type = parameter.type;
  StoreOut(maxSize, parameter.maxSize);
  StoreOut(referenceClass, parameter.referenceClass);
  *qualifiers = QualifiersOf(parameter);
  StoreOut(flags, parameter.flags);
  return RESULT_OK;
}

Result ParameterAt(const ParameterSet* self, std::uint32_t index, const char16_t** name,
                   std::uint32_t* type, const char16_t** referenceClass, QualifierSet* qualifiers) {
  return ParameterAtExt(self, index, name, type, nullptr, referenceClass, qualifiers, nullptr);
}

Result FindParameter(const ParameterSet* self, const char16_t* name, std::uint32_t* type,
                     const char16_t** referenceClass, QualifierSet* qualifiers,
                     std::uint32_t* index) {
  if (self == nullptr || name == nullptr) return RESULT_INVALID_PARAMETER;
  const std::int64_t found = Names_FindFrom(
      self->parameters, 1, static_cast<std::uint32_t>(self->count), name, Name_Code(name));
  if (found == kNoIndex) return RESULT_NOT_FOUND;
  const ParameterDef& parameter = *self->parameters[found];
  StoreOut(type, parameter.type);
  StoreOut(referenceClass, parameter.referenceClass);
  StoreOut(qualifiers, QualifiersOf(parameter));
  StoreOut(index, static_cast<std::uint32_t>(found - 1));
  return RESULT_OK;
}

}  // namespace

const QualifierSetOps kQualifierSetOps = {QualifierCountOf, QualifierAt, FindQualifier};
const ParameterSetOps kParameterSetOps = {ReturnParameterOf, ParameterCountOf, ParameterAt,
                                          FindParameter, ParameterAtExt};

QualifierSet QualifierSet_Of(const QualifierDef* const* qualifiers, std::uint32_t count) {
  assert(count == 0 || qualifiers != nullptr);
  return {count, qualifiers, &kQualifierSetOps};
}

ParameterSet ParameterSet_Of(const MethodDef* method) {
  assert(method->parameterCount == 0 || method->parameters != nullptr);
  return {method->parameterCount, method->parameters, &kParameterSetOps};
}

Result QualifierSet_QualifierCountOf(const QualifierSet* set, std::uint32_t* count) {
  return CallThroughTable(set, &QualifierSetOps::QualifierCountOf, count);
}

Result QualifierSet_QualifierAt(const QualifierSet* set, std::uint32_t index, const char16_t** name,
                                std::uint32_t* type, std::uint32_t* flavor, CimValue* value) {
  return CallThroughTable(set, &QualifierSetOps::QualifierAt, index, name, type, flavor, value);
}

Result QualifierSet_FindQualifier(const QualifierSet* set, const char16_t* name,
                                  std::uint32_t* type, std::uint32_t* flavor, CimValue* value,
                                  std::uint32_t* index) {
  return CallThroughTable(set, &QualifierSetOps::FindQualifier, name, type, flavor, value, index);
}

Result ParameterSet_ReturnParameterOf(const ParameterSet* set, std::uint32_t* type,
                                      QualifierSet* qualifiers) {
  return CallThroughTable(set, &ParameterSetOps::ReturnParameterOf, type, qualifiers);
}

Result ParameterSet_ParameterCountOf(const ParameterSet* set, std::uint32_t* count) {
  return CallThroughTable(set, &ParameterSetOps::ParameterCountOf, count);
}

Result ParameterSet_ParameterAt(const ParameterSet* set, std::uint32_t index, const char16_t** name,
                                std::uint32_t* type, const char16_t** referenceClass,
                                QualifierSet* qualifiers) {
  return CallThroughTable(set, &ParameterSetOps::ParameterAt, index, name, type, referenceClass,
                          qualifiers);
}

Result ParameterSet_FindParameter(const ParameterSet* set, const char16_t* name,
                                  std::uint32_t* type, const char16_t** referenceClass,
                                  QualifierSet* qualifiers, std::uint32_t* index) {
  return CallThroughTable(set, &ParameterSetOps::FindParameter, name, type, referenceClass,
                          qualifiers, index);
}

Result ParameterSet_ParameterAtExt(const ParameterSet* set, std::uint32_t index,
                                   const char16_t** name, std::uint32_t* type,
                                   std::uint32_t* maxSize, const char16_t** referenceClass,
                                   QualifierSet* qualifiers, std::uint32_t* flags) {
  return CallThroughTable(set, &ParameterSetOps::ParameterAtExt, index, name, type, maxSize,
                          referenceClass, qualifiers, flags);
}

}  // namespace stewardry::cim
