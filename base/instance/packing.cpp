// Instance_Pack: a property after another, each value by its type.
#include "base/instance/packing.h"

#include <cstring>
#include <string_view>

#include "base/instance/instance_body.h"
#include "base/instance/pack_steps.h"

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

const char16_t* NameOf(const PropertyDef& property) {
  const char16_t* name = property.name;
  if ((property.flags & kOutParameter) != kOutParameter) return name;
  return name[0] == kResultParameter[0] && name == kResultParameter ? kResultName : name;
}

// Name_Length, which seldom has more to do than this.
std::uint32_t LengthOf(const char16_t* name, std::uint32_t code) {
  const std::uint32_t known = code & 0xFF;
  return name[known] == 0 ? known : Name_Length(name, code);
}

// Flags, name, type and `present` of a property, with one look at the room there is.
Result PackPropertyHead(const PropertyDef& property, std::uint8_t present, PackBuf* buffer) {
  const char16_t* name = NameOf(property);
  const std::uint32_t count = LengthOf(name, property.nameCode) + 1;
  const std::uint64_t nameBytes = std::uint64_t{count} * sizeof(char16_t);
  const std::uint64_t typeAt = Pack_Align(8 + nameBytes, 4);
  std::uint8_t* place = nullptr;
  if (!Pack_Extend(buffer, 4, typeAt + 5, &place)) return RESULT_FAILED;
  std::memcpy(place, &property.flags, 4);
  std::memcpy(place + 4, &count, 4);
  Pack_CopyShort(place + 8, name, static_cast<std::size_t>(nameBytes));
  std::memcpy(place + typeAt, &property.type, 4);
  place[typeAt + 4] = present;
  return RESULT_OK;
}

// The slot's value, of the width of Number.
template <class Number>
Result PackNumber(const std::uint8_t* slot, PackBuf* buffer) {
  std::uint8_t* place = nullptr;
  if (!Pack_Extend(buffer, sizeof(Number), sizeof(Number), &place)) return RESULT_FAILED;
  std::memcpy(place, slot, sizeof(Number));
  return RESULT_OK;
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

Result PackScalar(std::uint32_t type, const std::uint8_t* slot, PackBuf* buffer) {
  switch (kElementSizes[type]) {
    case 1:
      return PackNumber<std::uint8_t>(slot, buffer);
    case 2:
      return PackNumber<std::uint16_t>(slot, buffer);
    case 4:
      return PackNumber<std::uint32_t>(slot, buffer);
    case 8:
      return PackNumber<std::uint64_t>(slot, buffer);
    default:
      const auto value = Pack_Load<CimDatetime>(slot);
      return PackBuf_PutDatetime(buffer, &value);
  }
}

Result PackArray(std::uint32_t type, const ArrayValue& array, PackBuf* buffer) {
  if (type < CIM_STRINGA) return PackPlainArray(type, array, buffer);
  if (type > CIM_STRINGA) return PackNestedArray(type, array, buffer);
  return PackBuf_PutStrA(buffer, static_cast<const char16_t**>(array.data), array.size);
}

Result PackPresent(std::uint32_t type, const std::uint8_t* slot, PackBuf* buffer) {
  if (type < CIM_STRING) return PackScalar(type, slot, buffer);
  if (type == CIM_STRING) return PackBuf_PutStr(buffer, Pack_Load<const char16_t*>(slot));
  if (CimType_IsArray(type)) return PackArray(type, Pack_Load<ArrayValue>(slot), buffer);
  return PackNested(static_cast<const Instance*>(Pack_Load<const void*>(slot)), type, buffer);
}

bool IsInstance(std::uint32_t type) { return type == CIM_REFERENCE || type == CIM_INSTANCE; }

// The property's head, and the value of its slot unless `present` is 0.
Result PackProperty(const Instance* body, const PropertyDef& property, PackBuf* buffer) {
  const std::uint32_t type = property.type;
  if (type >= kCimTypes) return RESULT_FAILED;
  const auto* slot = reinterpret_cast<const std::uint8_t*>(Instance_Slot(body, property));
  const std::uint8_t present = slot[kElementSizes[type]];
  if (present != 0 && IsInstance(type) && Pack_Load<const void*>(slot) == nullptr)
    return RESULT_FAILED;
  if (PackPropertyHead(property, present, buffer) != RESULT_OK) return RESULT_FAILED;
  return present == 0 ? RESULT_OK : PackPresent(type, slot, buffer);
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
