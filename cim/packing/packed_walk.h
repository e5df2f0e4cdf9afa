// Reads a packed instance in place: builds nothing and changes nothing, so the same bytes may be
// walked any number of times. Instance_Unpack uses the same steps.
//
//   PackedHead head;
//   Packed_ReadHead(&reader, &head);
//   for (i = 0; i < head.propertyCount; ++i) {
//     Packed_ReadProperty(&reader, &property);
//     if (property.present) ... one of the functions for values below, by property.type
//   }
//   Packed_ReadTail(&reader);
//
// A REFERENCE or INSTANCE is a nested packed instance, an array of them a count and as many packed
// instances. A walk does not count the depth: the caller limits it to kMaxPackedDepth.
//
// The steps are inline and pass no address of `reader` on: a reader that is a local variable of the
// caller, such as a copy of a parameter's, stays in registers. Each place follows from the item
// before, so a position in memory costs a third of the time.
//
// Requires bytes at an address aligned to 8. Texts and arrays in outs point into them. Every
// function returns RESULT_OK, or RESULT_FAILED for bytes that end too soon or violate the form; the
// position is then unchanged.
#pragma once

#include <cstdint>

#include "cim/packing/pack_buffer.h"
#include "cim/packing/pack_steps.h"

namespace stewardry::cim {

constexpr std::uint32_t INSTANCE_PACK_HEAD = 0x462B9957;
constexpr std::uint32_t INSTANCE_PACK_TAIL = 0x76F474E3;

// The deepest nesting that is read. It bounds the stack that untrusted bytes can use.
constexpr std::uint32_t kMaxPackedDepth = 64;

// The smallest packed instance in bytes: head, flags, a class name of one letter, no name space, no
// properties, tail. It bounds the count of an array of instances by the bytes that follow.
constexpr std::uint32_t kMinPackedInstance = 28;

struct PackedHead {
  std::uint32_t classFlags;
  const char16_t* className;      // or null
  const char16_t* namespaceName;  // or null
  std::uint32_t propertyCount;    // unchecked
};

struct PackedProperty {
  std::uint32_t flags;
  const char16_t* name;  // or null
  std::uint32_t type;    // at most 31
  bool present;          // a value follows
};

// The texts of a STRINGA in place. Each has its terminator.
struct PackedTexts {
  std::uint32_t count;
  const std::uint64_t* offsets;  // count + 1 increasing offsets in bytes, relative to the first
  const char16_t* texts;         // the first text

