// Decimal real numbers of up to 19 digits in 16-bit text, read in one pass and rounded with whole
// numbers only. The result is correctly rounded, ties to even, whatever the rounding mode is.
#pragma once

#include <array>
#include <bit>
#include <cassert>
#include <cstddef>
#include <cstdint>
#include <limits>

#include "cim/text/four_units.h"
#include "cim/text/number_scan.h"

namespace stewardry::cim {

// The decimal number that a text begins with: digits x 10^exponent.
struct ScannedDecimal {
  std::uint64_t digits;
  int exponent;
  bool isExact;         // the text is a whole number or a fraction, and `digits` has every digit
  const char16_t* end;  // the first unit that is not part of the number
};

// Digits, and the first unit after them.
struct DigitRun {
  std::uint64_t number;  // modulo 2^64
  const char16_t* end;
};

// Appends the digits at the end of `run`, which may be none.
inline DigitRun AppendDigits(DigitRun run) {
  const char16_t* text = run.end;
  while (text[0] != 0 && text[1] != 0 && text[2] != 0 && text[3] != 0) {
    const std::uint64_t values = DigitValues(LoadFourUnits(text));
    if (!AreDigitValues(values)) break;
    run.number = run.number * 10000 + NumberOfFour(values);
    text += 4;
  }
  for (std::uint32_t digit = 0; (digit = DigitOf<10>(*text)) < 10; ++text)
    run.number = run.number * 10 + digit;
  return {run.number, text};
}

// Reads digits, a point, more digits, and an exponent after them. `text` ends with a terminator.
inline ScannedDecimal ScanReal(const char16_t* text) {
  constexpr int kMostDigits = std::numeric_limits<std::uint64_t>::digits10;
  constexpr int kFarExponent = 100000;  // beyond any double, and far from the limits of int
  DigitRun run = AppendDigits({0, text});
  std::ptrdiff_t count = run.end - text;
  std::ptrdiff_t places = 0;
  if (*run.end == u'.') {
    const char16_t* fraction = run.end + 1;
    run = AppendDigits({run.number, fraction});
    places = run.end - fraction;
    count += places;
  }
  ScannedDecimal number{run.number, 0, count > 0 && count <= kMostDigits, run.end};
  if (!number.isExact) return number;
  number.exponent = -static_cast<int>(places);
  if ((*number.end | 0x20) != u'e') return number;

  const bool isBelow = number.end[1] == u'-';
  const char16_t* power = number.end + (isBelow || number.end[1] == u'+' ? 2 : 1);
  if (!IsDigitUnit(*power)) return number;
  int exponent = 0;
  for (std::uint32_t digit = 0; (digit = DigitOf<10>(*power)) < 10; ++power)
    if (exponent < kFarExponent) exponent = exponent * 10 + static_cast<int>(digit);
  number.end = power;
  number.exponent += isBelow ? -exponent : exponent;
  return number;
}

// 128 bits as two halves.
struct WideProduct {
  std::uint64_t high, low;
};

// The language has no product of this width, but the compilers of 64-bit processors do.
constexpr WideProduct MultiplyWide(std::uint64_t a, std::uint64_t b) {
  __extension__ using Wide = unsigned __int128;
  const Wide product = Wide{a} * b;
  return {static_cast<std::uint64_t>(product >> 64), static_cast<std::uint64_t>(product)};
}

// A power of five that fits 64 bits, shifted until its highest bit is set, and the reciprocal that
// turns a division by it into a product: floor((2^128 - 1) / scaled) - 2^64.
struct PowerOfFive {
  std::uint64_t scaled, reciprocal;
  int shift;
};

constexpr int kMostPower = 27;

constexpr auto kPowersOfFive = [] {
  std::array<PowerOfFive, kMostPower + 1> powers{};
  std::uint64_t power = 1;
  for (PowerOfFive& each : powers) {
    each.shift = std::countl_zero(power);
    each.scaled = power << each.shift;
    std::uint64_t rest = ~each.scaled;
    for (int bit = 0; bit < 64; ++bit) {
      const bool carry = (rest >> 63) != 0;
      rest = (rest << 1) | 1;
      each.reciprocal <<= 1;
      if (!carry && rest < each.scaled) continue;
      rest -= each.scaled;
      each.reciprocal |= 1;
    }
    power *= 5;
  }
  return powers;
}();

// Returns floor(dividend * 2^63 / scaled), with the lowest bit set if there is a remainder. The
// quotient is estimated with the reciprocal, which is at most one too small or too large.
constexpr std::uint64_t DivideScaled(std::uint64_t dividend, const PowerOfFive& divisor) {
  const std::uint64_t high = dividend >> 1, low = dividend << 63;
  const WideProduct guess = MultiplyWide(divisor.reciprocal, high);
  const std::uint64_t fraction = guess.low + low;
  std::uint64_t quotient = guess.high + high + (fraction < low ? 1 : 0) + 1;
  std::uint64_t rest = low - quotient * divisor.scaled;
  if (rest > fraction) {
    --quotient;
    rest += divisor.scaled;
  }
  if (rest >= divisor.scaled) {
    ++quotient;
    rest -= divisor.scaled;
  }
  return quotient | (rest != 0 ? 1 : 0);
}

// Returns the double nearest to digits x 10^exponent. Requires an exponent from -27 to 27: every
// result is a normal number then, or 0.
constexpr double NearestReal(std::uint64_t digits, int exponent) {
  static_assert(std::numeric_limits<double>::is_iec559);
  constexpr int kExtraBits = 64 - std::numeric_limits<double>::digits;
  constexpr std::uint64_t kHalf = std::uint64_t{1} << (kExtraBits - 1);
  constexpr int kBias = 1023 + 52 + kExtraBits - 1;
  assert(exponent >= -kMostPower && exponent <= kMostPower);
  if (digits == 0) return 0;
  const int shift = std::countl_zero(digits);
  const std::uint64_t scaled = digits << shift;
  const PowerOfFive& power =
      kPowersOfFive[static_cast<std::size_t>(exponent < 0 ? -exponent : exponent)];
  // The number is bits x 2^twos. The lowest bit stands for all below it, of which rounding needs
  // only to know whether they are 0.
  std::uint64_t bits = 0;
  int twos = exponent - shift;
  if (exponent < 0) {
    bits = DivideScaled(scaled, power);
    twos += power.shift - 63;
  } else {
    const WideProduct product = MultiplyWide(scaled, power.scaled);
    bits = product.high | (product.low != 0 ? 1 : 0);
    twos += 64 - power.shift;
  }
  const int lead = std::countl_zero(bits);
  bits <<= lead;
  const std::uint64_t kept = bits >> kExtraBits;
  const std::uint64_t dropped = bits & (2 * kHalf - 1);
  const std::uint64_t rounded = kept + (dropped + (kept & 1) > kHalf ? 1 : 0);
  // The highest bit of `rounded`, and a carry out of it, add to the exponent.
  return std::bit_cast<double>((static_cast<std::uint64_t>(twos - lead + kBias) << 52) + rounded);
}

}  // namespace stewardry::cim
