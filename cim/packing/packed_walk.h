// A walk over a packed instance where it lies: nothing is built and nothing is changed, so the same
// bytes may be walked any number of times. Instance_Unpack walks in these steps too.
//
//   PackedHead head;
//   Packed_ReadHead(&reader, &head);
//   for (i = 0; i < head.propertyCount; ++i) {
//     Packed_ReadProperty(&reader, &property);
//     if (property.present) ... one of the value calls below, by property.type
//   }
//   Packed_ReadTail(&reader);
//
// A REFERENCE or INSTANCE is a packed instance again, and an array of them a count before as many.
// The walk keeps no depth: whoever follows nested ones bounds them by kMaxPackedDepth.
//
// The reader's bytes lie at an address aligned to 8. Texts and arrays that come out point into
// them. RESULT_FAILED wherever they end too soon or don't hold what they must.
#pragma once

#include <cstdint>

#include "cim/packing/pack_buffer.h"
#include "cim/packing/pack_steps.h"

namespace stewardry::cim {

constexpr std::uint32_t INSTANCE_PACK_HEAD = 0x462B9957;
constexpr std::uint32_t INSTANCE_PACK_TAIL = 0x76F474E3;

// Instances within instances that are read: more is taken for an attack on the stack.
constexpr std::uint32_t kMaxPackedDepth = 64;

// The least bytes of a packed instance: head, flags, a class name of one letter, no name space, no
// properties, tail. No count of instances can be more than the bytes behind it divided by this.
constexpr std::uint32_t kMinPackedInstance = 28;

struct PackedHead {
  std::uint32_t classFlags;
  const char16_t* className;      // empty when the bytes have none
  const char16_t* namespaceName;  // or empty
  std::uint32_t propertyCount;    // as the bytes say
};

struct PackedProperty {
  std::uint32_t flags;
  const char16_t* name;  // empty when the bytes have none
  std::uint32_t type;    // at most 31
  bool present;          // a value follows
};

// Texts as they lie packed. Each has its terminator.
struct PackedTexts {
  std::uint32_t count;
  const std::uint64_t*
      offsets;            // count + 1 of them, in bytes; rising, to be counted from the first
  const char16_t* texts;  // the first text

  // The text at `index`, below the count, and its units without the terminator.
  const char16_t* At(std::uint32_t index) const {
    return texts + (offsets[index] - offsets[0]) / sizeof(char16_t);
  }
  std::uint32_t Length(std::uint32_t index) const {
    return static_cast<std::uint32_t>((offsets[index + 1] - offsets[index]) / sizeof(char16_t)) - 1;
  }
};

// The beginning of an instance, up to its properties.
Result Packed_ReadHead(PackBuf* reader, PackedHead* head);

// A property up to its value. RESULT_FAILED also for a type above 31.
Result Packed_ReadProperty(PackBuf* reader, PackedProperty* property);

// A value of the types up to STRING, or an array of the types up to DATETIMEA. For the other types
// RESULT_INVALID_PARAMETER.
Result Packed_ReadValue(PackBuf* reader, std::uint32_t type, CimValue* value);

// A STRING with its units, terminator not counted. No text is {empty, 0}.
Result Packed_ReadText(PackBuf* reader, const char16_t** text, std::uint32_t* length);

// The value of a STRINGA. No texts are {0, empty, empty}.
Result Packed_ReadTexts(PackBuf* reader, PackedTexts* texts);

// The count before the instances of a REFERENCEA or INSTANCEA. RESULT_FAILED also when the bytes
// left can't hold as many.
Result Packed_ReadInstanceCount(PackBuf* reader, std::uint32_t* count);

// The end of an instance. RESULT_INVALID_PARAMETER for another number than INSTANCE_PACK_TAIL.
Result Packed_ReadTail(PackBuf* reader);

// One comparison with the end covers all that a property begins with: flags and the count of its
// name, the name, and its type and `present` behind it.
inline Result Packed_ReadProperty(PackBuf* reader, PackedProperty* property) {
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

inline Result Packed_ReadValue(PackBuf* reader, std::uint32_t type, CimValue* value) {
  if (type < CIM_STRING) return Pack_GetScalar(reader, type, value);
  if (type == CIM_STRING) return PackBuf_GetStr(reader, &value->string);
  if (type < CIM_BOOLEANA || type > CIM_DATETIMEA) return RESULT_INVALID_PARAMETER;
  const std::uint32_t width = kElementSizes[CimType_Element(type)];
  const std::uint32_t alignment = width == 8 ? 8 : 1;  // the count before it has left 4
  value->array.filler = 0;
  return Pack_GetElements(reader, width, alignment, &value->array.data, &value->array.size);
}

inline Result Packed_ReadText(PackBuf* reader, const char16_t** text, std::uint32_t* length) {
  return Pack_GetText(reader, text, length);
}

}  // namespace stewardry::cim
