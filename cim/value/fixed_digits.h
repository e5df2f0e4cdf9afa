// The usual date-time of the fixed form: digits at every place that may hold one. Four are read at
// once. Whether another text is a date-time at all is left to the field by field reader.
#pragma once

#include <cstdint>

#include "cim/text/four_units.h"
#include "cim/value/values.h"

namespace stewardry::cim {

// The values of four places each, by the position of the first. Some overlap, since the fields are
// not all of two or four digits. The values of an offset from UTC follow the sign, which is a 0.
struct FixedDigits {
  std::uint64_t at0, at4, at8, at10, at15, at17, at21;
};

// Requires 25 units.
inline FixedDigits FixedDigits_Of(const char16_t* text) {
  const auto valuesAt = [text](int position) {
    return DigitValues(LoadFourUnits(text + position));
  };
  return {valuesAt(0),
          valuesAt(4),
          valuesAt(8),
          valuesAt(10),
          valuesAt(15),
          valuesAt(17),
          valuesAt(21) & ~std::uint64_t{0xFFFF}};
}

inline bool FixedDigits_AreAll(const FixedDigits& digits) {
  return AreDigitValues(digits.at0, digits.at4, digits.at8, digits.at10, digits.at15, digits.at17,
                        digits.at21);
}

inline std::uint32_t MicrosecondsOf(const FixedDigits& digits) {
  return NumberOfFour(digits.at15) * 100 + SecondPair(digits.at17);
}

inline CimDatetime::Timestamp TimestampOf(const FixedDigits& digits, bool isWest) {
  const auto offset = static_cast<std::int32_t>(NumberOfFour(digits.at21));
  return {NumberOfFour(digits.at0), FirstPair(digits.at4),    SecondPair(digits.at4),
          FirstPair(digits.at8),    SecondPair(digits.at8),   SecondPair(digits.at10),
          MicrosecondsOf(digits),   isWest ? -offset : offset};
}

inline CimDatetime::Interval IntervalOf(const FixedDigits& digits) {
  const std::uint32_t days = NumberOfFour(digits.at0) * 10000 + NumberOfFour(digits.at4);
  return {days,
          FirstPair(digits.at8),
          SecondPair(digits.at8),
          SecondPair(digits.at10),
          MicrosecondsOf(digits),
          {}};
}

}  // namespace stewardry::cim
