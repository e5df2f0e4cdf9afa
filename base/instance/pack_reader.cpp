// The reader of a PackBuf, and the steps of a walk over a packed instance. Every step takes its
// bytes through Pack_Take, which alone moves the position.
#include <cstring>

#include "base/instance/pack_buffer.h"
#include "base/instance/pack_steps.h"
#include "base/instance/packed_walk.h"

namespace stewardry {
namespace {

// Takes back what a step has taken when the step fails later.
class Step {
 public:
  explicit Step(PackBuf* reader) : reader_(reader), before_(reader->offset) {}
  Step(const Step&) = delete;
  Step& operator=(const Step&) = delete;
  ~Step() {
    if (result_ != RESULT_OK) reader_->offset = before_;
  }
  Result Done() { return result_ = RESULT_OK; }

 private:
  PackBuf* reader_;
  const std::uint32_t before_;
  Result result_ = RESULT_FAILED;
};

template <class Number>
inline Result GetNumber(PackBuf* reader, Number* value) {
  const std::uint8_t* place = Pack_Take(reader, sizeof *value, sizeof *value);
  if (place == nullptr) return RESULT_FAILED;
  std::memcpy(value, place, sizeof *value);
  return RESULT_OK;
}

// An array of plain elements of `width` bytes, aligned to `alignment`. Elements of 64 bits alone
// can want an alignment that the count hasn't.
inline Result GetElements(PackBuf* reader, std::uint32_t width, std::uint32_t alignment,
                          void** data, std::uint32_t* count) {
  const std::uint32_t before = reader->offset;
  std::uint32_t found = 0;
  if (GetNumber(reader, &found) != RESULT_OK) return RESULT_FAILED;
  void* place = nullptr;
  if (found != 0) {
    place = Pack_Take(reader, alignment, std::uint64_t{found} * width);
    if (place == nullptr) return reader->offset = before, RESULT_FAILED;
  }
  *data = place;
  *count = found;
  return RESULT_OK;
}

template <class Element>
Result GetArray(PackBuf* reader, const Element** data, std::uint32_t* count) {
  void* place = nullptr;
  const Result result = GetElements(reader, sizeof(Element), alignof(Element), &place, count);
  if (result == RESULT_OK) *data = static_cast<const Element*>(place);
  return result;
}

inline Result GetText(PackBuf* reader, const char16_t** text, std::uint32_t* length) {
  const std::uint32_t before = reader->offset;
  std::uint32_t count = 0;
  if (GetNumber(reader, &count) != RESULT_OK) return RESULT_FAILED;
  if (count == 0) return *text = nullptr, *length = 0, RESULT_OK;
  // Aligned to 2, since the count before it was aligned to 4.
  const auto* units = reinterpret_cast<const char16_t*>(
      Pack_Take(reader, 1, std::uint64_t{count} * sizeof(char16_t)));
  if (units == nullptr || units[count - 1] != 0) return reader->offset = before, RESULT_FAILED;
  *text = units;
  *length = count - 1;
  return RESULT_OK;
}

// The bytes that the texts take by their offsets, if each lies behind the one before, holds whole
// units and ends with a terminator, and all end within `room`; else none.
std::uint64_t TextBytes(const PackedTexts& found, std::uint64_t room) {
  std::uint64_t end = 0;
  for (std::uint32_t i = 1; i <= found.count; ++i) {
    const std::uint64_t next = found.offsets[i] - found.offsets[0];  // wraps to more than any room
    if (next <= end || next > room || next % sizeof(char16_t) != 0) return 0;
    if (found.texts[next / sizeof(char16_t) - 1] != 0) return 0;
    end = next;
  }
  return end;
}

Result GetTexts(PackBuf* reader, PackedTexts* texts) {
  Step step(reader);
  PackedTexts found = {0, nullptr, nullptr};
  if (GetNumber(reader, &found.count) != RESULT_OK) return RESULT_FAILED;
  if (found.count != 0) {
    const std::uint64_t entries = std::uint64_t{found.count} + 1;
    std::uint8_t* table = Pack_Take(reader, 8, entries * sizeof(std::uint64_t));
    if (table == nullptr) return RESULT_FAILED;
    found.offsets = reinterpret_cast<const std::uint64_t*>(table);
    found.texts = reinterpret_cast<const char16_t*>(found.offsets + entries);
    const std::uint64_t bytes = TextBytes(found, reader->size - reader->offset);
    if (bytes == 0) return RESULT_FAILED;
    (void)Pack_Take(reader, 1, bytes);  // there are as many
  }
  *texts = found;
  return step.Done();
}

// A scalar value at the alignment of its width; a date and time at that of its words.
Result GetScalar(PackBuf* reader, std::uint32_t type, CimValue* value) {
  if (type == CIM_DATETIME) return PackBuf_GetDatetime(reader, &value->datetime);
  const std::uint32_t width = kElementSizes[type];
  const std::uint8_t* place = Pack_Take(reader, width, width);
  if (place == nullptr) return RESULT_FAILED;
  // Mostly eight bytes follow, of which the low ones are the value: no call to copy a few bytes.
  if (place + 8 <= reader->data + reader->size)
    value->uint64 = Pack_Load<std::uint64_t>(place) & (~0ULL >> (64 - 8 * width));
  else
    std::memcpy(value, place, width);
  return RESULT_OK;
}

}  // namespace

Result PackBuf_GetU8(PackBuf* buffer, std::uint8_t* value) { return GetNumber(buffer, value); }
Result PackBuf_GetU16(PackBuf* buffer, std::uint16_t* value) { return GetNumber(buffer, value); }
Result PackBuf_GetU32(PackBuf* buffer, std::uint32_t* value) { return GetNumber(buffer, value); }
Result PackBuf_GetU64(PackBuf* buffer, std::uint64_t* value) { return GetNumber(buffer, value); }

Result PackBuf_GetDatetime(PackBuf* buffer, CimDatetime* value) {
  const std::uint8_t* place = Pack_Take(buffer, alignof(CimDatetime), sizeof *value);
  if (place == nullptr) return RESULT_FAILED;
  std::memcpy(value, place, sizeof *value);
  return RESULT_OK;
}

Result PackBuf_GetStr(PackBuf* buffer, const char16_t** text) {
  std::uint32_t length = 0;
  return GetText(buffer, text, &length);
}

Result PackBuf_GetU8A(PackBuf* buffer, const std::uint8_t** data, std::uint32_t* count) {
  return GetArray(buffer, data, count);
}
Result PackBuf_GetU16A(PackBuf* buffer, const std::uint16_t** data, std::uint32_t* count) {
  return GetArray(buffer, data, count);
}
Result PackBuf_GetU32A(PackBuf* buffer, const std::uint32_t** data, std::uint32_t* count) {
  return GetArray(buffer, data, count);
}
Result PackBuf_GetU64A(PackBuf* buffer, const std::uint64_t** data, std::uint32_t* count) {
  return GetArray(buffer, data, count);
}
Result PackBuf_GetDatetimeA(PackBuf* buffer, const CimDatetime** data, std::uint32_t* count) {
  return GetArray(buffer, data, count);
}

Result PackBuf_GetStrA(PackBuf* buffer, const char16_t* const** data, std::uint32_t* count) {
  PackedTexts texts;
  const Result result = GetTexts(buffer, &texts);
  if (result != RESULT_OK) return result;
  *data = nullptr;
  *count = texts.count;
  if (texts.count == 0) return RESULT_OK;
  // The table lies in the reader's own bytes, which may be changed. An entry and a pointer are both
  // of 64 bits, and the entry for the end becomes a pointer too.
  auto* entries = const_cast<std::uint64_t*>(texts.offsets);
  auto* pointers = reinterpret_cast<const char16_t**>(entries);
  static_assert(sizeof *pointers == sizeof *entries);
  const std::uint64_t first = entries[0];
  for (std::uint32_t i = 0; i <= texts.count; ++i) {
    const std::uint64_t offset = entries[i] - first;
    const char16_t* text = texts.texts + offset / sizeof(char16_t);
    std::memcpy(pointers + i, &text, sizeof text);
  }
  *data = pointers;
  return RESULT_OK;
}

Result Packed_ReadHead(PackBuf* reader, PackedHead* head) {
  Step step(reader);
  PackedHead found;
  std::uint32_t mark = 0;
  if (GetNumber(reader, &mark) != RESULT_OK || mark != INSTANCE_PACK_HEAD) return RESULT_FAILED;
  if (GetNumber(reader, &found.classFlags) != RESULT_OK ||
      PackBuf_GetStr(reader, &found.className) != RESULT_OK ||
      PackBuf_GetStr(reader, &found.namespaceName) != RESULT_OK ||
      GetNumber(reader, &found.propertyCount) != RESULT_OK)
    return RESULT_FAILED;
  *head = found;
  return step.Done();
}

// One comparison with the end covers all that a property begins with: flags and the count of its
// name, the name, and its type and `present` behind it.
Result Packed_ReadProperty(PackBuf* reader, PackedProperty* property) {
  constexpr std::uint64_t kBeforeName = 8, kBehindName = 5;
  const std::uint64_t start = Pack_Align(reader->offset, 4);
  if (start + kBeforeName > reader->size) return RESULT_FAILED;
  const std::uint8_t* bytes = reader->data + start;
  const auto count = Pack_Load<std::uint32_t>(bytes + 4);
  const std::uint64_t name = std::uint64_t{count} * sizeof(char16_t);
  const std::uint64_t typeAt = Pack_Align(kBeforeName + name, 4);
  if (start + typeAt + kBehindName > reader->size) return RESULT_FAILED;
  const auto* units = reinterpret_cast<const char16_t*>(bytes + kBeforeName);
  if (count != 0 && units[count - 1] != 0) return RESULT_FAILED;
  const auto type = Pack_Load<std::uint32_t>(bytes + typeAt);
  if (type >= kCimTypes) return RESULT_FAILED;
  property->flags = Pack_Load<std::uint32_t>(bytes);
  property->name = count == 0 ? nullptr : units;
  property->type = type;
  property->present = bytes[typeAt + 4] != 0;
  reader->offset = static_cast<std::uint32_t>(start + typeAt + kBehindName);
  return RESULT_OK;
}

Result Packed_ReadValue(PackBuf* reader, std::uint32_t type, CimValue* value) {
  if (type < CIM_STRING) return GetScalar(reader, type, value);
  if (type == CIM_STRING) return PackBuf_GetStr(reader, &value->string);
  if (type < CIM_BOOLEANA || type > CIM_DATETIMEA) return RESULT_INVALID_PARAMETER;
  const std::uint32_t width = kElementSizes[CimType_Element(type)];
  const std::uint32_t alignment = width == 8 ? 8 : 1;  // the count before it has left 4
  value->array.filler = 0;
  return GetElements(reader, width, alignment, &value->array.data, &value->array.size);
}

Result Packed_ReadText(PackBuf* reader, const char16_t** text, std::uint32_t* length) {
  return GetText(reader, text, length);
}

Result Packed_ReadTexts(PackBuf* reader, PackedTexts* texts) { return GetTexts(reader, texts); }

Result Packed_ReadInstanceCount(PackBuf* reader, std::uint32_t* count) {
  Step step(reader);
  std::uint32_t found = 0;
  if (GetNumber(reader, &found) != RESULT_OK) return RESULT_FAILED;
  if (found > (reader->size - reader->offset) / kMinPackedInstance) return RESULT_FAILED;
  *count = found;
  return step.Done();
}

Result Packed_ReadTail(PackBuf* reader) {
  Step step(reader);
  std::uint32_t mark = 0;
  if (GetNumber(reader, &mark) != RESULT_OK) return RESULT_FAILED;
  return mark == INSTANCE_PACK_TAIL ? step.Done() : RESULT_INVALID_PARAMETER;
}

}  // namespace stewardry
