// The reader of a PackBuf and the out-of-line steps of a walk. The data are untrusted: every step
// takes its bytes through Pack_Take, which checks the bounds.
#include <cstring>

#include "cim/packing/pack_buffer.h"
#include "cim/packing/pack_steps.h"
#include "cim/packing/packed_walk.h"

namespace stewardry::cim {
namespace {

// Restores the reader's position unless the step is done.
class Step {
 public:
  explicit Step(PackBuf* reader) : reader_(reader), before_(reader->offset) {}
  Step(const Step&) = delete;
  Step& operator=(const Step&) = delete;
  ~Step() {
    if (result_ != RESULT_OK) reader_->offset = before_;
  }
  Result Done() {
    result_ = RESULT_OK;
    return result_;
  }

 private:
  PackBuf* reader_;
  const std::uint32_t before_;
  Result result_ = RESULT_FAILED;
};

template <class Element>
Result GetArray(PackBuf* reader, const Element** data, std::uint32_t* count) {
  void* place = nullptr;
  const Result result = Pack_GetElements(reader, sizeof(Element), alignof(Element), &place, count);
  if (result == RESULT_OK) *data = static_cast<const Element*>(place);
  return result;
}

// Returns the bytes of the texts, or 0 unless the offsets increase, each text has whole units and a
// terminator, and all end within `room` bytes.
std::uint64_t TextBytes(const PackedTexts& found, std::uint64_t room) {
  std::uint64_t end = 0;
  for (std::uint32_t i = 1; i <= found.count; ++i) {
    // A decrease wraps to more than `room`.
    const std::uint64_t next = found.offsets[i] - found.offsets[0];
    if (next <= end || next > room || next % sizeof(char16_t) != 0) return 0;
    if (found.texts[next / sizeof(char16_t) - 1] != 0) return 0;
    end = next;
  }
  return end;
}

Result GetTexts(PackBuf* reader, PackedTexts* texts) {
  Step step(reader);
  PackedTexts found = {0, nullptr, nullptr};
  if (Pack_GetNumber(reader, &found.count) != RESULT_OK) return RESULT_FAILED;
  if (found.count != 0) {
    const std::uint64_t entries = std::uint64_t{found.count} + 1;
    std::uint8_t* table = Pack_Take(reader, 8, entries * sizeof(std::uint64_t));
    if (table == nullptr) return RESULT_FAILED;
    found.offsets = reinterpret_cast<const std::uint64_t*>(table);
    found.texts = reinterpret_cast<const char16_t*>(found.offsets + entries);
    const std::uint64_t bytes = TextBytes(found, reader->size - reader->offset);
    if (bytes == 0) return RESULT_FAILED;
    (void)Pack_Take(reader, 1, bytes);  // cannot fail: TextBytes checked the bound
  }
  *texts = found;
  return step.Done();
}

}  // namespace

// The table lies in the reader's bytes, which may be changed. An entry and a pointer both have 64
// bits, and the entry for the end becomes a pointer too.
const char16_t* const* Pack_PointersInPlace(const PackedTexts& texts) {
  auto* entries = const_cast<std::uint64_t*>(texts.offsets);
  auto* pointers = reinterpret_cast<const char16_t**>(entries);
  static_assert(sizeof *pointers == sizeof *entries);
  const std::uint64_t first = entries[0];
  for (std::uint32_t i = 0; i <= texts.count; ++i) {
    const std::uint64_t offset = entries[i] - first;
    const char16_t* text = texts.texts + offset / sizeof(char16_t);
    std::memcpy(pointers + i, &text, sizeof text);
  }
  return pointers;
}

Result PackBuf_GetU8(PackBuf* buffer, std::uint8_t* value) { return Pack_GetNumber(buffer, value); }
Result PackBuf_GetU16(PackBuf* buffer, std::uint16_t* value) {
  return Pack_GetNumber(buffer, value);
}
Result PackBuf_GetU32(PackBuf* buffer, std::uint32_t* value) {
  return Pack_GetNumber(buffer, value);
}
Result PackBuf_GetU64(PackBuf* buffer, std::uint64_t* value) {
  return Pack_GetNumber(buffer, value);
}

Result PackBuf_GetDatetime(PackBuf* buffer, CimDatetime* value) {
  return Pack_GetDatetime(buffer, value);
}

Result PackBuf_GetStr(PackBuf* buffer, const char16_t** text) {
  std::uint32_t length = 0;
  return Pack_GetText(buffer, text, &length);
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
  *data = Pack_PointersInPlace(texts);
  return RESULT_OK;
}

Result Packed_TakeHead(PackBuf* reader, PackedHead* head) {
  Step step(reader);
  PackedHead found;
  std::uint32_t mark = 0;
  if (Pack_GetNumber(reader, &mark) != RESULT_OK || mark != INSTANCE_PACK_HEAD)
    return RESULT_FAILED;
  if (Pack_GetNumber(reader, &found.classFlags) != RESULT_OK ||
      PackBuf_GetStr(reader, &found.className) != RESULT_OK ||
      PackBuf_GetStr(reader, &found.namespaceName) != RESULT_OK ||
      Pack_GetNumber(reader, &found.propertyCount) != RESULT_OK)
    return RESULT_FAILED;
  *head = found;
  return step.Done();
}

Result Packed_TakeTexts(PackBuf* reader, PackedTexts* texts) { return GetTexts(reader, texts); }

}  // namespace stewardry::cim
