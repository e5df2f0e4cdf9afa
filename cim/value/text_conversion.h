// Converts 16-bit text to the scalar CIM types. A converter accepts only a whole text. Integers
// have the syntax of strtoul with base 0: leading blanks and a sign, "0x" for hexadecimal, a
// leading 0 for octal. A number outside 32 or 64 bits becomes the nearest one inside; a smaller
// type gets the low bits of that, unchecked. An empty text is the number 0.
#pragma once

#include <cstdint>

namespace stewardry::cim {

// All return 0. They return -1 and leave the value unchanged for a text that is not a value of the
// type, for a null argument, and if allocation fails: a real number of 120 units or more needs
// memory. Any thread.

// Stores 1 for "true" and 0 for "false", ignoring case.
int Text_ToBoolean(const char16_t* text, std::uint8_t* value);

// Store the low bits of the unsigned 32-bit number: 300 as UINT8 is 44, -1 is all ones.
int Text_ToUint8(const char16_t* text, std::uint8_t* value);
int Text_ToUint16(const char16_t* text, std::uint16_t* value);
int Text_ToUint32(const char16_t* text, std::uint32_t* value);
int Text_ToChar16(const char16_t* text, char16_t* value);

// Store the low bits of the signed 32-bit number.
int Text_ToSint8(const char16_t* text, std::int8_t* value);
int Text_ToSint16(const char16_t* text, std::int16_t* value);
int Text_ToSint32(const char16_t* text, std::int32_t* value);

int Text_ToUint64(const char16_t* text, std::uint64_t* value);
int Text_ToSint64(const char16_t* text, std::int64_t* value);

// Accept leading blanks, a sign, and a decimal number, a hexadecimal one after "0x", "inf",
// "infinity" or "nan" in any case, independent of the locale. Round to the nearest value; a number
// too large becomes an infinity, one too small a zero, both with the sign.
int Text_ToReal32(const char16_t* text, float* value);
int Text_ToReal64(const char16_t* text, double* value);

// The common form of a converter. Requires `value` to be aligned for the type.
using TextConverter = int (*)(const char16_t* text, void* value);

constexpr std::uint32_t kTextConverterCount = 16;

// By scalar type code. Null for STRING, REFERENCE and INSTANCE, which have no conversion.
extern const TextConverter TextConverters[kTextConverterCount];

}  // namespace stewardry::cim
