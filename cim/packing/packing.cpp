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

// The steps below take and return a position in place of the writer's `size`: the stores between
// could change a field for all that the compiler knows, while a position stays in a register.
constexpr std::uint64_t kNoRoom = ~std::uint64_t{0};

// Stores flags, name, type and `present` of a property at the next multiple of 4, and the filler of
// a number after them. Returns the position after `present`, or kNoRoom.
inline std::uint64_t PackHead(PackBuf* buffer, std::uint64_t at, const PropertyDef& property,
                              std::uint8_t present) {
  const char16_t* name = NameOf(property);
  const std::uint32_t count = LengthOf(name, property.nameCode) + 1;
  const std::uint64_t nameBytes = std::uint64_t{count} * sizeof(char16_t);
  const std::uint64_t start = Pack_Align(at, 4);
  const std::uint64_t nameEnd = start + 8 + nameBytes;
  const std::uint64_t typeAt = Pack_Align(nameEnd, 4);
  if (!Pack_Reserve(buffer, typeAt + 5)) return kNoRoom;
  std::uint8_t* data = buffer->data;
  Pack_ZeroFiller(data + at);
  std::memcpy(data + start, &property.flags, 4);
  std::memcpy(data + start + 4, &count, 4);
  Pack_CopyShort(data + start + 8, name, static_cast<std::size_t>(nameBytes));
  Pack_ZeroFiller(data + nameEnd);
  std::memcpy(data + typeAt, &property.type, 4);
  const std::uint64_t presentAndFiller = present;
  std::memcpy(data + typeAt + 4, &presentAndFiller, sizeof presentAndFiller);
  return typeAt + 5;
}

// Stores a number at the next multiple of its width. Requires that the filler before it is zeroed.
// Returns the position after it, or kNoRoom.
template <std::uint32_t kWidth>
std::uint64_t PackNumber(PackBuf* buffer, std::uint64_t at, const std::uint8_t* value) {
  const std::uint64_t start = Pack_Align(at, kWidth);
  if (!Pack_Reserve(buffer, start + kWidth)) return kNoRoom;
  std::memcpy(buffer->data + start, value, kWidth);
  return start + kWidth;
}

// Does the same for a text, as Pack_PutText.
inline std::uint64_t PackText(PackBuf* buffer, std::uint64_t at, const char16_t* text) {
  const std::uint64_t start = Pack_Align(at, 4);
  const std::size_t count = text == nullptr ? 0 : Pack_TextLength(text) + 1;
  const std::uint64_t end = start + 4 + count * sizeof(char16_t);
  if (!Pack_Reserve(buffer, end)) return kNoRoom;
  const auto stored = static_cast<std::uint32_t>(count);
  std::memcpy(buffer->data + start, &stored, sizeof stored);
  Pack_CopyShort(buffer->data + start + 4, text, count * sizeof(char16_t));
  return end;
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

// Appends a value of any type but those of numbers and STRING.
Result PackValue(std::uint32_t type, const std::uint8_t* slot, PackBuf* buffer) {
  assert(type >= CIM_DATETIME && type < kCimTypes && type != CIM_STRING);
  if (CimType_IsArray(type)) return PackArray(type, Pack_Load<ArrayValue>(slot), buffer);
  if (type == CIM_DATETIME) {
    const auto value = Pack_Load<CimDatetime>(slot);
    return PackBuf_PutDatetime(buffer, &value);
  }
  const auto* nested = Pack_Load<const Instance*>(slot);
  return nested == nullptr ? RESULT_FAILED : PackNested(nested, type, buffer);
}

// Appends the value of a present slot after its head.
inline Result PackPresent(PackBuf* buffer, std::uint64_t* at, std::uint32_t type,
                          const std::uint8_t* slot) {
  switch (type) {
    case CIM_BOOLEAN:
    case CIM_UINT8:
    case CIM_SINT8:
      *at = PackNumber<1>(buffer, *at, slot);
      break;
    case CIM_UINT16:
    case CIM_SINT16:
    case CIM_CHAR16:
      *at = PackNumber<2>(buffer, *at, slot);
      break;
    case CIM_UINT32:
    case CIM_SINT32:
    case CIM_REAL32:
      *at = PackNumber<4>(buffer, *at, slot);
      break;
    case CIM_UINT64:
    case CIM_SINT64:
    case CIM_REAL64:
      *at = PackNumber<8>(buffer, *at, slot);
      break;
    case CIM_STRING:
      *at = PackText(buffer, *at, Pack_Load<const char16_t*>(slot));
      break;
    default: {
      buffer->size = static_cast<std::uint32_t>(*at);
      const Result result = PackValue(type, slot, buffer);
      *at = buffer->size;
      return result;
    }
  }
  return *at == kNoRoom ? RESULT_FAILED : RESULT_OK;
}

// Appends the number of properties and the properties. The number is stored last: the filter is
// called once for each property.
Result PackProperties(const Instance* body, const Selection& selection, PackBuf* buffer) {
  if (Pack_PutNumber(buffer, std::uint32_t{0}) != RESULT_OK) return RESULT_FAILED;
  const std::uint32_t countAt = buffer->size - static_cast<std::uint32_t>(sizeof(std::uint32_t));
  const bool isWhole = !selection.keysOnly && selection.filter == nullptr;
  std::uint32_t count = 0;
  std::uint64_t at = buffer->size;
  const PropertyDef* const* next = body->def->properties;
  for (const PropertyDef* const* end = next + body->def->propertyCount; next != end; ++next) {
    const PropertyDef& property = **next;
    if (!isWhole && !selection.Includes(property)) continue;
    const std::uint32_t type = property.type;
    if (type >= kCimTypes) return RESULT_FAILED;
    const auto* slot = reinterpret_cast<const std::uint8_t*>(Instance_Slot(body, property));
    const std::uint8_t present = slot[kElementSizes[type]];
    at = PackHead(buffer, at, property, present);
    if (at == kNoRoom) return RESULT_FAILED;
    ++count;
    if (present == 0) continue;
    const Result result = PackPresent(buffer, &at, type, slot);
    if (result != RESULT_OK) return result;
  }
  buffer->size = static_cast<std::uint32_t>(at);
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
