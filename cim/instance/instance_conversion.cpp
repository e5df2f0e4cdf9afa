// Instance_ConvertToClass. A nested instance is rebuilt in the target's batch and then stored. A
// store copies, so the rebuilt instance is always deleted afterwards.
#include <cassert>
#include <cstring>

#include "cim/instance/typed_instance.h"
#include "cim/memory/arithmetic.h"
#include "cim/memory/batch.h"

namespace stewardry::cim {
namespace {

// The parameters of the conversion of one target instance.
struct Conversion {
  const SchemaDef* schema;  // of the target, for nested instances
  bool keysOnly;
  bool copy;
  Batch* batch;  // the new instance's
  std::uint32_t textFlags;
  std::uint32_t depth;  // of the instances around this one
};

// Stores the schema of a class or a method, which may be null.
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

// Stores the class' default in each key that the source lacks. Reads the new instance's definition:
// for a method it is a copy without defaults, since parameters have none.
Result StoreMissingKeys(Instance* made, const Instance* source) {
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
  Result result = StoreMissingKeys(made, source);
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

// Makes an instance in the batch, of the class in the schema that has the name of the source's
// class.
Result Rebuild(const Instance* source, bool skipKeyCheck, const Conversion& how, Instance** made) {
  assert(how.batch != nullptr);
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
  if (result != RESULT_OK) (void)Instance_Delete(*made);  // the first failure is returned
  return result;
}

// Stores a rebuilt instance as the type of the target's property.
Result StoreNested(Instance* made, const char16_t* name, Instance* nested) {
  std::uint32_t type = 0;
  const Result result = Instance_ReadProperty(made, name, nullptr, &type, nullptr, nullptr);
  if (result != RESULT_OK) return result;
  CimValue value{};
  Instance* one[] = {nested};  // a set that copies only reads it
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
  (void)Instance_Delete(nested);  // always succeeds: it was made above
  return result;
}

// An INSTANCEA may be stored in a REFERENCEA property too.
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
  if (Size_Mul(source.size, sizeof(void*), &size) != RESULT_OK)
    return RESULT_SERVER_LIMITS_EXCEEDED;
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
  while (done > 0) (void)Instance_Delete(table[--done]);  // always succeeds: they were made above
  Batch_Release(how.batch, table);
  return result;
}

// An array without elements has no text to convert: it becomes an array without elements of any
// type that texts convert to.
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

// Copies names, keys and properties of the source into a new instance.
Result Fill(Instance* made, const Instance* source, bool skipKeyCheck, const Conversion& how) {
  assert(made->body == made && made->batch == how.batch);
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

// As Fill, for an instance with a batch of its own. A failure destroys the batch and clears the
// memory.
Result FillWithOwnBatch(Instance* made, const Instance* source, bool skipKeyCheck,
                        const Conversion& how) {
  made->ownsBatch = 1;
  const Result result = Fill(made, source, skipKeyCheck, how);
  if (result == RESULT_OK) return RESULT_OK;
  (void)Instance_Dismantle(made);  // always succeeds: it has a batch
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
