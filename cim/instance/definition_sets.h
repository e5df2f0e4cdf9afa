// Views of a definition's parameters and qualifiers, which the read operations of a class object
// build in the caller's memory. They own nothing and must not outlive the definition.
#pragma once

#include <cstdint>

#include "cim/instance/class_definitions.h"
#include "cim/memory/result.h"
#include "cim/value/values.h"

namespace stewardry::cim {

struct ParameterSetOps;
struct QualifierSetOps;

struct QualifierSet {
  std::uint64_t count;
  const QualifierDef* const* qualifiers;
  const QualifierSetOps* ops;
};

struct ParameterSet {
  std::uint64_t count;  // the return value included
  const ParameterDef* const* parameters;
  const ParameterSetOps* ops;
};

// The operations of a qualifier set, in the table's order. Each returns RESULT_OK, or
// RESULT_INVALID_PARAMETER for a null set, name or required out.
struct QualifierSetOps {
  // Stores the number of qualifiers.
  Result (*QualifierCountOf)(const QualifierSet* self, std::uint32_t* count);
  // Stores one qualifier. All outs are required. The texts and what the value points to stay the
  // definition's. Returns RESULT_NOT_FOUND for a wrong index.
  Result (*QualifierAt)(const QualifierSet* self, std::uint32_t index, const char16_t** name,
                        std::uint32_t* type, std::uint32_t* flavor, CimValue* value);
  // Finds the first qualifier of that name, ignoring case. The outs may be null. Returns
  // RESULT_NOT_FOUND for an unknown name.
  Result (*FindQualifier)(const QualifierSet* self, const char16_t* name, std::uint32_t* type,
                          std::uint32_t* flavor, CimValue* value, std::uint32_t* index);
};

// The operations of a parameter set, in the table's order. Each returns RESULT_OK, or
// RESULT_INVALID_PARAMETER for a null set, name or required out. Parameters are numbered from 0
// without the return value, whose name is not searched.
struct ParameterSetOps {
  // Stores the return value. Both outs are required. Returns RESULT_NOT_FOUND for an empty set.
  Result (*ReturnParameterOf)(const ParameterSet* self, std::uint32_t* type,
                              QualifierSet* qualifiers);
  // Stores the number of parameters without the return value, 0 for an empty set.
  Result (*ParameterCountOf)(const ParameterSet* self, std::uint32_t* count);
  // Stores one parameter. Only `referenceClass` may be null. Returns RESULT_NOT_FOUND for a wrong
  // index.
  Result (*ParameterAt)(const ParameterSet* self, std::uint32_t index, const char16_t** name,
                        std::uint32_t* type, const char16_t** referenceClass,
                        QualifierSet* qualifiers);
  // Finds the first parameter of that name, ignoring case. The outs may be null. Returns
  // RESULT_NOT_FOUND for an unknown name.
  Result (*FindParameter)(const ParameterSet* self, const char16_t* name, std::uint32_t* type,
                          const char16_t** referenceClass, QualifierSet* qualifiers,
                          std::uint32_t* index);
  // As ParameterAt, and stores the size limit and the flags. These two and `referenceClass` may be
  // null.
  Result (*ParameterAtExt)(const ParameterSet* self, std::uint32_t index, const char16_t** name,
                           std::uint32_t* type, std::uint32_t* maxSize,
                           const char16_t** referenceClass, QualifierSet* qualifiers,
                           std::uint32_t* flags);
};

static_assert(sizeof(QualifierSet) == 24 && sizeof(ParameterSet) == 24);
static_assert(sizeof(QualifierSetOps) == 3 * sizeof(void*));
static_assert(sizeof(ParameterSetOps) == 5 * sizeof(void*));

// The table of each kind.
extern const QualifierSetOps kQualifierSetOps;
extern const ParameterSetOps kParameterSetOps;

// Return a view of `count` definitions, and of a method's parameters.
QualifierSet QualifierSet_Of(const QualifierDef* const* qualifiers, std::uint32_t count);
ParameterSet ParameterSet_Of(const MethodDef* method);

// Call the operation of that name through the set's own table. Return RESULT_INVALID_PARAMETER for
// a null set or table, and otherwise what the operation returns.
Result QualifierSet_QualifierCountOf(const QualifierSet* set, std::uint32_t* count);
Result QualifierSet_QualifierAt(const QualifierSet* set, std::uint32_t index, const char16_t** name,
                                std::uint32_t* type, std::uint32_t* flavor, CimValue* value);
Result QualifierSet_FindQualifier(const QualifierSet* set, const char16_t* name,
                                  std::uint32_t* type, std::uint32_t* flavor, CimValue* value,
                                  std::uint32_t* index);
Result ParameterSet_ReturnParameterOf(const ParameterSet* set, std::uint32_t* type,
                                      QualifierSet* qualifiers);
Result ParameterSet_ParameterCountOf(const ParameterSet* set, std::uint32_t* count);
Result ParameterSet_ParameterAt(const ParameterSet* set, std::uint32_t index, const char16_t** name,
                                std::uint32_t* type, const char16_t** referenceClass,
                                QualifierSet* qualifiers);
Result ParameterSet_FindParameter(const ParameterSet* set, const char16_t* name,
                                  std::uint32_t* type, const char16_t** referenceClass,
                                  QualifierSet* qualifiers, std::uint32_t* index);
Result ParameterSet_ParameterAtExt(const ParameterSet* set, std::uint32_t index,
                                   const char16_t** name, std::uint32_t* type,
                                   std::uint32_t* maxSize, const char16_t** referenceClass,
                                   QualifierSet* qualifiers, std::uint32_t* flags);

}  // namespace stewardry::cim