  // Return the text at `index`, which is below the count, and its length without the terminator.
  const char16_t* At(std::uint32_t index) const {
    assert(index < count);
    return texts + (offsets[index] - offsets[0]) / sizeof(char16_t);
  }
  std::uint32_t Length(std::uint32_t index) const {
    assert(index < count);
    return static_cast<std::uint32_t>((offsets[index + 1] - offsets[index]) / sizeof(char16_t)) - 1;
  }
};

// Reads the head of an instance, up to its properties.
Result Packed_ReadHead(PackBuf* reader, PackedHead* head);

// Reads a property up to its value. Returns RESULT_FAILED for a type above 31 too.
Result Packed_ReadProperty(PackBuf* reader, PackedProperty* property);

// Reads a value of a type up to STRING or an array of a type up to DATETIMEA. Returns
// RESULT_INVALID_PARAMETER for the other types.
Result Packed_ReadValue(PackBuf* reader, std::uint32_t type, CimValue* value);

// Reads a STRING and its length without the terminator. A missing text is a null with length 0.
Result Packed_ReadText(PackBuf* reader, const char16_t** text, std::uint32_t* length);

// Reads the value of a STRINGA. Without texts both pointers are null.
Result Packed_ReadTexts(PackBuf* reader, PackedTexts* texts);

// Reads the count of a REFERENCEA or INSTANCEA. Returns RESULT_FAILED if the bytes that follow
// cannot hold as many instances.
Result Packed_ReadInstanceCount(PackBuf* reader, std::uint32_t* count);

// Reads the tail of an instance. Returns RESULT_INVALID_PARAMETER for any number but
// INSTANCE_PACK_TAIL.
Result Packed_ReadTail(PackBuf* reader);

// Replaces the offsets by pointers to the texts, as PackBuf_GetStrA, and returns the table.
const char16_t* const* Pack_PointersInPlace(const PackedTexts& texts);

// Do the same out of line.
Result Packed_TakeHead(PackBuf* reader, PackedHead* head);
Result Packed_TakeTexts(PackBuf* reader, PackedTexts* texts);

inline Result Packed_ReadHead(PackBuf* reader, PackedHead* head) {
  PackBuf copy = *reader;
  const Result result = Packed_TakeHead(&copy, head);
  reader->offset = copy.offset;
  return result;
}

inline Result Packed_ReadTexts(PackBuf* reader, PackedTexts* texts) {
  PackBuf copy = *reader;
  const Result result = Packed_TakeTexts(&copy, texts);
  reader->offset = copy.offset;
  return result;
}

inline Result Packed_ReadInstanceCount(PackBuf* reader, std::uint32_t* count) {
  const std::uint32_t before = reader->offset;
  std::uint32_t found = 0;
  if (Pack_GetNumber(reader, &found) != RESULT_OK) return RESULT_FAILED;
  if (found > (reader->size - reader->offset) / kMinPackedInstance) {
    reader->offset = before;
    return RESULT_FAILED;
  }
  *count = found;
  return RESULT_OK;
}

inline Result Packed_ReadTail(PackBuf* reader) {
  const std::uint32_t before = reader->offset;
  std::uint32_t mark = 0;
  if (Pack_GetNumber(reader, &mark) != RESULT_OK) return RESULT_FAILED;
  if (mark == INSTANCE_PACK_TAIL) return RESULT_OK;
  reader->offset = before;
  return RESULT_INVALID_PARAMETER;
}

// Two comparisons with the end cover the property's head: flags and the count of the name; the
// name, the type and `present`.
inline Result Packed_ReadProperty(PackBuf* reader, PackedProperty* property) {
  constexpr std::uint64_t kBeforeName = 8, kAfterName = 5;
  assert(Pack_IsAligned(reader->data) && reader->offset <= reader->size);
  const std::uint64_t start = Pack_Align(reader->offset, 4);
  if (start + kBeforeName > reader->size) return RESULT_FAILED;
  const std::uint8_t* bytes = reader->data + start;
  const auto count = Pack_Load<std::uint32_t>(bytes + 4);
  const std::uint64_t name = std::uint64_t{count} * sizeof(char16_t);
  const std::uint64_t typeAt = Pack_Align(kBeforeName + name, 4);
  if (start + typeAt + kAfterName > reader->size) return RESULT_FAILED;
  const auto* units = reinterpret_cast<const char16_t*>(bytes + kBeforeName);
  if (count != 0 && units[count - 1] != 0) return RESULT_FAILED;
  const auto type = Pack_Load<std::uint32_t>(bytes + typeAt);
  if (type >= kCimTypes) return RESULT_FAILED;
  property->flags = Pack_Load<std::uint32_t>(bytes);
  property->name = count == 0 ? nullptr : units;
  property->type = type;
  property->present = bytes[typeAt + 4] != 0;
  reader->offset = static_cast<std::uint32_t>(start + typeAt + kAfterName);
  return RESULT_OK;
}

inline Result Packed_ReadValue(PackBuf* reader, std::uint32_t type, CimValue* value) {
  if (type < CIM_STRING) return Pack_GetScalar(reader, type, value);
  std::uint32_t length = 0;
  if (type == CIM_STRING) return Pack_GetText(reader, &value->string, &length);
  if (type < CIM_BOOLEANA || type > CIM_DATETIMEA) return RESULT_INVALID_PARAMETER;
  const std::uint32_t width = kElementSizes[CimType_Element(type)];
  const std::uint32_t alignment = width == 8 ? 8 : 1;  // the count is aligned to 4
  value->array.filler = 0;
  return Pack_GetElements(reader, width, alignment, &value->array.data, &value->array.size);
}

inline Result Packed_ReadText(PackBuf* reader, const char16_t** text, std::uint32_t* length) {
  return Pack_GetText(reader, text, length);
}

}  // namespace stewardry::cim
