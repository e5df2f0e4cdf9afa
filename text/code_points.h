// UTF-8 and UTF-16, one code point at a time. An invalid sequence decodes to U+FFFD everywhere; a
// caller chooses how much of it one U+FFFD replaces.
#pragma once

#include <cstddef>
#include <string_view>

namespace stewardry {

constexpr char32_t kReplacementPoint = 0xFFFD;

constexpr bool IsHighSurrogate(char32_t unit) { return unit >= 0xD800 && unit < 0xDC00; }
constexpr bool IsLowSurrogate(char32_t unit) { return unit >= 0xDC00 && unit < 0xE000; }
constexpr bool IsSurrogate(char32_t unit) { return unit >= 0xD800 && unit < 0xE000; }

struct DecodedPoint {
  char32_t point;    // kReplacementPoint for an invalid sequence
  std::size_t size;  // units of the sequence, valid or not; at least 1
  bool isValid;
};

// Decodes the sequence at the start of `text`, which must not be empty. Invalid in UTF-8: a cut or
// overlong sequence, a surrogate, a value above 0x10FFFF, a byte that begins no sequence. The size
// of an invalid sequence counts its lead byte and the continuation bytes that belong to it. Invalid
// in UTF-16: a surrogate without its partner, of size 1.
DecodedPoint DecodePoint(std::string_view text);
DecodedPoint DecodePoint(std::u16string_view text);

// Stores the UTF-8 form (1 to 4 bytes) or the UTF-16 form (1 or 2 units) of a code point of at most
// 0x10FFFF. Returns its length.
std::size_t EncodePoint(char32_t point, char* out);
std::size_t EncodePoint(char32_t point, char16_t* out);

// Returns the length of the longest prefix of `text`, valid UTF-8, that has at most `bound` bytes
// and does not end inside a sequence.
std::size_t Utf8PrefixLength(std::string_view text, std::size_t bound);

}  // namespace stewardry
