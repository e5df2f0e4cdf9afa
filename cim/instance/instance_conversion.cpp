// Instance_ConvertToClass. A nested instance is first rebuilt as an instance of its own in the
// target's batch and then stored; a store copies, so what was rebuilt is deleted afterwards in any
// case.
#include <cstring>

#include "cim/instance/typed_instance.h"
#include "cim/memory/arithmetic.h"
#include "cim/memory/batch.h"

namespace stewardry::cim {
namespace {

// What stays the same for one target instance.
struct Conversion {
  const SchemaDef* schema;  // of the target, for nested instances
  bool keysOnly;
  bool copy;
  Batch* batch;  // the new instance's
  std::uint32_t textFlags;
  std::uint32_t depth;  // of the instances around this one
};

// The schema that a class or a method belongs to, which may be empty.
Result SchemaOf(const ClassDef* target, const SchemaDef** schema) {
  if ((target->flags & FLAG_METHOD) != 0) {
    *schema = reinterpret_cast<const MethodDef*>(target)->schema;
    return RESULT_OK;
  }
  if ((target->flags & FLAG_CLASS) == 0) return RESULT_FAILED;
  *schema = target->schema;
  return RESULT_OK;
}

Result CopyNames(Instance* made, const Instance* source) {
  const char16_t* nameSpace = nullptr;
  const char16_t* host = nullptr;
  Result result = Instance_NamespaceOf(source, &nameSpace);
  if (result == RESULT_OK) result = Instance_HostNameOf(source, &host);
  if (result != RESULT_OK) return result;
  const bool stored = Instance_SetNamespace(made, nameSpace) == RESULT_OK &&
                      Instance_SetHostName(made, host) == RESULT_OK;
  return stored ? RESULT_OK : RESULT_SERVER_LIMITS_EXCEEDED;
}

// Gives a key that the source lacks the default of the class. The new instance's own definition is
// asked: for a method it is a copy that has no defaults, as parameters have none.
Result TakeMissingKeys(Instance* made, const Instance* source) {
  const ClassDef& def = *made->def;
  for (std::uint32_t i = 0; i < def.propertyCount; ++i) {
    const PropertyDef& key = *def.properties[i];
    if ((key.flags & FLAG_KEY) == 0) continue;
    Result result = Instance_ReadProperty(source, key.name, nullptr, nullptr, nullptr, nullptr);
    if (result == RESULT_NO_SUCH_PROPERTY && key.value != nullptr) {
      CimValue value{};
      CimValue_FromRaw(key.type, key.value, &value);
      result = Instance_StorePropertyAt(made, i, &value, key.type, FLAG_BORROW);
    }
    if (result != RESULT_OK) return result;
  }
  return RESULT_OK;
}

Result MatchKeys(Instance* made, const Instance* source) {
  Result result = TakeMissingKeys(made, source);
  std::uint32_t count = 0;
  if (result == RESULT_OK) result = Instance_PropertyCountOf(source, &count);
  for (std::uint32_t i = 0; i < count && result == RESULT_OK; ++i) {
    const char16_t* name = nullptr;
    std::uint32_t flags = 0;
    result = Instance_PropertyAt(source, i, &name, nullptr, nullptr, &flags);
    if (result == RESULT_OK && (flags & FLAG_KEY) != 0 &&
        ClassDef_FindProperty(made->def, name) == kNoIndex)
      result = RESULT_NO_SUCH_PROPERTY;
  }
  return result;
}

Result Fill(Instance* made, const Instance* source, bool skipKeyCheck, const Conversion& how);

// A new instance in the batch, of the class in the schema that the source's class names.
Result Rebuild(const Instance* source, bool skipKeyCheck, const Conversion& how, Instance** made) {
  if (how.depth >= kMaxConvertDepth) return RESULT_FAILED;
  const char16_t* className = nullptr;
  Result result = Instance_ClassNameOf(source, &className);
  if (result != RESULT_OK) return result;
  const ClassDef* target = Schema_FindClass(how.schema, className);
  if (target == nullptr) return RESULT_NO_SUCH_PROPERTY;

  Conversion inner = how;
  ++inner.depth;
  result = SchemaOf(target, &inner.schema);
  if (result == RESULT_OK) result = Instance_Create(made, target, how.batch);
  if (result != RESULT_OK) return result;
  result = Fill(*made, source, skipKeyCheck, inner);
  if (result != RESULT_OK) (void)Instance_Delete(*made);  // the first failure is the one to report
  return result;
}

// Stores a rebuilt instance under the type that the target's property has.
Result StoreNested(Instance* made, const char16_t* name, Instance* nested) {
  std::uint32_t type = 0;
  const Result result = Instance_ReadProperty(made, name, nullptr, &type, nullptr, nullptr);
  if (result != RESULT_OK) return result;
  CimValue value{};
  Instance* one[] = {nested};  // the set reads it and doesn't keep it
  switch (type) {
    case CIM_REFERENCE:
    case CIM_INSTANCE:
      value.instance = nested;
      break;
    case CIM_REFERENCEA:
    case CIM_INSTANCEA:
      value.array = ArrayValue{one, 1, 0};
      break;
    default:
      return RESULT_TYPE_MISMATCH;
  }
  const Result stored = Instance_StoreProperty(made, name, &value, type, FLAG_ADOPT);
  return stored == RESULT_OK ? RESULT_OK : RESULT_TYPE_MISMATCH;
}

Result ConvertNested(Instance* made, const char16_t* name, const Instance* source,
                     bool skipKeyCheck, const Conversion& how) {
  Instance* nested = nullptr;
  Result result = Rebuild(source, skipKeyCheck, how, &nested);
  if (result != RESULT_OK) return result;
  result = StoreNested(made, name, nested);
  (void)Instance_Delete(nested);  // always OK: it was made above
  return result;
}

// An INSTANCEA also goes into a property of references.
Result StoreNestedArray(Instance* made, const char16_t* name, std::uint32_t type,
                        const ArrayValue& array) {
  CimValue value{};
  value.array = array;
  const Result result = Instance_StoreProperty(made, name, &value, type, FLAG_ADOPT);
  if (result != RESULT_TYPE_MISMATCH || type != CIM_INSTANCEA) return result;
  return Instance_StoreProperty(made, name, &value, CIM_REFERENCEA, FLAG_ADOPT);
}

Result ConvertNestedArray(Instance* made, const char16_t* name, std::uint32_t type,
                          const ArrayValue& source, const Conversion& how) {
  if (source.data == nullptr || source.size == 0)
    return StoreNestedArray(made, name, type, ArrayValue{});
  std::size_t size = 0;
  if (Size_Mul(source.size, sizeof(void*), &size) != 0) return RESULT_SERVER_LIMITS_EXCEEDED;
  auto* table = static_cast<Instance**>(Batch_Alloc(how.batch, size));
  if (table == nullptr) return RESULT_SERVER_LIMITS_EXCEEDED;

  auto* const* elements = static_cast<Instance* const*>(source.data);
  Result result = RESULT_OK;
  std::uint32_t done = 0;
  while (done < source.size && result == RESULT_OK) {
    result = Rebuild(elements[done], type == CIM_INSTANCEA, how, &table[done]);
    if (result == RESULT_OK) ++done;
  }
  if (result == RESULT_OK)
    result = StoreNestedArray(made, name, type, ArrayValue{table, source.size, 0});
  while (done > 0) (void)Instance_Delete(table[--done]);  // always OK: they were made above
  Batch_Release(how.batch, table);
  return result;
}

// Without elements there is no text to convert, and an array of any type that takes texts is empty
// then, as arrays of the other types are.
Result ConvertTexts(Instance* made, const char16_t* name, const ArrayValue& source,
                    const Conversion& how) {
  if (source.data != nullptr && source.size != 0)
    return Instance_SetArrayFromTexts(made, name, static_cast<const char16_t* const*>(source.data),
                                      source.size, how.textFlags);
  std::uint32_t type = 0;
  const Result result = Instance_ReadProperty(made, name, nullptr, &type, nullptr, nullptr);
  if (result != RESULT_OK) return result;
  if (!CimType_IsArray(type) || type > CIM_STRINGA) return RESULT_TYPE_MISMATCH;
  const CimValue none{};
  return Instance_StoreProperty(made, name, &none, type, 0);
}

Result ConvertProperty(Instance* made, const char16_t* name, const CimValue& value,
                       std::uint32_t type, const Conversion& how) {
  switch (type) {
    case CIM_STRING:
      return Instance_SetFromText(made, name, value.string, how.textFlags);
    case CIM_STRINGA:
      return ConvertTexts(made, name, value.array, how);
    case CIM_REFERENCE:
    case CIM_INSTANCE:
      return ConvertNested(made, name, value.instance, type == CIM_INSTANCE, how);
    case CIM_REFERENCEA:
    case CIM_INSTANCEA:
      return ConvertNestedArray(made, name, type, value.array, how);
    default:
      return Instance_StoreProperty(made, name, &value, type, how.copy ? 0 : FLAG_BORROW);
  }
}

// Steps that a new, empty instance takes to become the source's likeness.
Result Fill(Instance* made, const Instance* source, bool skipKeyCheck, const Conversion& how) {
  Result result = CopyNames(made, source);
  if (result == RESULT_OK && !skipKeyCheck) result = MatchKeys(made, source);
  std::uint32_t count = 0;
  if (result == RESULT_OK) result = Instance_PropertyCountOf(source, &count);
  for (std::uint32_t i = 0; i < count && result == RESULT_OK; ++i) {
    const char16_t* name = nullptr;
    CimValue value{};
    std::uint32_t type = 0;
    std::uint32_t flags = 0;
    result = Instance_PropertyAt(source, i, &name, &value, &type, &flags);
    if (result != RESULT_OK) break;
    if (how.keysOnly && (flags & FLAG_KEY) == 0) continue;
    if ((flags & FLAG_NULL) == 0) result = ConvertProperty(made, name, value, type, how);
  }
  return result;
}

// The same in a batch of the instance's own, which ends with a failure; the memory then holds no
// instance that a caller could take for one.
Result FillWithOwnBatch(Instance* made, const Instance* source, bool skipKeyCheck,
                        const Conversion& how) {
  made->ownsBatch = 1;
  const Result result = Fill(made, source, skipKeyCheck, how);
  if (result == RESULT_OK) return RESULT_OK;
  (void)Instance_Dismantle(made);  // what it holds goes in any case
  std::memset(static_cast<void*>(made), 0, sizeof *made);
  return result;
}

}  // namespace

Result Instance_ConvertToClass(void* memory, const ClassDef* target, const Instance* source,
                               bool keysOnly, bool skipKeyCheck, bool copy, Batch* batch,
                               std::uint32_t textFlags) {
  if (memory == nullptr || target == nullptr || source == nullptr) return RESULT_INVALID_PARAMETER;
  Conversion how{nullptr, keysOnly, copy, batch, textFlags, 0};
  Result result = SchemaOf(target, &how.schema);
  if (result != RESULT_OK) return result;
  if (batch == nullptr) how.batch = Batch_Create(kNoPageLimit);
  if (how.batch == nullptr) return RESULT_SERVER_LIMITS_EXCEEDED;

  auto* made = static_cast<Instance*>(memory);
  result = Instance_InitAt(made, target, how.batch);
  if (result != RESULT_OK) {
    if (batch == nullptr) Batch_Destroy(how.batch);
    return result;
  }
  if (batch == nullptr) return FillWithOwnBatch(made, source, skipKeyCheck, how);
  return Fill(made, source, skipKeyCheck, how);
}

}  // namespace stewardry::cim
