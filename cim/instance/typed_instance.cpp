#include "cim/instance/typed_instance.h"

#include <algorithm>
#include <cassert>
#include <cstring>
#include <memory>
#include <string_view>

#include "cim/instance/class_object.h"
#include "cim/log/log_events.h"
#include "cim/memory/arithmetic.h"
#include "cim/memory/heap.h"
#include "cim/text/base64.h"
#include "cim/value/text_conversion.h"

namespace stewardry::cim {
namespace {

constexpr std::size_t kOctetHead = 4;  // bytes of the total length before an octet string's content

void StoreOctetLength(std::uint32_t length, std::uint8_t* head) {
  for (std::size_t i = 0; i < kOctetHead; ++i)
    head[i] = static_cast<std::uint8_t>(length >> (24 - 8 * i));
}

std::uint32_t LoadOctetLength(const std::uint8_t* head) {
  return (std::uint32_t{head[0]} << 24) | (std::uint32_t{head[1]} << 16) |
         (std::uint32_t{head[2]} << 8) | head[3];
}

struct HeapDeleter {
  void operator()(std::uint8_t* block) const { Heap_Free(block); }
};
using HeapBytes = std::unique_ptr<std::uint8_t, HeapDeleter>;

// Owns an octet string until a property has stored a copy.
struct OctetString {
  OctetString() = default;
  OctetString(const OctetString&) = delete;
  OctetString& operator=(const OctetString&) = delete;
  ~OctetString() { Heap_Free(sink.data); }

