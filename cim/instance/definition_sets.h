// Views of a definition's parameters and qualifiers, built in the caller's memory by the reads of a
// class object. They own nothing: what they show lives and ends with the definition.
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

// The operations of a qualifier set, in the table's order. Each gives RESULT_INVALID_PARAMETER for
// an empty set, name or required out pointer.
struct QualifierSetOps {
  // The number of qualifiers.
  Result (*QualifierCountOf)(const QualifierSet* self, std::uint32_t* count);
  // One qualifier; all outs are required. The texts and what the value points to stay the
  // definition's. RESULT_NOT_FOUND at or past the count.
  Result (*QualifierAt)(const QualifierSet* self, std::uint32_t index, const char16_t** name,
                        std::uint32_t* type, std::uint32_t* flavor, CimValue* value);
  // The first qualifier of that name, ignoring case; the outs may be empty. RESULT_NOT_FOUND.
  Result (*FindQualifier)(const QualifierSet* self, const char16_t* name, std::uint32_t* type,
                          std::uint32_t* flavor, CimValue* value, std::uint32_t* index);
};

// The operations of a parameter set, in the table's order. Each gives RESULT_INVALID_PARAMETER for
// an empty set, name or required out pointer. Parameters are numbered from 0 without the return
// value, whose name no search finds.
struct ParameterSetOps {
  // The return value; both outs are required. RESULT_NOT_FOUND for a set without one.
  Result (*ReturnParameterOf)(const ParameterSet* self, std::uint32_t* type,
                              QualifierSet* qualifiers);
  // The number of parameters, 0 for an empty set.
  Result (*ParameterCountOf)(const ParameterSet* self, std::uint32_t* count);
  // One parameter; `referenceClass` may be empty. RESULT_NOT_FOUND past the end.
  Result (*ParameterAt)(const ParameterSet* self, std::uint32_t index, const char16_t** name,
                        std::uint32_t* type, const char16_t** referenceClass,
                        QualifierSet* qualifiers);
  // The first parameter of that name, ignoring case; the outs may be empty. RESULT_NOT_FOUND.
  Result (*FindParameter)(const ParameterSet* self, const char16_t* name, std::uint32_t* type,
                          const char16_t** referenceClass, QualifierSet* qualifiers,
                          std::uint32_t* index);
  // ParameterAt with the size limit and the flags; these two and `referenceClass` may be empty.
  Result (*ParameterAtExt)(const ParameterSet* self, std::uint32_t index, const char16_t** name,
                           std::uint32_t* type, std::uint32_t* maxSize,
                           const char16_t** referenceClass, QualifierSet* qualifiers,
                           std::uint32_t* flags);
};

static_assert(sizeof(QualifierSet) == 24 && sizeof(ParameterSet) == 24);
static_assert(sizeof(QualifierSetOps) == 3 * sizeof(void*));
static_assert(sizeof(ParameterSetOps) == 5 * sizeof(void*));

// The one table of each kind.
extern const QualifierSetOps kQualifierSetOps;
extern const ParameterSetOps kParameterSetOps;

// A view of `count` definitions.
QualifierSet QualifierSet_Of(const QualifierDef* const* qualifiers, std::uint32_t count);
ParameterSet ParameterSet_Of(const MethodDef* method);

// The operations through the set's own table: RESULT_INVALID_PARAMETER for an empty set or table,
// else what the operation of that name gives.
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
