#include "cim/instance/definition_copy.h"

#include <algorithm>
#include <bit>
#include <cassert>
#include <cstring>
#include <type_traits>

#include "cim/instance/instance.h"
#include "cim/instance/operations.h"
#include "cim/instance/property_table.h"

namespace stewardry::cim {
namespace {

template <class Record>
Record* AllocRecord(Batch* batch) {
  return static_cast<Record*>(Batch_AllocZero(batch, sizeof(Record)));
}

template <class Record>
const Record** AllocTable(Batch* batch, std::uint64_t count) {
  assert(count != 0);
  std::size_t size = count * sizeof(void*);
  if constexpr (std::is_same_v<Record, PropertyDef>) size = PropertyTable_Size(count);
  return static_cast<const Record**>(Batch_AllocZero(batch, size));
}

bool CloneValue(Batch* batch, std::uint32_t type, const void* value, const void** copy) {
  if (value == nullptr) return true;
  *copy = Value_CloneCell(batch, type, value);
  return *copy != nullptr;
}

// Copies an array of definitions that has both pointer and count. Each record is linked before it
// is filled, for ClassDef_Release.
template <class Definition>
bool CloneArray(Batch* batch, const Definition* const* source, std::uint32_t count,
                const Definition* const** copy, std::uint32_t* copyCount,
                bool (*fill)(Batch*, Definition*, const Definition&)) {
  if (source == nullptr || count == 0) return true;
  auto** table = AllocTable<Definition>(batch, count);
  if (table == nullptr) return false;
  *copy = table;
  *copyCount = count;
  for (std::uint32_t i = 0; i < count; ++i) {
    assert(source[i] != nullptr);
    auto* record = AllocRecord<Definition>(batch);
    if (record == nullptr) return false;
    table[i] = record;
    if (!fill(batch, record, *source[i])) return false;
  }
  return true;
}

bool FillQualifier(Batch* batch, QualifierDef* copy, const QualifierDef& source) {
  copy->type = source.type;
  copy->flavor = source.flavor;
  return CopyOptionalText(batch, source.name, &copy->name) &&
         CloneValue(batch, source.type, source.value, &copy->value);
}

// Fills the part that properties, parameters, methods and classes begin with.
template <class Definition>
bool FillHead(Batch* batch, Definition* copy, const Definition& source) {
  copy->flags = source.flags;
  copy->nameCode = source.nameCode;
  return CopyOptionalText(batch, source.name, &copy->name) &&
         CloneArray(batch, source.qualifiers, source.qualifierCount, &copy->qualifiers,
                    &copy->qualifierCount, FillQualifier);
}

// Fills the part after the head that properties and parameters have in common.
template <class Element>
bool FillElement(Batch* batch, Element* copy, const Element& source) {
  copy->type = source.type;
  copy->maxSize = source.maxSize;
  copy->offset = source.offset;
  return FillHead(batch, copy, source) &&
         CopyOptionalText(batch, source.referenceClass, &copy->referenceClass);
}

// Fills the classes that a property or a method comes from.
template <class Element>
bool FillOrigin(Batch* batch, Element* copy, const Element& source) {
  return CopyOptionalText(batch, source.originClass, &copy->originClass) &&
         CopyOptionalText(batch, source.propagatorClass, &copy->propagatorClass);
}

bool FillProperty(Batch* batch, PropertyDef* copy, const PropertyDef& source) {
  if (!FillElement(batch, copy, source) || !FillOrigin(batch, copy, source)) return false;
  const bool isNull = (source.flags & FLAG_NULL) != 0;
  return isNull || CloneValue(batch, source.type, source.value, &copy->value);
}

bool FillMethod(Batch* batch, MethodDef* copy, const MethodDef& source) {
  copy->size = source.size;
  copy->returnType = source.returnType;
  copy->invoke = source.invoke;
  return FillHead(batch, copy, source) && FillOrigin(batch, copy, source) &&
         CloneArray(batch, source.parameters, source.parameterCount, &copy->parameters,
                    &copy->parameterCount, FillElement<ParameterDef>);
}

bool FillClass(Batch* batch, ClassDef* copy, const ClassDef& source) {
  copy->size = source.size;
  copy->extension = source.extension;
  if (!FillHead(batch, copy, source) ||
      !CopyOptionalText(batch, source.superclassName, &copy->superclassName) ||
      !CloneArray(batch, source.properties, source.propertyCount, &copy->properties,
                  &copy->propertyCount, FillProperty))
    return false;
  // The library made the table, which makes the cast valid.
  PropertyTable_WriteTags(const_cast<const PropertyDef**>(copy->properties), 0,
                          copy->propertyCount);
  return CloneArray(batch, source.methods, source.methodCount, &copy->methods, &copy->methodCount,
                    FillMethod);
}

// Fills `copy` and copies its superclasses.
bool FillClassChain(Batch* batch, ClassDef* copy, const ClassDef* source) {
  while (FillClass(batch, copy, *source)) {
    source = source->superclass;
    if (source == nullptr) return true;
    auto* up = AllocRecord<ClassDef>(batch);
    if (up == nullptr) return false;
    if (source->owner != kOwnerNone) up->owner = kOwnerDynamic;
    copy->superclass = up;
    copy = up;
  }
  return false;
}

template <class Definition>
void ReleaseQualifiers(const Definition& definition) {
  for (std::uint32_t i = 0; i < definition.qualifierCount; ++i) {
    const QualifierDef* qualifier = definition.qualifiers[i];
    if (qualifier != nullptr) Value_ReleaseCell(qualifier->type, qualifier->value);
  }
}

void ReleaseProperties(const ClassDef& def) {
  for (std::uint32_t i = 0; i < def.propertyCount; ++i) {
    const PropertyDef* property = def.properties[i];
    if (property == nullptr) continue;
    ReleaseQualifiers(*property);
    Value_ReleaseCell(property->type, property->value);
  }
}

void ReleaseMethods(const ClassDef& def) {
  for (std::uint32_t i = 0; i < def.methodCount; ++i) {
    const MethodDef* method = def.methods[i];
    if (method == nullptr) continue;
    ReleaseQualifiers(*method);
    for (std::uint32_t j = 0; j < method->parameterCount; ++j) {
      if (method->parameters[j] != nullptr) ReleaseQualifiers(*method->parameters[j]);
    }
  }
}

bool IsPointerType(std::uint32_t elementType) {
  return elementType == CIM_STRING || CimType_HoldsInstances(elementType);
}

// Copies what a pointer of the element type points to. A null stays null.
bool ClonePointer(Batch* batch, std::uint32_t elementType, const void* source, void** copy) {
  assert(IsPointerType(elementType));
  if (source == nullptr) return true;
  if (elementType == CIM_STRING) {
    *copy = Batch_DupText(batch, static_cast<const char16_t*>(source));
    return *copy != nullptr;
  }
  Instance* instance = nullptr;
  const auto* original = static_cast<const Instance*>(source);
  if (Instance_Copy(original, &instance, batch) != RESULT_OK) return false;
  *copy = instance;
  return true;
}

bool ClonePointers(Batch* batch, std::uint32_t elementType, const void* source, std::uint32_t count,
                   void* copies) {
  for (std::uint32_t i = 0; i < count; ++i) {
    const std::size_t at = i * sizeof(void*);
    const void* original = nullptr;
    void* copy = nullptr;
    std::memcpy(&original, static_cast<const char*>(source) + at, sizeof original);
    if (!ClonePointer(batch, elementType, original, &copy)) return false;
    std::memcpy(static_cast<char*>(copies) + at, &copy, sizeof copy);
  }
  return true;
}

// Fills a zeroed ArrayValue. After a failure Value_ReleaseCell releases what was copied.
bool CloneArrayCell(Batch* batch, std::uint32_t type, const void* value, void* cell) {
  assert(type < kCimTypes && CimType_IsArray(type));
  const std::uint32_t elementType = CimType_Element(type);
  ArrayValue source{};
  std::memcpy(&source, value, sizeof source);
  ArrayValue copy{};
  copy.size = source.size;
  if (source.data != nullptr && source.size != 0) {
    const std::uint64_t bytes = std::uint64_t{source.size} * kElementSizes[elementType];
    copy.data = Batch_AllocZero(batch, bytes);
    if (copy.data == nullptr) return false;
    if (!IsPointerType(elementType)) std::memcpy(copy.data, source.data, bytes);
  }
  std::memcpy(cell, &copy, sizeof copy);
  if (copy.data == nullptr || !IsPointerType(elementType)) return true;
  return ClonePointers(batch, elementType, source.data, source.size, copy.data);
}

void DeleteAt(const void* place) {
  Instance* instance = nullptr;
  std::memcpy(&instance, place, sizeof(void*));
  (void)Instance_Delete(instance);  // fails only for a null
}

}  // namespace

ClassDef* ClassDef_Clone(Batch* batch, const ClassDef* def) {
  assert(batch != nullptr && def != nullptr);
  auto* copy = AllocRecord<ClassDef>(batch);
  if (copy == nullptr) return nullptr;
  if (FillClassChain(batch, copy, def)) return copy;
  ClassDef_Release(copy);
  return nullptr;
}

void ClassDef_Release(const ClassDef* def) {
  for (; def != nullptr; def = def->superclass) {
    ReleaseQualifiers(*def);
    ReleaseProperties(*def);
    ReleaseMethods(*def);
  }
}

void* Value_CloneCell(Batch* batch, std::uint32_t type, const void* value) {
  if (batch == nullptr || value == nullptr || type >= kCimTypes) return nullptr;
  void* cell = Batch_AllocZero(batch, kElementSizes[type]);
  if (cell == nullptr) return nullptr;
  bool copied = true;
  if (CimType_IsArray(type)) {
    copied = CloneArrayCell(batch, type, value, cell);
  } else if (IsPointerType(type)) {
    copied = ClonePointers(batch, type, value, 1, cell);
  } else {
    std::memcpy(cell, value, kElementSizes[type]);
  }
  if (copied) return cell;
  Value_ReleaseCell(type, cell);
  return nullptr;
}

void Value_ReleaseCell(std::uint32_t type, const void* cell) {
  if (cell == nullptr || !CimType_HoldsInstances(type)) return;
  if (!CimType_IsArray(type)) return DeleteAt(cell);
  ArrayValue array{};
  std::memcpy(&array, cell, sizeof array);
  if (array.data == nullptr) return;
  for (std::uint32_t i = 0; i < array.size; ++i) {
    DeleteAt(static_cast<const char*>(array.data) + i * sizeof(void*));
  }
}

std::uint64_t DynamicDef_Capacity(std::uint32_t count) {
  return std::max<std::uint64_t>(INSTANCE_MIN_CAPACITY, std::bit_ceil(std::uint64_t{count}));
}

ClassDef* DynamicDef_Copy(const ClassDef* def, Batch* batch) {
  assert(batch != nullptr && def != nullptr);
  const ClassDef source = ClassDef_CommonPart(def);
  auto* copy = AllocRecord<ClassDef>(batch);
  auto** properties = AllocTable<PropertyDef>(batch, DynamicDef_Capacity(source.propertyCount));
  if (copy == nullptr || properties == nullptr) return nullptr;
  if (!CopyOptionalText(batch, source.name, &copy->name)) return nullptr;
  copy->nameCode = source.nameCode;
  copy->size = source.size;
  copy->owner = kOwnerDynamic;
  copy->properties = properties;
  copy->propertyCount = source.propertyCount;
  for (std::uint32_t i = 0; i < source.propertyCount; ++i) {
    properties[i] = PropertyDef_CopyShallow(batch, PropertyDef_CommonPart(source.properties, i));
    if (properties[i] == nullptr) return nullptr;
  }
  PropertyTable_WriteTags(properties, 0, source.propertyCount);
  return copy;
}

PropertyDef* PropertyDef_CopyShallow(Batch* batch, const ParameterDef& source) {
  auto* copy = AllocRecord<PropertyDef>(batch);
  if (copy == nullptr || !CopyOptionalText(batch, source.name, &copy->name)) return nullptr;
  copy->nameCode = source.nameCode;
  copy->flags = source.flags;
  copy->type = source.type;
  copy->offset = source.offset;
  if (source.qualifiers == nullptr || source.qualifierCount == 0) return copy;
  auto** qualifiers = AllocTable<QualifierDef>(batch, source.qualifierCount);
  if (qualifiers == nullptr) return nullptr;
  copy->qualifiers = qualifiers;
  copy->qualifierCount = source.qualifierCount;
  for (std::uint32_t i = 0; i < source.qualifierCount; ++i) {
    qualifiers[i] = QualifierDef_CopyShallow(batch, source.qualifiers[i]);
    if (qualifiers[i] == nullptr) return nullptr;
  }
  return copy;
}

QualifierDef* QualifierDef_CopyShallow(Batch* batch, const QualifierDef* source) {
  assert(source != nullptr);
  auto* copy = AllocRecord<QualifierDef>(batch);
  if (copy == nullptr || !CopyOptionalText(batch, source->name, &copy->name)) return nullptr;
  copy->type = source->type;
  copy->flavor = source->flavor;
  if (source->type != CIM_BOOLEAN) return copy;
  return CloneValue(batch, source->type, source->value, &copy->value) ? copy : nullptr;
}

}  // namespace stewardry::cim
