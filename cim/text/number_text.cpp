#include "cim/text/number_text.h"

#include <limits>

namespace stewardry::cim {

namespace {

constexpr auto kSmallNumberTexts = [] {
  std::array<SmallNumberText, 64> texts{};
  for (std::size_t i = 0; i < texts.size(); ++i) {
    const char ones = static_cast<char>('0' + i % 10);
    texts[i] = i < 10 ? SmallNumberText{1, {ones, 0, 0}}
                      : SmallNumberText{2, {static_cast<char>('0' + i / 10), ones, 0}};
  }
  return texts;
}();

// `end` is the place of the terminator.
template <class Unit, class Number>
Unit* Digits(Unit* end, Number value) {
  *end = 0;
  do {
    *--end = static_cast<Unit>('0' + value % 10);
    value /= 10;
  } while (value != 0);
  return end;
}

template <class Unit, std::size_t Size, class Number>
const Unit* ToText(Unit (&buffer)[Size], Number value, bool isNegative, std::size_t* size) {
  static_assert(Size > std::numeric_limits<Number>::digits10 + 1, "digits and terminator");
  Unit* end = buffer + Size - 1;
  Unit* text = Digits(end, value);
  if (isNegative) *--text = '-';
  if (size != nullptr) *size = static_cast<std::size_t>(end - text);
  return text;
}

}  // namespace

const std::array<SmallNumberText, 64> SmallNumberTexts = kSmallNumberTexts;

const char* Uint32ToNarrow(char (&buffer)[11], std::uint32_t value, std::size_t* size) {
  if (value >= kSmallNumberTexts.size()) return ToText(buffer, value, false, size);
  const SmallNumberText& small = SmallNumberTexts[value];
  if (size != nullptr) *size = static_cast<unsigned char>(small.length);
  return small.text;
}

const char16_t* Uint32ToText(char16_t (&buffer)[11], std::uint32_t value, std::size_t* size) {
  return ToText(buffer, value, false, size);
}

const char* Uint64ToNarrow(char (&buffer)[21], std::uint64_t value, std::size_t* size) {
  return ToText(buffer, value, false, size);
}

const char16_t* Uint64ToText(char16_t (&buffer)[21], std::uint64_t value, std::size_t* size) {
  return ToText(buffer, value, false, size);
}

const char16_t* Uint64ToLongText(char16_t (&buffer)[64], std::uint64_t value, std::size_t* size) {
  return ToText(buffer, value, false, size);
}

const char16_t* Sint64ToLongText(char16_t (&buffer)[64], std::int64_t value, std::size_t* size) {
  // The negation is unsigned, since INT64_MIN has no positive counterpart.
  const auto magnitude = static_cast<std::uint64_t>(value);
  return ToText(buffer, value < 0 ? 0 - magnitude : magnitude, value < 0, size);
}

}  // namespace stewardry::cim
