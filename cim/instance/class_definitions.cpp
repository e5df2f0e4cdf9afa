#include "cim/instance/class_definitions.h"

#include <algorithm>
#include <array>
#include <cassert>
#include <cstring>

#include "cim/instance/property_table.h"

namespace stewardry::cim {
namespace {

constexpr std::uint32_t kListedFlavor = 0x400;

template <class Definition>
const Definition* FindByName(const Definition* const* definitions, std::uint32_t count,
                             const char16_t* name) {
  const std::int64_t index = Names_Find(definitions, count, name);
  return index == kNoIndex ? nullptr : definitions[index];
}

}  // namespace

std::int64_t ClassDef_FindProperty(const ClassDef* def, const char16_t* name) {
  if (def == nullptr) return kNoIndex;
  if (PropertyTable_HasTags(*def))
    return PropertyTable_Find(def->properties, def->propertyCount, name);
  return Names_Find(def->properties, def->propertyCount, name);
}

const PropertyDef* ClassDef_GetProperty(const ClassDef* def, const char16_t* name) {
  const std::int64_t index = ClassDef_FindProperty(def, name);
  return index == kNoIndex ? nullptr : def->properties[index];
}

const ClassDef* MethodDef_AsClass(const MethodDef* method) {
  return reinterpret_cast<const ClassDef*>(method);
}

// Both readers copy bytes, since the record may be of the other type.

ClassDef ClassDef_CommonPart(const ClassDef* def) {
  static_assert(offsetof(ClassDef, superclassName) == offsetof(MethodDef, returnType));
  assert(def != nullptr);
  ClassDef part{};
  std::memcpy(static_cast<void*>(&part), static_cast<const void*>(def),
              offsetof(ClassDef, superclassName));
  return part;
}

ParameterDef PropertyDef_CommonPart(const PropertyDef* const* properties, std::uint32_t index) {
  static_assert(sizeof(ParameterDef) == offsetof(PropertyDef, originClass));
  assert(properties != nullptr);
  const void* entry = nullptr;
  std::memcpy(&entry, properties + index, sizeof entry);
  assert(entry != nullptr);
  ParameterDef part{};
  std::memcpy(&part, entry, sizeof part);
  return part;
}

const ClassDef* Schema_FindClass(const SchemaDef* schema, const char16_t* name) {
  return schema == nullptr ? nullptr : FindByName(schema->classes, schema->classCount, name);
}

const DefinitionHead* Schema_FindSecond(const SchemaDef* schema, const char16_t* name) {
  return schema == nullptr ? nullptr : FindByName(schema->seconds, schema->secondCount, name);
}

bool Qualifier_IsListed(const QualifierDef* qualifier) {
  static constexpr std::array<const char16_t*, 6> kListed = {
      u"Abstract", u"Deprecated", u"Experimental", u"Override", u"Version", u"ClassVersion"};
  if (qualifier == nullptr || qualifier->name == nullptr) return false;
  if ((qualifier->flavor & kListedFlavor) == 0) return false;
  return std::any_of(kListed.begin(), kListed.end(), [qualifier](const char16_t* listed) {
    return Name_Equal(listed, qualifier->name);
  });
}

}  // namespace stewardry::cim
