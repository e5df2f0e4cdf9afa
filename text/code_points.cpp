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

std::size_t Utf8PrefixLength(std::string_view text, std::size_t bound) {
  if (text.size() <= bound) return text.size();
  while (bound > 0 && IsContinuation(text[bound])) --bound;
  return bound;
}

std::u16string Utf16(std::string_view utf8) {
  std::u16string text;
  text.reserve(utf8.size());
  while (!utf8.empty()) {
    const DecodedPoint decoded = DecodePoint(utf8);
    char16_t units[2];
    text.append(units, EncodePoint(decoded.point, units));
    utf8.remove_prefix(decoded.isValid ? decoded.size : 1);
  }
  return text;
}

}  // namespace stewardry
