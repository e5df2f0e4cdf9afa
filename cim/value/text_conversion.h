// From 16-bit text to the scalar CIM types. Each converter takes the whole text or nothing. Whole
// numbers read as the C library reads them with base 0: blanks and a sign in front, "0x" for
// hexadecimal, a leading 0 for octal; what doesn't fit 32 or 64 bits becomes the nearest that does,
// and of that a smaller type takes the low bits without a test. An empty text is the number 0.
#pragma once

#include <cstdint>

namespace stewardry::cim {

// All give 0, or -1 for a text that is not a value of the type and for an empty pointer, and then
// leave the value alone. Any thread. They allocate nothing, but for a real number of 120 units
// and more, where a heap that fails gives -1.

// "true" gives 1 and "false" 0, in any case.
int Text_ToBoolean(const char16_t* text, std::uint8_t* value);

// Low bits of the unsigned 32-bit number: 300 as UINT8 is 44, -1 is all ones.
int Text_ToUint8(const char16_t* text, std::uint8_t* value);
int Text_ToUint16(const char16_t* text, std::uint16_t* value);
int Text_ToUint32(const char16_t* text, std::uint32_t* value);
int Text_ToChar16(const char16_t* text, char16_t* value);

// Low bits of the signed 32-bit number.
int Text_ToSint8(const char16_t* text, std::int8_t* value);
int Text_ToSint16(const char16_t* text, std::int16_t* value);
int Text_ToSint32(const char16_t* text, std::int32_t* value);

int Text_ToUint64(const char16_t* text, std::uint64_t* value);
int Text_ToSint64(const char16_t* text, std::int64_t* value);

// A decimal number, a hexadecimal one behind "0x", "inf", "infinity" or "nan" in any case, with
// blanks and a sign in front, rounded to the nearest; the point is a point in every locale. What is
// too large gives an infinity, what is too small a zero, each with the sign.
int Text_ToReal32(const char16_t* text, float* value);
int Text_ToReal64(const char16_t* text, double* value);

// One of the above behind a common form. `value` is aligned for the type and has its element size.
using TextConverter = int (*)(const char16_t* text, void* value);

constexpr std::uint32_t kTextConverterCount = 16;

// By scalar type code. Empty for STRING, REFERENCE and INSTANCE, which have no conversion.
extern const TextConverter TextConverters[kTextConverterCount];

}  // namespace stewardry::cim
