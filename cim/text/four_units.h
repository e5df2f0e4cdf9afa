// Four 16-bit units as one word. A word is loaded only where four units are known to exist: most
// texts end with a terminator at a place that is not known before.
#pragma once

#include <bit>
#include <cstdint>
#include <cstring>

namespace stewardry::cim {

inline std::uint64_t LoadFourUnits(const char16_t* text) {
  static_assert(std::endian::native == std::endian::little, "the first unit is the lowest");
  std::uint64_t four = 0;
  std::memcpy(&four, text, sizeof four);
  return four;
}

// Returns a word with `unit` in all four places.
constexpr std::uint64_t FourTimes(char16_t unit) { return unit * 0x0001000100010001u; }

// Returns the value of each of four decimal digits in its place. A unit that is not a digit leaves
// a value above 9, see AreDigitValues.
constexpr std::uint64_t DigitValues(std::uint64_t four) { return four ^ FourTimes(u'0'); }

// Returns true if each of the values of all words is at most 9. Without a larger value there is no
// carry between them.
template <class... Words>
constexpr bool AreDigitValues(Words... values) {
  return (((values | (values + FourTimes(6))) | ...) & FourTimes(0xFFF0)) == 0;
}

// Returns the number of four digits: the sum of their products with 1000, 100, 10 and 1 is the
// highest unit of the product.
constexpr std::uint32_t NumberOfFour(std::uint64_t values) {
  return static_cast<std::uint32_t>((values * 0x03E80064000A0001) >> 48);
}

// Return the number of the first two digits and that of the last two.
constexpr std::uint32_t FirstPair(std::uint64_t values) {
  return static_cast<std::uint32_t>((values & 0xFF) * 10 + (values >> 16 & 0xFF));
}
constexpr std::uint32_t SecondPair(std::uint64_t values) { return FirstPair(values >> 32); }

}  // namespace stewardry::cim
