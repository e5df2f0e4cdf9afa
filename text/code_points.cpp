#include "text/code_points.h"

#include <cassert>
#include <cstdint>

namespace stewardry {

namespace {

// A UTF-8 sequence by its lead byte: the fixed bits of that byte, the number of continuation bytes,
// and the smallest code point that needs them (The Unicode Standard, table 3-7).
struct Lead {
  std::uint8_t mask;
  std::uint8_t value;
  std::uint8_t following;
  char32_t smallest;
};
constexpr Lead kLeads[] = {
    {0x80, 0x00, 0, 0}, {0xE0, 0xC0, 1, 0x80}, {0xF0, 0xE0, 2, 0x800}, {0xF8, 0xF0, 3, 0x10000}};
constexpr char32_t kLargestPoint = 0x10FFFF;

constexpr bool IsContinuation(char byte) {
  return (static_cast<std::uint8_t>(byte) & 0xC0) == 0x80;
}

DecodedPoint DecodeSequence(std::string_view text, const Lead& lead) {
  char32_t point = static_cast<std::uint8_t>(text[0]) & ~lead.mask & 0xFFu;
  std::size_t size = 1;
  for (; size <= lead.following; ++size) {
    if (size == text.size() || !IsContinuation(text[size])) return {kReplacementPoint, size, false};
    point = point << 6 | (static_cast<std::uint8_t>(text[size]) & 0x3Fu);
  }
  const bool isValid = point >= lead.smallest && point <= kLargestPoint && !IsSurrogate(point);
  return {isValid ? point : kReplacementPoint, size, isValid};
}

}  // namespace

DecodedPoint DecodePoint(std::string_view text) {
  assert(!text.empty());
  const auto first = static_cast<std::uint8_t>(text[0]);
  for (const Lead& lead : kLeads)
    if ((first & lead.mask) == lead.value) return DecodeSequence(text, lead);
  return {kReplacementPoint, 1, false};
}

DecodedPoint DecodePoint(std::u16string_view text) {
  assert(!text.empty());
  const char32_t unit = text[0];
  if (!IsSurrogate(unit)) return {unit, 1, true};
  if (IsLowSurrogate(unit) || text.size() == 1 || !IsLowSurrogate(text[1]))
    return {kReplacementPoint, 1, false};
  return {0x10000 + ((unit - 0xD800) << 10) + (char32_t{text[1]} - 0xDC00), 2, true};
}

std::size_t EncodePoint(char32_t point, char* out) {
  assert(point <= kLargestPoint);
  std::size_t following = 0;
  while (following < 3 && point >= kLeads[following + 1].smallest) ++following;
  for (std::size_t i = following; i > 0; --i, point >>= 6)
    out[i] = static_cast<char>(0x80 | (point & 0x3F));
  out[0] = static_cast<char>(kLeads[following].value | point);
  return following + 1;
}

std::size_t EncodePoint(char32_t point, char16_t* out) {
  assert(point <= kLargestPoint);
  if (point < 0x10000) {
    out[0] = static_cast<char16_t>(point);
    return 1;
  }
  out[0] = static_cast<char16_t>(0xD800 + ((point - 0x10000) >> 10));
  out[1] = static_cast<char16_t>(0xDC00 + (point & 0x3FF));
  return 2;
}

std::size_t Utf8PrefixLength(std::string_view text, std::size_t bound) {
  if (text.size() <= bound) return text.size();
  while (bound > 0 && IsContinuation(text[bound])) --bound;
  return bound;
}

}  // namespace stewardry
