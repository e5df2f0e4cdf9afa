// Whole numbers at the start of a 16-bit text, with the behaviour of the C library's conversions
// (ISO C11, 7.29.4.1.2): blanks, a sign, a prefix, digits, saturation. The C library itself is not
// called, because the sizes of its wide character and of its long depend on the platform.
#pragma once

#include <cstdint>

namespace stewardry::cim {

// The number that a text begins with. `end` is the first unit behind it. If the text begins with no
// number, `end` is the start of the text and `magnitude` is 0.
struct ScannedNumber {
  std::uint64_t magnitude;  // 2^64-1 when `overflow`
  bool negative;
  bool overflow;  // more than 64 bits
  const char16_t* end;
};

// Returns whether the unit is white space of the "C" locale.
constexpr bool IsBlankUnit(char16_t unit) {
  return unit == u' ' || (unit >= u'\t' && unit <= u'\r');
}

constexpr bool IsDigitUnit(char16_t unit) { return unit >= u'0' && unit <= u'9'; }

// Returns the value of a digit or a letter as a digit of base 36; 36 for any other unit.
constexpr std::uint32_t DigitValue(char16_t unit) {
  if (IsDigitUnit(unit)) return static_cast<std::uint32_t>(unit - u'0');
  const std::uint32_t letter = static_cast<std::uint32_t>(unit | 0x20) - u'a';
  return unit < 128 && letter < 26 ? letter + 10 : 36;
}

template <std::uint32_t Base>
constexpr std::uint32_t DigitOf(char16_t unit) {
  return Base == 10 ? static_cast<std::uint32_t>(unit) - u'0' : DigitValue(unit);
}

// Returns the number of digits of `Base` that always fit 64 bits.
template <std::uint32_t Base>
constexpr int SafeDigits() {
  int count = 0;
  for (std::uint64_t left = ~std::uint64_t{0}; left >= Base; left /= Base) ++count;
  return count;
}

// Reads the digits of `Base` from `text` on, which may be none.
template <std::uint32_t Base>
constexpr ScannedNumber ScanDigits(const char16_t* text) {
  constexpr std::uint64_t kMost = ~std::uint64_t{0};
  ScannedNumber number{0, false, false, text};
  for (int i = 0; i < SafeDigits<Base>(); ++i, ++number.end) {
    const std::uint32_t digit = DigitOf<Base>(*number.end);
    if (digit >= Base) return number;
    number.magnitude = number.magnitude * Base + digit;
  }
  for (;; ++number.end) {
    const std::uint32_t digit = DigitOf<Base>(*number.end);
    if (digit >= Base) return number;
    if (!number.overflow && number.magnitude <= (kMost - digit) / Base) {
      number.magnitude = number.magnitude * Base + digit;
    } else {
      number.overflow = true;
      number.magnitude = kMost;
    }
  }
}

// Reads as wcstoul with base 10: blanks, a sign, digits. `text` ends with a terminator.
constexpr ScannedNumber ScanDecimal(const char16_t* text) {
  const char16_t* start = text;
  while (IsBlankUnit(*start)) ++start;
  const bool negative = *start == u'-';
  if (negative || *start == u'+') ++start;
  ScannedNumber number = ScanDigits<10>(start);
  number.negative = negative;
  if (number.end == start) number.end = text;
  return number;
}

// Reads as wcstoul with base 0: "0x" or "0X" before a hexadecimal digit selects 16, a leading 0
// selects 8.
constexpr ScannedNumber ScanAnyBase(const char16_t* text) {
  const char16_t* start = text;
  while (IsBlankUnit(*start)) ++start;
  const bool negative = *start == u'-';
  if (negative || *start == u'+') ++start;
  ScannedNumber number{};
  if (*start != u'0') {
    number = ScanDigits<10>(start);
  } else if ((start[1] | 0x20) == u'x' && DigitValue(start[2]) < 16) {
    number = ScanDigits<16>(start + 2);
  } else {
    number = ScanDigits<8>(start);
  }
  number.negative = negative;
  if (number.end == start) number.end = text;
  return number;
}

// Converts to 32 bits as the unsigned conversion does: a negative number wraps, a magnitude that
// does not fit becomes 2^32-1.
constexpr std::uint32_t AsUint32(const ScannedNumber& number) {
  if (number.magnitude > 0xFFFFFFFF) return 0xFFFFFFFF;
  const auto value = static_cast<std::uint32_t>(number.magnitude);
  return number.negative ? 0 - value : value;
}

constexpr std::uint64_t AsUint64(const ScannedNumber& number) {
  if (number.overflow) return number.magnitude;
  return number.negative ? 0 - number.magnitude : number.magnitude;
}

// Converts as the signed conversions do: a number that does not fit becomes the nearest that does.
constexpr std::int64_t AsSint64(const ScannedNumber& number) {
  if (number.negative) {
    return number.magnitude > std::uint64_t{INT64_MAX}
               ? INT64_MIN
               : -static_cast<std::int64_t>(number.magnitude);
  }
  return number.magnitude > std::uint64_t{INT64_MAX} ? INT64_MAX
                                                     : static_cast<std::int64_t>(number.magnitude);
}

constexpr std::int32_t AsSint32(const ScannedNumber& number) {
  const std::int64_t value = AsSint64(number);
  if (value > INT32_MAX) return INT32_MAX;
  return value < INT32_MIN ? INT32_MIN : static_cast<std::int32_t>(value);
}

}  // namespace stewardry::cim
