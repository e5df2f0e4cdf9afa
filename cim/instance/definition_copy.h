// Copies of definitions into a batch: the deep copy that a class object holds, and the shallow one
// that a dynamic instance grows. Records are linked into their parents before they are filled, so
// that a copy which memory cut short can still be released as a whole.
#pragma once

#include <cstdint>

#include "cim/instance/class_definitions.h"
#include "cim/memory/batch.h"

namespace stewardry::cim {

// A deep copy in the batch: texts, qualifiers, properties with their defaults, methods and the
// superclass, but for `schema` and `owner`. A copied superclass whose source had an owner gets
// kOwnerDynamic. Empty when memory fails; what was copied stays in the batch. `def` is not empty,
// and the copy ends with ClassDef_Release before its batch.
ClassDef* ClassDef_Clone(Batch* batch, const ClassDef* def);

// Deletes the instances that the values of a deep copy hold, which gives back their references on
// class objects. The memory stays the batch's. An empty definition is allowed.
void ClassDef_Release(const ClassDef* def);

// A copy in the batch of a value in its stored form: a scalar's bytes, a one-pointer cell for a
// text or an instance, an ArrayValue with its elements. Empty when memory fails, for an empty
// argument and for a type above 31.
void* Value_CloneCell(Batch* batch, std::uint32_t type, const void* value);

// Deletes the instances that a copied value holds. An empty cell is allowed.
void Value_ReleaseCell(std::uint32_t type, const void* cell);

// A definition that can grow with a dynamic instance: name, size and properties without defaults,
// `owner` kOwnerDynamic, `flags` 0, and an array with room for DynamicDef_Capacity properties.
// Takes a method's parameters too. Empty when memory fails.
ClassDef* DynamicDef_Copy(const ClassDef* def, Batch* batch);

// The number of properties that the array and the body of a dynamic instance with `count` of them
// have room for: 32, or the smallest power of two not below `count`.
std::uint64_t DynamicDef_Capacity(std::uint32_t count);

// A new property with name, code, flags, type, offset and qualifiers; the rest stays empty.
// `source` is the part that a property and a parameter have in common. Empty when memory fails.
PropertyDef* PropertyDef_CopyShallow(Batch* batch, const ParameterDef& source);

// A new qualifier with name, type and flavor, and the value of a BOOLEAN. Empty when memory fails.
QualifierDef* QualifierDef_CopyShallow(Batch* batch, const QualifierDef* source);

}  // namespace stewardry::cim
