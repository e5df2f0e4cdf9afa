// UTF-8 and UTF-16, one code point at a time. An invalid sequence decodes to U+FFFD everywhere; a
// caller chooses how much of it one U+FFFD replaces.
#pragma once

#include <cassert>
#include <cstddef>
#include <string>
#include <string_view>

namespace stewardry {

constexpr char32_t kReplacementPoint = 0xFFFD;
constexpr char32_t kLargestPoint = 0x10FFFF;

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
constexpr DecodedPoint DecodePoint(std::u16string_view text) {
  assert(!text.empty());
  const char32_t unit = text[0];
  if (!IsSurrogate(unit)) return {unit, 1, true};
  if (IsLowSurrogate(unit) || text.size() == 1 || !IsLowSurrogate(text[1]))
    return {kReplacementPoint, 1, false};
  return {0x10000 + ((unit - 0xD800) << 10) + (char32_t{text[1]} - 0xDC00), 2, true};
}

// Store the UTF-8 form (1 to 4 bytes) or the UTF-16 form (1 or 2 units) of a code point of at most
// kLargestPoint. Return its length.
constexpr std::size_t EncodePoint(char32_t point, char* out) {
  assert(point <= kLargestPoint);
  if (point < 0x80) {
    out[0] = static_cast<char>(point);
    return 1;
  }
  const std::size_t size = point < 0x800 ? 2 : point < 0x10000 ? 3 : 4;
  for (std::size_t i = size - 1; i > 0; --i, point >>= 6)
    out[i] = static_cast<char>(0x80 | (point & 0x3F));
  out[0] = static_cast<char>((0xF00u >> size & 0xFF) | point);
  return size;
}
constexpr std::size_t EncodePoint(char32_t point, char16_t* out) {
  assert(point <= kLargestPoint);
  if (point < 0x10000) {
    out[0] = static_cast<char16_t>(point);
    return 1;
  }
  out[0] = static_cast<char16_t>(0xD800 + ((point - 0x10000) >> 10));
  out[1] = static_cast<char16_t>(0xDC00 + (point & 0x3FF));
  return 2;
}

// Returns the UTF-16 form of a text in UTF-8. Each byte of an invalid sequence becomes U+FFFD.
std::u16string Utf16(std::string_view utf8);

// Returns the length of the longest prefix of `text`, valid UTF-8, that has at most `bound` bytes
// and does not end inside a sequence.
std::size_t Utf8PrefixLength(std::string_view text, std::size_t bound);

}  // namespace stewardry
