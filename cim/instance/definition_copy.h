// Copies definitions into a batch: the deep copy that a class object holds, and the shallow one
// that a dynamic instance extends. Each record is linked into its parent before it is filled: a
// copy whose allocation failed half-way can still be released as a whole.
#pragma once

#include <cstdint>

#include "cim/instance/class_definitions.h"
#include "cim/memory/batch.h"

namespace stewardry::cim {

// Returns a deep copy: texts, qualifiers, properties with their defaults, methods and the
// superclass, without `schema` and `owner`. A copied superclass whose source has an owner gets
// kOwnerDynamic. Call ClassDef_Release on the copy before the batch is destroyed. Returns null if
// allocation fails; what was copied stays in the batch.
ClassDef* ClassDef_Clone(Batch* batch, const ClassDef* def);

// Deletes the instances in the values of a deep copy, which releases their references on class
// objects. The memory stays the batch's. Ignores null.
void ClassDef_Release(const ClassDef* def);

// Returns a copy of a value in its stored form: a scalar's bytes, a cell with the pointer of a text
// or an instance, an ArrayValue with its elements. Returns null if allocation fails, for a null
// argument and for a type above 31.
void* Value_CloneCell(Batch* batch, std::uint32_t type, const void* value);

// Deletes the instances in a copied value. Ignores a null cell.
void Value_ReleaseCell(std::uint32_t type, const void* cell);

// Returns a definition that can grow with a dynamic instance: name, size and properties without
// defaults, `owner` kOwnerDynamic, `flags` 0, and an array with room for DynamicDef_Capacity
// properties. Accepts MethodDef_AsClass too. Returns null if allocation fails.
ClassDef* DynamicDef_Copy(const ClassDef* def, Batch* batch);

// Returns the number of properties for which the array and the body of a dynamic instance with
// `count` of them have room: 32, or the smallest power of two not below `count`.
std::uint64_t DynamicDef_Capacity(std::uint32_t count);

// Returns a new property with name, code, flags, type, offset and qualifiers; the rest is zeroed.
// `source` is the part that a property and a parameter have in common. Returns null if allocation
// fails.
PropertyDef* PropertyDef_CopyShallow(Batch* batch, const ParameterDef& source);

// Returns a new qualifier with name, type, flavor, and the value of a BOOLEAN. Returns null if
// allocation fails.
QualifierDef* QualifierDef_CopyShallow(Batch* batch, const QualifierDef* source);

}  // namespace stewardry::cim
