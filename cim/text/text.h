// Text of 16-bit units (UTF-16, char16_t) and narrow text (bytes, UTF-8 where it is read as
// characters): bounded copies between the two, comparison, and the way out to UTF-8. Both end with
// a zero. Any thread may call anything here.
#pragma once

#include <cstddef>

namespace stewardry::cim {

// Bounded copies. `dst` has room for `size` units: at most size - 1 are stored, and a terminator
// always follows; with `size` 0 nothing is stored. Each gives the length of the whole source, so a
// result of `size` or more says that the copy was cut. The concatenations find the end of what
// `dst` holds first; one that has no end within `size` gets a terminator at its last place.
std::size_t Text_Copy(char16_t* dst, const char16_t* src, std::size_t size);
std::size_t Text_Cat(char16_t* dst, const char16_t* src, std::size_t size);
std::size_t Text_CopyNarrow(char* dst, const char* src, std::size_t size);
std::size_t Text_CatNarrow(char* dst, const char* src, std::size_t size);
// The low byte of each unit.
std::size_t Text_CopyToNarrow(char* dst, const char16_t* src, std::size_t size);
// Each byte sign-extended.
std::size_t Text_CopyFromNarrow(char16_t* dst, const char* src, std::size_t size);
std::size_t Text_CatFromNarrow(char16_t* dst, const char* src, std::size_t size);

// The UTF-8 form of `length` units, without a terminator of its own; surrogates without a partner
// become U+FFFD. Gives the number of bytes stored, or 0 if `size` bytes don't hold them all or
// `length` is 0. With an empty `dst` nothing is stored and `size` not looked at: the bytes needed.
// What WideCharToMultiByte gives for code page 65001 (CP_UTF8) and no flags.
int Text_ToUtf8(const char16_t* text, int length, char* dst, int size);

// -1, 0 or 1 by the first unit that differs, as unsigned numbers.
int Text_Compare(const char16_t* a, const char16_t* b);

// The code point at text[*at], and *at moved behind it; U+FFFD for what is none. *at is below
// `length`.
char32_t Text_NextCodePoint(const char16_t* text, std::size_t length, std::size_t* at);
// The same in UTF-8; of what is no valid sequence one byte is taken.
char32_t Text_NextCodePoint(const char* text, std::size_t length, std::size_t* at);

// Stores the form of a code point, and gives its length: 1 to 4 bytes of UTF-8, 1 or 2 units.
std::size_t Text_Encode(char32_t codePoint, char* out);
std::size_t Text_Encode(char32_t codePoint, char16_t* out);

}  // namespace stewardry::cim
