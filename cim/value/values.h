// What a value is: the 32 CIM types, the union in which a value passes through the interfaces, and
// the slot in which an instance keeps a property.
//
// A slot doesn't know its type: every operation is told it. The value comes first, in its element
// size, then the byte `present`, then the byte `flags`, then filler up to the slot's size. Text is
// UTF-16 in char16_t on every platform, and all numbers are in the host's order, little-endian.
//
// One thread at a time touches a slot, as it does the batch of its instance.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "cim/memory/batch.h"
#include "cim/memory/result.h"

namespace stewardry::cim {

struct Instance;
struct ValueSlot;  // bytes inside an instance, see above

// Element types; the array of a type is the type plus CIM_ARRAY.
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

// "BOOLEAN" to "INSTANCEA", by type.
extern const std::array<const char*, kCimTypes> kCimTypeNames;

// Bytes of a value, and of a slot that holds it, by type.
constexpr std::array<std::uint8_t, kCimTypes> kElementSizes = {
    1,  1,  1,  2,  2,  4,  4,  8,  8,  4,  8,  2,  36, 8,  8,  8,
    16, 16, 16, 16, 16, 16, 16, 16, 16, 16, 16, 16, 16, 16, 16, 16};
constexpr std::array<std::uint8_t, kCimTypes> kSlotSizes = {
    3,  3,  3,  4,  4,  8,  8,  16, 16, 8,  16, 4,  40, 16, 16, 16,
    24, 24, 24, 24, 24, 24, 24, 24, 24, 24, 24, 24, 24, 24, 24, 24};
constexpr std::size_t kMaxSlotSize = 40;

constexpr bool CimType_IsArray(std::uint32_t type) { return (type & CIM_ARRAY) != 0; }
constexpr std::uint32_t CimType_Element(std::uint32_t type) { return type & ~CIM_ARRAY; }

// Element flags: of definitions, and as argument and result of the element operations.
constexpr std::uint32_t FLAG_CLASS = 0x00000001;
constexpr std::uint32_t FLAG_METHOD = 0x00000002;
constexpr std::uint32_t FLAG_PARAMETER = 0x00000008;
constexpr std::uint32_t FLAG_KIND_10 = 0x00000010;
constexpr std::uint32_t FLAG_KIND_20 = 0x00000020;
constexpr std::uint32_t FLAG_KEY = 0x00001000;
constexpr std::uint32_t FLAG_OUT = 0x00004000;
constexpr std::uint32_t FLAG_NOT_MODIFIED = 0x02000000;  // result: SLOT_MODIFIED is clear
constexpr std::uint32_t FLAG_NULL = 0x20000000;    // argument: store a null; result: it is one
constexpr std::uint32_t FLAG_BORROW = 0x40000000;  // argument: store the pointer, don't copy
constexpr std::uint32_t FLAG_ADOPT =
    0x80000000;  // argument of some calls; a set copies all the same

// Bits of a slot's `flags`. Nothing in the library sets SLOT_MODIFIED; what would is left to an
// embedding program, and the get operations report it.
constexpr std::uint8_t SLOT_BORROWED = 1;
constexpr std::uint8_t SLOT_MODIFIED = 2;

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

// A value of any type. Whoever hands one over keeps what it points to.
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

// std::memcpy of a value, whose `size` is one of kElementSizes, in pieces of known sizes: for one
// that it doesn't know the compiler may put string instructions in line, which take longer to start
// than the copy lasts.
inline void CimValue_CopyBytes(void* to, const void* from, std::size_t size) {
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

// Overwrites the slot, whatever it held, with a copy of `value` in `batch`. Null for FLAG_NULL, an
// empty `value`, a type above 31, or an empty pointer of a STRING, REFERENCE or INSTANCE; an array
// with empty `data` is present and has no elements. FLAG_BORROW keeps the pointers, which must then
// outlive the slot. RESULT_FAILED, with a null slot, when memory fails, for a STRINGA, REFERENCEA
// or INSTANCEA with data and no elements, and for one with an empty element; or the failure of
// Instance_Copy.
Result ValueSlot_Set(ValueSlot* slot, std::uint32_t type, const CimValue* value,
                     std::uint32_t flags, Batch* batch);

// ValueSlot_Set on a slot that holds something: the old content goes once the new one is complete,
// and stays as it was when that fails.
Result ValueSlot_Assign(ValueSlot* slot, std::uint32_t type, const CimValue* value,
                        std::uint32_t flags, Batch* batch);

// A deep copy, also of what the source has borrowed. Overwrites as ValueSlot_Set does.
Result ValueSlot_Copy(ValueSlot* destination, std::uint32_t type, const ValueSlot* source,
                      Batch* batch);

// Gives back what the slot owns, and fills it with 0xDD: it must be set before it is read again.
void ValueSlot_Destroy(ValueSlot* slot, std::uint32_t type, Batch* batch);

// The same, and leaves a null.
void ValueSlot_Clear(ValueSlot* slot, std::uint32_t type, Batch* batch);

// Copies the value's bytes and the two behind it; what they point to stays the slot's. Neither, for
// a type above 31.
inline void ValueSlot_Read(const ValueSlot* slot, std::uint32_t type, CimValue* value,
                           bool* present, std::uint8_t* flags) {
  *present = false;
  *flags = 0;
  if (type >= kCimTypes) return;
  const auto* bytes = reinterpret_cast<const std::uint8_t*>(slot);
  const std::size_t size = kElementSizes[type];
  CimValue_CopyBytes(value, bytes, size);
  *present = bytes[size] != 0;
  *flags = bytes[size + 1];
}

// Whether the slot has a value. `type` is at most 31.
inline bool ValueSlot_IsPresent(const ValueSlot* slot, std::uint32_t type) {
  return reinterpret_cast<const std::uint8_t*>(slot)[kElementSizes[type]] != 0;
}

// Whether two slots of one type hold the same: both null, or equal values. REAL32 and REAL64 as
// numbers, text unit by unit, REFERENCE by its keys. INSTANCE and arrays are never equal.
bool ValueSlot_Equal(const ValueSlot* a, const ValueSlot* b, std::uint32_t type);

// The value that is stored at `raw` in its element size; zeros for an empty `raw` or a type
// above 31.
void CimValue_FromRaw(std::uint32_t type, const void* raw, CimValue* value);

// Stores a copy of `*element` at `data[index]`; `elementType` is a scalar type, and the caller
// keeps `index` inside what it reserved. For STRING, REFERENCE and INSTANCE the element is a cell
// with a pointer, which may be empty. RESULT_INVALID_PARAMETER for an array type,
// RESULT_SERVER_LIMITS_EXCEEDED when memory fails.
Result ArrayValue_StoreAt(Batch* batch, std::uint32_t elementType, void* data, std::uint32_t index,
                          const void* element);

// Equal in form and in every word of it.
bool Datetime_Equal(const CimDatetime* a, const CimDatetime* b);

}  // namespace stewardry::cim
