// Text of 16-bit units (UTF-16, char16_t) and narrow text (bytes, UTF-8 where it is read as
// characters): bounded copies between the two, comparison, and conversion to UTF-8. Both kinds end
// with a zero. Any thread may call anything here.
#pragma once

#include <cstddef>

namespace stewardry::cim {

// Bounded copies. `dst` has room for `size` units: at most size - 1 are stored and a terminator
// always follows; nothing is stored if `size` is 0. Return the length of the whole source: a result
// of `size` or more means that the copy was cut. The concatenations first find the end of the text
// in `dst`; if there is none within `size`, the last unit becomes the terminator.
std::size_t Text_Copy(char16_t* dst, const char16_t* src, std::size_t size);
std::size_t Text_Cat(char16_t* dst, const char16_t* src, std::size_t size);
std::size_t Text_CopyNarrow(char* dst, const char* src, std::size_t size);
std::size_t Text_CatNarrow(char* dst, const char* src, std::size_t size);
// Copies the low byte of each unit.
std::size_t Text_CopyToNarrow(char* dst, const char16_t* src, std::size_t size);
// Sign-extend each byte.
std::size_t Text_CopyFromNarrow(char16_t* dst, const char* src, std::size_t size);
std::size_t Text_CatFromNarrow(char16_t* dst, const char* src, std::size_t size);

// Stores the UTF-8 form of `length` units, without a terminator of its own; surrogates without a
// partner become U+FFFD. Returns the number of bytes stored, or 0 if `length` is 0 or `size` bytes
// do not hold them all. With a null `dst` it stores nothing, ignores `size` and returns the number
// of bytes needed. Equals WideCharToMultiByte with code page 65001 (CP_UTF8) and no flags.
int Text_ToUtf8(const char16_t* text, int length, char* dst, int size);

// Returns -1, 0 or 1 by the first unit that differs, as unsigned numbers.
int Text_Compare(const char16_t* a, const char16_t* b);

}  // namespace stewardry::cim