  OctetSink sink{};
};

Result TypeOfProperty(const Instance* instance, const char16_t* name, std::uint32_t* type) {
  return Instance_ReadProperty(instance, name, nullptr, type, nullptr, nullptr);
}

// Stores whether the property's definition has the qualifier of octet strings with the value true.
Result HasOctetQualifier(const Instance* instance, const char16_t* name, bool* has) {
  ClassObject view;
  Result result = Instance_GetClassView(instance, &view);
  if (result != RESULT_OK) return result;
  QualifierSet qualifiers{};
  result = Class_ReadProperty(&view, name, nullptr, nullptr, nullptr, nullptr, &qualifiers, nullptr,
                              nullptr);
  std::uint32_t type = 0;
  CimValue value{};
  *has = result == RESULT_OK &&
         QualifierSet_FindQualifier(&qualifiers, u"Octetstring", &type, nullptr, &value, nullptr) ==
             RESULT_OK &&
         type == CIM_BOOLEAN && value.boolean != 0;
  return result;
}

// Decodes Base64 text into an octet string. Returns RESULT_FAILED for any other text and if
// allocation fails; all but a failed allocation of the narrow text are logged.
Result DecodeOctets(const char16_t* text, OctetSink* sink) {
  const std::u16string_view units(text);
  const HeapBytes narrow(static_cast<std::uint8_t*>(Heap_Allocate(units.size() + 1)));
  if (narrow == nullptr) return RESULT_FAILED;
  std::transform(units.begin(), units.end(), narrow.get(),
                 [](char16_t unit) { return static_cast<std::uint8_t>(unit); });
  if (Base64Dec(narrow.get(), units.size(), OctetSink_Append, sink) < 0) {
    LibLog_Base64DecFailed("", 0);
    return RESULT_FAILED;
  }
  // Nothing was decoded: the empty octet string consists of its length.
  if (sink->data == nullptr && OctetSink_Append(narrow.get(), 0, sink) != 0) {
    LibLog_OutOfMemory("", 0);
    return RESULT_FAILED;
  }
  return RESULT_OK;
}

Result SetOctetString(Instance* instance, const char16_t* name, const char16_t* text) {
  OctetString octets;
  const Result result = DecodeOctets(text, &octets.sink);
  if (result != RESULT_OK) return result;
  CimValue value{};
  value.array = octets.sink;
  return Instance_StoreProperty(instance, name, &value, CIM_UINT8A, FLAG_ADOPT);
}

// Converts the texts and stores them. The block of converted values is always released, since a set
// copies.
Result SetConvertedArray(Instance* instance, const char16_t* name, std::uint32_t type,
                         const char16_t* const* texts, std::uint32_t count) {
  const TextConverter convert = TextConverters[CimType_Element(type)];
  if (convert == nullptr) return RESULT_FAILED;
  const std::size_t elementSize = kElementSizes[CimType_Element(type)];
  std::size_t places = 0;
  std::size_t size = 0;
  if (Size_Add(count, 1, &places) != RESULT_OK || Size_Mul(places, elementSize, &size) != RESULT_OK)
    return RESULT_SERVER_LIMITS_EXCEEDED;
  Batch* batch = Instance_Body(instance)->batch;
  assert(batch != nullptr);
  auto* block = static_cast<std::uint8_t*>(Batch_Alloc(batch, size));
  if (block == nullptr) return RESULT_SERVER_LIMITS_EXCEEDED;

  Result result = RESULT_OK;
  for (std::uint32_t i = 0; i < count && result == RESULT_OK; ++i) {
    if (convert(texts[i], block + i * elementSize) != 0) result = RESULT_INVALID_PARAMETER;
  }
  if (result == RESULT_OK) {
    CimValue value{};
    value.array = ArrayValue{block, count, 0};
    result = Instance_StoreProperty(instance, name, &value, type, FLAG_ADOPT);
  }
  Batch_Release(batch, block);
  return result;
}

Result SetTexts(Instance* instance, const char16_t* name, const char16_t* const* texts,
                std::uint32_t count) {
  CimValue value{};
  // A set that copies only reads the table.
  value.array = ArrayValue{const_cast<const char16_t**>(texts), count, 0};
  return Instance_StoreProperty(instance, name, &value, CIM_STRINGA, 0);
}

}  // namespace

Result Instance_SetFromText(Instance* instance, const char16_t* name, const char16_t* text,
                            std::uint32_t textFlags) {
  if (instance == nullptr || name == nullptr || text == nullptr) return RESULT_INVALID_PARAMETER;
  std::uint32_t type = 0;
  const Result result = TypeOfProperty(instance, name, &type);
  if (result != RESULT_OK) return result;
  if (CimType_IsArray(type)) return Instance_SetArrayFromTexts(instance, name, &text, 1, textFlags);

  CimValue value{};
  if (type == CIM_STRING) {
    value.string = text;
    return Instance_StoreProperty(instance, name, &value, type, 0);
  }
  const TextConverter convert = TextConverters[type];
  if (convert == nullptr || convert(text, &value) != 0) return RESULT_FAILED;
  return Instance_StoreProperty(instance, name, &value, type, 0);
}

Result Instance_SetArrayFromTexts(Instance* instance, const char16_t* name,
                                  const char16_t* const* texts, std::uint32_t count,
                                  std::uint32_t textFlags) {
  if (instance == nullptr || name == nullptr || texts == nullptr) return RESULT_INVALID_PARAMETER;
  std::uint32_t type = 0;
  const Result result = TypeOfProperty(instance, name, &type);
  if (result != RESULT_OK) return result;
  if (!CimType_IsArray(type)) return RESULT_TYPE_MISMATCH;

  if (type == CIM_UINT8A && (textFlags & kTextOctetString) != 0) {
    bool isOctetString = false;
    const Result read = HasOctetQualifier(instance, name, &isOctetString);
    if (read != RESULT_OK) return read;
    if (isOctetString && (count == 0 || texts[0] == nullptr)) return RESULT_INVALID_PARAMETER;
    if (isOctetString) return SetOctetString(instance, name, texts[0]);
  }
  if (type == CIM_STRINGA) return SetTexts(instance, name, texts, count);
  return SetConvertedArray(instance, name, type, texts, count);
}

Result Instance_GetValueOfType(const Instance* instance, const char16_t* name, void* value,
                               std::uint32_t type) {
  CimValue held{};
  std::uint32_t heldType = 0;
  std::uint32_t flags = 0;
  const Result result = Instance_ReadProperty(instance, name, &held, &heldType, &flags, nullptr);
  if (result != RESULT_OK) return result;
  if (heldType != type) return RESULT_TYPE_MISMATCH;
  if ((flags & FLAG_NULL) != 0) return RESULT_NOT_FOUND;
  if (value == nullptr) return RESULT_INVALID_PARAMETER;
  std::memcpy(value, &held, kElementSizes[type]);
  return RESULT_OK;
}

int OctetSink_Append(const std::uint8_t* chunk, std::size_t length, void* sink) {
  auto* octets = static_cast<OctetSink*>(sink);
  auto* old = static_cast<std::uint8_t*>(octets->data);
  const std::size_t held = old == nullptr ? kOctetHead : LoadOctetLength(old);
  assert(octets->size == (old == nullptr ? 0 : held));
  assert(length == 0 || chunk != nullptr);
  std::size_t total = 0;
  std::uint8_t* block = nullptr;
  if (Size_Add(held, length, &total) == RESULT_OK && total <= UINT32_MAX)
    block = static_cast<std::uint8_t*>(Heap_Reallocate(old, total));
  if (block == nullptr) {
    Heap_Free(old);
    *octets = OctetSink{};
    return -1;
  }
  StoreOctetLength(static_cast<std::uint32_t>(total), block);
  if (length != 0) std::memcpy(block + held, chunk, length);
  octets->data = block;
  octets->size = static_cast<std::uint32_t>(total);
  return 0;
}

}  // namespace stewardry::cim
