// The records that describe a class: its properties, methods, parameters and qualifiers. A schema
// is constant data, a class object holds a deep copy, and a dynamic instance grows records of its
// own. The first two are read-only while in use; any thread may read them.
//
// Invariants:
// 1. The layout is fixed (64-bit, little-endian): other tools may generate schemas.
// 2. ClassDef and MethodDef agree up to `size`, PropertyDef and ParameterDef up to `offset`. An
//    instance of a method's parameters is laid out through that common part alone.
// 3. `nameCode` is Name_Code of `name`; a search compares it first.
// 4. Arrays are arrays of pointers. A pointer and its count are both set, or null and 0.
// 5. An `offset` is a multiple of CimType_Alignment of the type, and the slot ends within `size`.
#pragma once

#include <cstddef>
#include <cstdint>

#include "cim/value/names.h"
#include "cim/value/values.h"

namespace stewardry::cim {

struct ClassDef;
struct MethodDef;
struct SchemaDef;

// The common head of every definition except a qualifier.
struct DefinitionHead {
  std::uint32_t flags = 0;  // element flags, FLAG_...
  std::uint32_t nameCode = 0;
  const char16_t* name = nullptr;
};

struct QualifierDef {
  const char16_t* name = nullptr;
  std::uint32_t type = 0;       // CIM type code
  std::uint32_t flavor = 0;     // bits that the schema defines, see Qualifier_IsListed
  const void* value = nullptr;  // the value in its stored form, or null
};

struct ParameterDef {
  std::uint32_t flags = 0;
  std::uint32_t nameCode = 0;
  const char16_t* name = nullptr;
  const QualifierDef* const* qualifiers = nullptr;
  std::uint32_t qualifierCount = 0;
  std::uint32_t type = 0;  // CIM type code
  const char16_t* referenceClass = nullptr;
  std::uint32_t maxSize = 0;
  std::uint32_t offset = 0;  // bytes from the body's start to the value slot
};

struct PropertyDef {
  std::uint32_t flags = 0;  // FLAG_KEY marks a key
  std::uint32_t nameCode = 0;
  const char16_t* name = nullptr;
  const QualifierDef* const* qualifiers = nullptr;
  std::uint32_t qualifierCount = 0;
  std::uint32_t type = 0;  // CIM type code
  const char16_t* referenceClass = nullptr;
  std::uint32_t maxSize = 0;
  std::uint32_t offset = 0;  // bytes from the body's start to the value slot
  const char16_t* originClass = nullptr;
  const char16_t* propagatorClass = nullptr;
  // The default in its stored form, or null: a scalar in place, for a STRING, REFERENCE or INSTANCE
  // the address of the pointer, for an array an ArrayValue.
  const void* value = nullptr;
};

struct MethodDef {
  std::uint32_t flags = 0;  // FLAG_METHOD
  std::uint32_t nameCode = 0;
  const char16_t* name = nullptr;
  const QualifierDef* const* qualifiers = nullptr;
  std::uint32_t qualifierCount = 0;
  const ParameterDef* const* parameters = nullptr;  // element 0 describes the return value
  std::uint32_t parameterCount = 0;                 // the return value included
  std::uint32_t size = 0;  // bytes of an instance of the parameters, head included
  std::uint32_t returnType = 0;
  const char16_t* originClass = nullptr;
  const char16_t* propagatorClass = nullptr;
  const SchemaDef* schema = nullptr;  // null in copies
  std::uintptr_t invoke = 0;          // defined by the schema, copied unchanged
};

struct ClassDef {
  std::uint32_t flags = 0;  // the kind of class: FLAG_CLASS, FLAG_KIND_10 or FLAG_KIND_20
  std::uint32_t nameCode = 0;
  const char16_t* name = nullptr;
  const QualifierDef* const* qualifiers = nullptr;
  std::uint32_t qualifierCount = 0;
  const PropertyDef* const* properties = nullptr;  // in slot order
  std::uint32_t propertyCount = 0;
  std::uint32_t size = 0;  // bytes of an instance, its 64 bytes of head included
  const char16_t* superclassName = nullptr;
  const ClassDef* superclass = nullptr;
  const MethodDef* const* methods = nullptr;
  std::uint32_t methodCount = 0;
  const SchemaDef* schema = nullptr;  // null in copies
  std::uintptr_t extension = 0;       // defined by the schema, copied unchanged
  std::uintptr_t owner = 0;  // kOwnerNone, kOwnerDynamic, or the address of the ClassObject
};

// The part of a schema that the library reads.
struct SchemaDef {
  const ClassDef* const* classes = nullptr;
  std::uint32_t classCount = 0;
  // A second array, of records that begin with a DefinitionHead.
  const DefinitionHead* const* seconds = nullptr;
  std::uint32_t secondCount = 0;
};

// `owner` of a static or deep-copied definition.
constexpr std::uintptr_t kOwnerNone = 0;
// `owner` of a dynamic instance's definition, and of a superclass that was copied along.
constexpr std::uintptr_t kOwnerDynamic = ~std::uintptr_t{0};
// A definition with one of these flags is a class.
constexpr std::uint32_t kClassKinds = FLAG_CLASS | FLAG_KIND_10 | FLAG_KIND_20;

// Returns the index in `properties` of the first property with that name, ignoring case, or
// kNoIndex. Returns kNoIndex for a null argument and an empty name.
std::int64_t ClassDef_FindProperty(const ClassDef* def, const char16_t* name);

// Returns that property, or null.
const PropertyDef* ClassDef_GetProperty(const ClassDef* def, const char16_t* name);

// Returns the method in the form of a class whose properties are the parameters, the return value
// first. Only calls that name it in their contract accept the result; fields after `size` must not
// be read.
const ClassDef* MethodDef_AsClass(const MethodDef* method);

// Returns the part that a class and a method have in common, up to `size`, for a `def` that may be
// either. The rest is zeroed. `properties` may hold ParameterDefs: read each entry with
// PropertyDef_CommonPart.
ClassDef ClassDef_CommonPart(const ClassDef* def);

// Returns entry `index` of such an array, up to `offset`.
ParameterDef PropertyDef_CommonPart(const PropertyDef* const* properties, std::uint32_t index);

// Returns the schema's class of that name, ignoring case, or null. Returns null for a null
// argument.
const ClassDef* Schema_FindClass(const SchemaDef* schema, const char16_t* name);

// Returns the record of that name in the schema's second array, or null.
const DefinitionHead* Schema_FindSecond(const SchemaDef* schema, const char16_t* name);

// Returns true for a qualifier whose flavor has bit 0x400 and whose name, ignoring case, is
// "Abstract", "Deprecated", "Experimental", "Override", "Version" or "ClassVersion".
bool Qualifier_IsListed(const QualifierDef* qualifier);

static_assert(sizeof(DefinitionHead) == 16 && sizeof(QualifierDef) == 24);
static_assert(offsetof(QualifierDef, type) == 8 && offsetof(QualifierDef, flavor) == 12 &&
              offsetof(QualifierDef, value) == 16);
static_assert(offsetof(ParameterDef, nameCode) == 4 && offsetof(ParameterDef, name) == 8 &&
              offsetof(ParameterDef, qualifiers) == 16 &&
              offsetof(ParameterDef, qualifierCount) == 24 && offsetof(ParameterDef, type) == 28 &&
              offsetof(ParameterDef, referenceClass) == 32 &&
              offsetof(ParameterDef, maxSize) == 40 && offsetof(ParameterDef, offset) == 44 &&
              sizeof(ParameterDef) == 48);
static_assert(offsetof(PropertyDef, nameCode) == 4 && offsetof(PropertyDef, name) == 8 &&
              offsetof(PropertyDef, qualifiers) == 16 &&
              offsetof(PropertyDef, qualifierCount) == 24 && offsetof(PropertyDef, type) == 28 &&
              offsetof(PropertyDef, referenceClass) == 32 && offsetof(PropertyDef, maxSize) == 40 &&
              offsetof(PropertyDef, offset) == 44 && offsetof(PropertyDef, originClass) == 48 &&
              offsetof(PropertyDef, propagatorClass) == 56 && offsetof(PropertyDef, value) == 64 &&
              sizeof(PropertyDef) == 72);
static_assert(offsetof(MethodDef, nameCode) == 4 && offsetof(MethodDef, name) == 8 &&
              offsetof(MethodDef, qualifiers) == 16 && offsetof(MethodDef, qualifierCount) == 24 &&
              offsetof(MethodDef, parameters) == 32 && offsetof(MethodDef, parameterCount) == 40 &&
              offsetof(MethodDef, size) == 44 && offsetof(MethodDef, returnType) == 48 &&
              offsetof(MethodDef, originClass) == 56 &&
              offsetof(MethodDef, propagatorClass) == 64 && offsetof(MethodDef, schema) == 72 &&
              offsetof(MethodDef, invoke) == 80 && sizeof(MethodDef) == 88);
static_assert(offsetof(ClassDef, nameCode) == 4 && offsetof(ClassDef, name) == 8 &&
              offsetof(ClassDef, qualifiers) == 16 && offsetof(ClassDef, qualifierCount) == 24 &&
              offsetof(ClassDef, properties) == 32 && offsetof(ClassDef, propertyCount) == 40 &&
              offsetof(ClassDef, size) == 44 && offsetof(ClassDef, superclassName) == 48 &&
              offsetof(ClassDef, superclass) == 56 && offsetof(ClassDef, methods) == 64 &&
              offsetof(ClassDef, methodCount) == 72 && offsetof(ClassDef, schema) == 80 &&
              offsetof(ClassDef, extension) == 88 && offsetof(ClassDef, owner) == 96 &&
              sizeof(ClassDef) == 104);

}  // namespace stewardry::cim
