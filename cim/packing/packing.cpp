#include "cim/packing/packing.h"

#include <cassert>
#include <cstring>
#include <string>
#include <string_view>

#include "cim/instance/instance_body.h"
#include "cim/packing/pack_steps.h"

namespace stewardry::cim {
namespace {

// The return value of a method is packed under another name than the parameter has.
constexpr std::u16string_view kResultParameter = u"LumoReturn";
constexpr const char16_t* kResultName = u"ReturnValue";
constexpr std::uint32_t kOutParameter = FLAG_PARAMETER | FLAG_OUT;

// Which properties of an instance are packed.
struct Selection {
  bool keysOnly;
  PackFilter filter;
  void* filterData;

  bool Includes(const PropertyDef& property) const {
    if (keysOnly) return (property.flags & FLAG_KEY) != 0;
    return filter == nullptr || !filter(property.name, filterData);
  }
};

const char16_t* NameOf(const PropertyDef& property) {
  const char16_t* name = property.name;
  if ((property.flags & kOutParameter) != kOutParameter) return name;
  return name[0] == kResultParameter[0] && name == kResultParameter ? kResultName : name;
}

// Name_Length with its usual case inline.
std::uint32_t LengthOf(const char16_t* name, std::uint32_t code) {
  assert(std::char_traits<char16_t>::length(name) >= (code & 0xFF));
  const std::uint32_t known = code & 0xFF;
  return name[known] == 0 ? known : Name_Length(name, code);
}

// Appends flags, name, type and `present` of a property, and a number's `width` bytes, in one
// extension of the buffer. `width` is 0 if no number follows.
Result PackHead(const PropertyDef& property, const std::uint8_t* value, std::uint8_t present,
                std::uint32_t width, PackBuf* buffer) {
  assert(width == 0 || width == kElementSizes[property.type]);
  const char16_t* name = NameOf(property);
  const std::uint32_t count = LengthOf(name, property.nameCode) + 1;
  const std::uint64_t nameBytes = std::uint64_t{count} * sizeof(char16_t);
  const std::uint64_t typeAt = Pack_Align(8 + nameBytes, 4);
  const std::uint64_t start = Pack_Align(buffer->size, 4);
  const std::uint64_t valueAt = Pack_Align(start + typeAt + 5, width == 0 ? 1 : width) - start;
  std::uint8_t* place = nullptr;
  if (!Pack_Extend(buffer, 4, valueAt + width, &place)) return RESULT_FAILED;
  std::memcpy(place, &property.flags, 4);
  std::memcpy(place + 4, &count, 4);
  Pack_CopyShort(place + 8, name, static_cast<std::size_t>(nameBytes));
  Pack_ZeroFiller(place + 8 + nameBytes);
  std::memcpy(place + typeAt, &property.type, 4);
  Pack_ZeroFiller(place + typeAt + 5);
  place[typeAt + 4] = present;
  if (width != 0) CimValue_CopyBytes(place + valueAt, value, width);
  return RESULT_OK;
}

// Appends elements by their width: signed and floating-point ones have the form of unsigned ones.
Result PackPlainArray(std::uint32_t type, const ArrayValue& array, PackBuf* buffer) {
  if (array.data == nullptr) return RESULT_FAILED;
  const std::uint32_t width = kElementSizes[CimType_Element(type)];
  return Pack_PutElements(buffer, width, width == 8 ? 8 : 1, array.data, array.size);
}

Result PackInstance(const Instance* instance, const Selection& selection, PackBuf* buffer);

Result PackNested(const Instance* instance, std::uint32_t type, PackBuf* buffer) {
  const Selection selection = {CimType_Element(type) == CIM_REFERENCE, nullptr, nullptr};
  return PackInstance(instance, selection, buffer);
}

Result PackNestedArray(std::uint32_t type, const ArrayValue& array, PackBuf* buffer) {
  if (array.size != 0 && array.data == nullptr) return RESULT_FAILED;
  Result result = Pack_PutNumber(buffer, array.size);
  const auto* instances = static_cast<const Instance* const*>(array.data);
  for (std::uint32_t i = 0; i < array.size && result == RESULT_OK; ++i)
    result = PackNested(instances[i], type, buffer);
  return result;
}

Result PackArray(std::uint32_t type, const ArrayValue& array, PackBuf* buffer) {
  if (type < CIM_STRINGA) return PackPlainArray(type, array, buffer);
  if (type > CIM_STRINGA) return PackNestedArray(type, array, buffer);
  return PackBuf_PutStrA(buffer, static_cast<const char16_t**>(array.data), array.size);
}

// Appends a value of any type but those of numbers.
Result PackValue(std::uint32_t type, const std::uint8_t* slot, PackBuf* buffer) {
  assert(type >= CIM_DATETIME && type < kCimTypes);
  if (type == CIM_STRING) return Pack_PutText(buffer, Pack_Load<const char16_t*>(slot));
  if (CimType_IsArray(type)) return PackArray(type, Pack_Load<ArrayValue>(slot), buffer);
  if (type == CIM_DATETIME) {
    const auto value = Pack_Load<CimDatetime>(slot);
    return PackBuf_PutDatetime(buffer, &value);
  }
  const auto* nested = Pack_Load<const Instance*>(slot);
  return nested == nullptr ? RESULT_FAILED : PackNested(nested, type, buffer);
}

// Appends the property's head, and the value of its slot unless `present` is 0.
Result PackProperty(const Instance* body, const PropertyDef& property, PackBuf* buffer) {
  const std::uint32_t type = property.type;
  if (type >= kCimTypes) return RESULT_FAILED;
  const auto* slot = reinterpret_cast<const std::uint8_t*>(Instance_Slot(body, property));
  const std::uint32_t size = kElementSizes[type];
  const std::uint8_t present = slot[size];
  const bool isNumber = type < CIM_DATETIME;
  const std::uint32_t width = present != 0 && isNumber ? size : 0;
  if (PackHead(property, slot, present, width, buffer) != RESULT_OK) return RESULT_FAILED;
  return present == 0 || isNumber ? RESULT_OK : PackValue(type, slot, buffer);
}

// Appends the number of properties and the properties. The number is stored last: the filter is
// called once for each property.
Result PackProperties(const Instance* body, const Selection& selection, PackBuf* buffer) {
  if (Pack_PutNumber(buffer, std::uint32_t{0}) != RESULT_OK) return RESULT_FAILED;
  const std::uint32_t countAt = buffer->size - static_cast<std::uint32_t>(sizeof(std::uint32_t));
  std::uint32_t count = 0;
  const PropertyDef* const* properties = body->def->properties;
  const std::uint32_t propertyCount = body->def->propertyCount;
  for (std::uint32_t i = 0; i < propertyCount; ++i) {
    const PropertyDef& property = *properties[i];
    if (!selection.Includes(property)) continue;
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
  if (Pack_PutNumber(buffer, INSTANCE_PACK_HEAD) != RESULT_OK ||
      Pack_PutNumber(buffer, def.flags) != RESULT_OK ||
      PackBuf_PutStrLen(buffer, def.name, Name_Length(def.name, def.nameCode)) != RESULT_OK ||
      Pack_PutText(buffer, body->namespaceName) != RESULT_OK)
    return RESULT_FAILED;
  const Result result = PackProperties(body, selection, buffer);
  return result == RESULT_OK ? Pack_PutNumber(buffer, INSTANCE_PACK_TAIL) : result;
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
  if (result != RESULT_OK) {
    PackBuf_Destroy(&buffer);
    return result;
  }
  BatchPage* page = PackBuf_TakeBlock(&buffer);
  assert(page != nullptr);
  page->size = buffer.size & 0x7FFFFFFF;
  Batch_AttachPage(batch, page);
  *bytes = page + 1;
  *size = buffer.size;
  return RESULT_OK;
}

}  // namespace stewardry::cim
