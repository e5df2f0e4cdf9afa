// CIM values: the 32 type codes, the flags of elements, and the union that carries a value of any
// type through the interfaces. A value does not record its type: the code always travels beside it.
//
// Text is UTF-16 in char16_t on every platform. Numbers are in host byte order, little-endian.
#pragma once

#include <array>
#include <cassert>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "cim/memory/result.h"

namespace stewardry::cim {

// Opaque here: a value holds a pointer to an instance, and the functions that follow it belong to
// cim/instance/.
struct Instance;

// Type codes. The array of a type is the type plus CIM_ARRAY.
enum CimType : std::uint32_t {
  CIM_BOOLEAN,
  CIM_UINT8,
  CIM_SINT8,
  CIM_UINT16,
  CIM_SINT16,
  CIM_UINT32,
  CIM_SINT32,
  CIM_UINT64,
  CIM_SINT64,
  CIM_REAL32,
  CIM_REAL64,
  CIM_CHAR16,
  CIM_DATETIME,
  CIM_STRING,
  CIM_REFERENCE,
  CIM_INSTANCE,
  CIM_BOOLEANA,
  CIM_UINT8A,
  CIM_SINT8A,
  CIM_UINT16A,
  CIM_SINT16A,
  CIM_UINT32A,
  CIM_SINT32A,
  CIM_UINT64A,
  CIM_SINT64A,
  CIM_REAL32A,
  CIM_REAL64A,
  CIM_CHAR16A,
  CIM_DATETIMEA,
  CIM_STRINGA,
  CIM_REFERENCEA,
  CIM_INSTANCEA,
};
constexpr std::uint32_t kCimTypes = 32;
constexpr std::uint32_t CIM_ARRAY = 16;
static_assert(CIM_INSTANCEA == kCimTypes - 1 && CIM_BOOLEANA == CIM_ARRAY);

// "BOOLEAN" to "INSTANCEA", by type code.
inline constexpr std::array<const char*, kCimTypes> kCimTypeNames = {
    "BOOLEAN",  "UINT8",   "SINT8",   "UINT16",  "SINT16",    "UINT32",  "SINT32",     "UINT64",
    "SINT64",   "REAL32",  "REAL64",  "CHAR16",  "DATETIME",  "STRING",  "REFERENCE",  "INSTANCE",
    "BOOLEANA", "UINT8A",  "SINT8A",  "UINT16A", "SINT16A",   "UINT32A", "SINT32A",    "UINT64A",
    "SINT64A",  "REAL32A", "REAL64A", "CHAR16A", "DATETIMEA", "STRINGA", "REFERENCEA", "INSTANCEA"};

// Bytes of a value, by type code.
constexpr std::array<std::uint8_t, kCimTypes> kElementSizes = {
    1,  1,  1,  2,  2,  4,  4,  8,  8,  4,  8,  2,  36, 8,  8,  8,
    16, 16, 16, 16, 16, 16, 16, 16, 16, 16, 16, 16, 16, 16, 16, 16};

// Return whether a type code is an array's, and the code of its elements. Accept any number.
constexpr bool CimType_IsArray(std::uint32_t type) { return (type & CIM_ARRAY) != 0; }
constexpr std::uint32_t CimType_Element(std::uint32_t type) { return type & ~CIM_ARRAY; }
// Returns true for REFERENCE, INSTANCE and arrays of them.
constexpr bool CimType_HoldsInstances(std::uint32_t type) {
  return CimType_Element(type) == CIM_REFERENCE || CimType_Element(type) == CIM_INSTANCE;
}
// Returns the alignment of a value in bytes: 1, 2, 4 (DATETIME: that of its words) or 8. Requires a
// type up to 31.
constexpr std::size_t CimType_Alignment(std::uint32_t type) {
  assert(type < kCimTypes);
  if (type == CIM_DATETIME) return 4;
  return kElementSizes[type] < 8 ? kElementSizes[type] : 8;
}

// Element flags: in definitions, and as argument and result of the operations on elements.
constexpr std::uint32_t FLAG_CLASS = 0x00000001;         // a class
constexpr std::uint32_t FLAG_METHOD = 0x00000002;        // a method
constexpr std::uint32_t FLAG_PARAMETER = 0x00000008;     // a parameter of a method
constexpr std::uint32_t FLAG_KIND_10 = 0x00000010;       // another kind of class
constexpr std::uint32_t FLAG_KIND_20 = 0x00000020;       // another kind of class
constexpr std::uint32_t FLAG_KEY = 0x00001000;           // a key property
constexpr std::uint32_t FLAG_OUT = 0x00004000;           // an outgoing parameter
constexpr std::uint32_t FLAG_NOT_MODIFIED = 0x02000000;  // result: SLOT_MODIFIED is clear
constexpr std::uint32_t FLAG_NULL = 0x20000000;    // argument: store a null; result: it is null
constexpr std::uint32_t FLAG_BORROW = 0x40000000;  // argument: store the pointer without a copy
constexpr std::uint32_t FLAG_ADOPT = 0x80000000;   // argument: accepted; the value is still copied

struct CimDatetime {
  struct Timestamp {
    std::uint32_t year, month, day, hour, minute, second, microseconds;
    std::int32_t utcOffset;  // minutes east of UTC
  };
  struct Interval {
    std::uint32_t days, hours, minutes, seconds, microseconds;
    std::uint32_t zero[3];
  };
  std::uint32_t timestampForm;  // 1 or 0
  union {
    Timestamp timestamp;
    Interval interval;
  };
};
static_assert(sizeof(CimDatetime) == 36 && offsetof(CimDatetime, timestamp) == 4 &&
              offsetof(CimDatetime, interval) == 4);

struct ArrayValue {
  void* data;  // `size` elements of the element type
  std::uint32_t size;
  std::uint32_t filler;
};
static_assert(sizeof(ArrayValue) == 16 && offsetof(ArrayValue, size) == 8);

// A value of any type. Passing one transfers no ownership of what it points to.
union CimValue {
  std::uint8_t boolean;  // 1 or 0
  std::uint8_t uint8;
  std::int8_t sint8;
  std::uint16_t uint16;
  std::int16_t sint16;
  std::uint32_t uint32;
  std::int32_t sint32;
  std::uint64_t uint64;
  std::int64_t sint64;
  float real32;
  double real64;
  char16_t char16;
  CimDatetime datetime;
  const char16_t* string;
  Instance* reference;
  Instance* instance;
  ArrayValue array;
  std::uint8_t bytes[40];
};
static_assert(sizeof(CimValue) == 40 && alignof(CimValue) == 8);

// Copies the bytes of a value. Requires `size` to be one of kElementSizes. The pieces have constant
// sizes: for a variable size the compiler may emit string instructions, whose start-up takes longer
// than the copy.
inline void CimValue_CopyBytes(void* to, const void* from, std::size_t size) {
  assert(size == 1 || size == 2 || size == 4 || size == 8 || size == sizeof(ArrayValue) ||
         size == sizeof(CimDatetime));
  auto* bytes = static_cast<std::uint8_t*>(to);
  const auto* source = static_cast<const std::uint8_t*>(from);
  if (size >= 8) {
    std::memcpy(bytes, source, 8);
    if (size > 8) std::memcpy(bytes + 8, source + 8, 8);
    if (size > 16) std::memcpy(bytes + 16, source + 16, sizeof(CimDatetime) - 16);
  } else if (size == 4) {
    std::memcpy(bytes, source, 4);
  } else {
    bytes[0] = source[0];
    if (size == 2) bytes[1] = source[1];
  }
}

// Reads the value stored at `raw` in its element size. Stores zeros for a null `raw` and for a type
// above 31.
inline void CimValue_FromRaw(std::uint32_t type, const void* raw, CimValue* value) {
  assert(value != nullptr);
  std::memset(value, 0, sizeof *value);
  if (raw != nullptr && type < kCimTypes) std::memcpy(value, raw, kElementSizes[type]);
}

// Returns true if both have the same form and the same words of that form. The unused words of an
// interval are ignored.
inline bool Datetime_Equal(const CimDatetime* a, const CimDatetime* b) {
  assert(a != nullptr && b != nullptr);
  if (a->timestampForm != b->timestampForm) return false;
  return a->timestampForm != 0
             ? std::memcmp(&a->timestamp, &b->timestamp, sizeof a->timestamp) == 0
             : std::memcmp(&a->interval, &b->interval, offsetof(CimDatetime::Interval, zero)) == 0;
}

}  // namespace stewardry::cim
