// Instance_Pack: a property after another, each value by its type.
#include "base/instance/packing.h"

#include <cstring>
#include <string_view>

#include "base/instance/instance_body.h"

namespace stewardry {
namespace {

// The result of a method comes back under another name than the one it has among the parameters.
constexpr std::u16string_view kResultParameter = u"LumoReturn";
constexpr const char16_t* kResultName = u"ReturnValue";
constexpr std::uint32_t kOutParameter = FLAG_PARAMETER | FLAG_OUT;

// Which properties of an instance are packed.
struct Selection {
  bool keysOnly;
  PackFilter filter;
  void* filterData;

  bool Takes(const PropertyDef& property) const {
    if (keysOnly) return (property.flags & FLAG_KEY) != 0;
    return filter == nullptr || !filter(property.name, filterData);
  }
};

Result PackName(const PropertyDef& property, PackBuf* buffer) {
  const char16_t* name = property.name;
  if ((property.flags & kOutParameter) == kOutParameter && name[0] == kResultParameter[0] &&
      name == kResultParameter)
    name = kResultName;
  return PackBuf_PutStrLen(buffer, name, Name_Length(name, property.nameCode));
}

// By the width of the elements; signed and floating-point ones have the form of unsigned ones.
Result PackPlainArray(std::uint32_t type, const ArrayValue& array, PackBuf* buffer) {
  if (array.data == nullptr) return RESULT_FAILED;
  const std::uint32_t element = CimType_Element(type);
  if (element == CIM_DATETIME)
    return PackBuf_PutDatetimeA(buffer, static_cast<CimDatetime*>(array.data), array.size);
  switch (kElementSizes[element]) {
    case 1:
      return PackBuf_PutU8A(buffer, static_cast<std::uint8_t*>(array.data), array.size);
    case 2:
      return PackBuf_PutU16A(buffer, static_cast<std::uint16_t*>(array.data), array.size);
    case 4:
      return PackBuf_PutU32A(buffer, static_cast<std::uint32_t*>(array.data), array.size);
    default:
      return PackBuf_PutU64A(buffer, static_cast<std::uint64_t*>(array.data), array.size);
  }
}

Result PackInstance(const Instance* instance, const Selection& selection, PackBuf* buffer);

Result PackNested(const Instance* instance, std::uint32_t type, PackBuf* buffer) {
  const Selection selection = {CimType_Element(type) == CIM_REFERENCE, nullptr, nullptr};
  return PackInstance(instance, selection, buffer);
}

Result PackNestedArray(std::uint32_t type, const ArrayValue& array, PackBuf* buffer) {
  if (array.size != 0 && array.data == nullptr) return RESULT_FAILED;
  Result result = PackBuf_PutU32(buffer, array.size);
  const auto* instances = static_cast<const Instance* const*>(array.data);
  for (std::uint32_t i = 0; i < array.size && result == RESULT_OK; ++i)
    result = PackNested(instances[i], type, buffer);
  return result;
}

Result PackScalar(std::uint32_t type, const CimValue& value, PackBuf* buffer) {
  if (type == CIM_DATETIME) return PackBuf_PutDatetime(buffer, &value.datetime);
  switch (kElementSizes[type]) {
    case 1:
      return PackBuf_PutU8(buffer, value.uint8);
    case 2:
      return PackBuf_PutU16(buffer, value.uint16);
    case 4:
      return PackBuf_PutU32(buffer, value.uint32);
    default:
      return PackBuf_PutU64(buffer, value.uint64);
  }
}

Result PackPresent(std::uint32_t type, const CimValue& value, PackBuf* buffer) {
  if (type < CIM_STRING) return PackScalar(type, value, buffer);
  if (type == CIM_STRING) return PackBuf_PutStr(buffer, value.string);
  if (!CimType_IsArray(type)) return PackNested(value.instance, type, buffer);
  if (type < CIM_STRINGA) return PackPlainArray(type, value.array, buffer);
  if (type > CIM_STRINGA) return PackNestedArray(type, value.array, buffer);
  return PackBuf_PutStrA(buffer, static_cast<const char16_t**>(value.array.data), value.array.size);
}

// The `present` byte of the slot, and the value unless that is 0.
Result PackValue(const ValueSlot* slot, std::uint32_t type, PackBuf* buffer) {
  if (type >= kCimTypes) return RESULT_FAILED;
  const auto* bytes = reinterpret_cast<const std::uint8_t*>(slot);
  const std::uint8_t present = bytes[kElementSizes[type]];
  if (present == 0) return PackBuf_PutU8(buffer, present);
  CimValue value;
  std::memcpy(&value, bytes, kElementSizes[type]);
  const bool isInstance = type == CIM_REFERENCE || type == CIM_INSTANCE;
  if (isInstance && value.instance == nullptr) return RESULT_FAILED;
  if (PackBuf_PutU8(buffer, present) != RESULT_OK) return RESULT_FAILED;
  return PackPresent(type, value, buffer);
}

Result PackProperty(const Instance* body, const PropertyDef& property, PackBuf* buffer) {
  if (PackBuf_PutU32(buffer, property.flags) != RESULT_OK ||
      PackName(property, buffer) != RESULT_OK || PackBuf_PutU32(buffer, property.type) != RESULT_OK)
    return RESULT_FAILED;
  return PackValue(Instance_Slot(body, property), property.type, buffer);
}

// The properties, and before them how many they are, which only the last of them tells: a filter is
// asked once about each.
Result PackProperties(const Instance* body, const Selection& selection, PackBuf* buffer) {
  if (PackBuf_PutU32(buffer, 0) != RESULT_OK) return RESULT_FAILED;
  const std::uint32_t countAt = buffer->size - static_cast<std::uint32_t>(sizeof(std::uint32_t));
  std::uint32_t count = 0;
  for (std::uint32_t i = 0; i < body->def->propertyCount; ++i) {
    const PropertyDef& property = *body->def->properties[i];
    if (!selection.Takes(property)) continue;
    const Result result = PackProperty(body, property, buffer);
    if (result != RESULT_OK) return result;
    ++count;
  }
  std::memcpy(buffer->data + countAt, &count, sizeof count);
  return RESULT_OK;
}

Result PackInstance(const Instance* instance, const Selection& selection, PackBuf* buffer) {
  const Instance* body = Instance_LiveBody(instance);
  if (body == nullptr) return RESULT_INVALID_PARAMETER;
  const ClassDef& def = *body->def;
  if (PackBuf_PutU32(buffer, INSTANCE_PACK_HEAD) != RESULT_OK ||
      PackBuf_PutU32(buffer, def.flags) != RESULT_OK ||
      PackBuf_PutStrLen(buffer, def.name, Name_Length(def.name, def.nameCode)) != RESULT_OK ||
      PackBuf_PutStr(buffer, body->namespaceName) != RESULT_OK)
    return RESULT_FAILED;
  const Result result = PackProperties(body, selection, buffer);
  return result == RESULT_OK ? PackBuf_PutU32(buffer, INSTANCE_PACK_TAIL) : result;
}

}  // namespace

Result Instance_Pack(const Instance* instance, bool keysOnly, PackFilter filter, void* filterData,
                     PackBuf* buffer) {
  if (buffer == nullptr) return RESULT_INVALID_PARAMETER;
  return PackInstance(instance, {keysOnly, filter, filterData}, buffer);
}

Result Instance_PackToBatch(const Instance* instance, PackFilter filter, void* filterData,
                            Batch* batch, void** bytes, std::uint32_t* size) {
  if (instance == nullptr || batch == nullptr || bytes == nullptr || size == nullptr)
    return RESULT_INVALID_PARAMETER;
  PackBuf buffer;
  Result result = PackBuf_Init(&buffer, kPackCapacity);
  if (result != RESULT_OK) return result;
  result = Instance_Pack(instance, false, filter, filterData, &buffer);
  if (result != RESULT_OK) return PackBuf_Destroy(&buffer), result;
  BatchPage* page = PackBuf_TakeBlock(&buffer);
  page->size = buffer.size & 0x7FFFFFFF;
  Batch_AttachPage(batch, page);
  *bytes = page + 1;
  *size = buffer.size;
  return RESULT_OK;
}

}  // namespace stewardry
