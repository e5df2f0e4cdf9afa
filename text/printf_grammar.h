// The grammar of one conversion of a printf format, "%[flags][width][.precision][length]letter"
// (ISO C11, 7.21.6.1), with the length words of the Windows runtime. What a conversion prints is
// decided by each formatter: the service's takes typed arguments and needs no C runtime, the CIM
// library's takes a va_list and prints numbers by the locale.
#pragma once

#include <algorithm>
#include <array>
#include <climits>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <type_traits>

namespace stewardry {

// Width of an argument. kLong is the platform's long; kLongLong also serves j, z and t, since every
// platform here has 64 bits.
enum class ArgumentLength : std::uint8_t { kNone, kChar, kShort, kLong, kLongLong, kLongDouble };

struct Conversion {
  bool isLeft = false;        // -
  bool hasPlus = false;       // +
  bool hasBlank = false;      // a blank in place of a plus
  bool isAlternate = false;   // #
  bool isZeroPadded = false;  // 0
  int width = 0;
  int precision = -1;  // negative: none given
  ArgumentLength length = ArgumentLength::kNone;
  char letter = 0;  // 0: the format ends too early, or a character outside ASCII
};

// The members of a set of ASCII characters: one load answers for each character of a format.
class AsciiSet {
 public:
  explicit constexpr AsciiSet(std::string_view members) {
    for (const char c : members) isMember_.at(static_cast<std::uint8_t>(c)) = true;
  }
  template <class Unit>
  constexpr bool Has(Unit unit) const {
    const auto value = static_cast<std::make_unsigned_t<Unit>>(unit);
    return value < isMember_.size() && isMember_[value];
  }

 private:
  std::array<bool, 128> isMember_{};
};

inline constexpr AsciiSet kLengthLetters("hljztLIw");

struct LengthWord {
  std::string_view text;
  ArgumentLength length;
};
// A longer word precedes the words that it begins with.
constexpr LengthWord kLengthWords[] = {
    {"hh", ArgumentLength::kChar},      {"h", ArgumentLength::kShort},
    {"ll", ArgumentLength::kLongLong},  {"l", ArgumentLength::kLong},
    {"j", ArgumentLength::kLongLong},   {"z", ArgumentLength::kLongLong},
    {"t", ArgumentLength::kLongLong},   {"L", ArgumentLength::kLongDouble},
    {"I64", ArgumentLength::kLongLong}, {"I32", ArgumentLength::kNone},
    {"I", ArgumentLength::kLongLong},   {"w", ArgumentLength::kLong}};

// Reads a length word, if there is one, and returns the address behind it. [at, end) is the rest of
// the format, here and below.
template <class Unit>
constexpr const Unit* ReadLength(const Unit* at, const Unit* end, ArgumentLength* length) {
  if (at == end || !kLengthLetters.Has(*at)) return at;  // most conversions have no length word
  for (const LengthWord& word : kLengthWords) {
    if (static_cast<std::size_t>(end - at) < word.text.size()) continue;
    if (!std::equal(word.text.begin(), word.text.end(), at,
                    [](char c, Unit unit) { return static_cast<Unit>(c) == unit; }))
      continue;
    *length = word.length;
    return at + word.text.size();
  }
  return at;
}

// Makes '*' an ordinary character: the format takes widths and precisions from its text alone.
struct NoStar {};

// Reads the digits of a number, or a '*', for which `star` returns the value. No digits are 0;
// above a million further digits change nothing.
template <class Unit, class Star>
constexpr const Unit* ReadNumber(const Unit* at, const Unit* end, int* number, Star star) {
  if constexpr (!std::is_same_v<Star, NoStar>) {
    if (at != end && *at == Unit{'*'}) {
      *number = star();
      return at + 1;
    }
  }
  constexpr int kEnough = 1000000;
  *number = 0;
  for (; at != end && *at >= Unit{'0'} && *at <= Unit{'9'}; ++at)
    if (*number < kEnough) *number = *number * 10 + static_cast<int>(*at - Unit{'0'});
  return at;
}

template <class Unit>
constexpr const Unit* ReadFlags(const Unit* at, const Unit* end, Conversion* c) {
  for (; at != end; ++at) {
    switch (*at) {
      case Unit{'-'}:
        c->isLeft = true;
        break;
      case Unit{'+'}:
        c->hasPlus = true;
        break;
      case Unit{' '}:
        c->hasBlank = true;
        break;
      case Unit{'#'}:
        c->isAlternate = true;
        break;
      case Unit{'0'}:
        c->isZeroPadded = true;
        break;
      default:
        return at;
    }
  }
  return at;
}

// Reads the conversion whose '%' immediately precedes `at`, and returns the address behind it.
// `star` returns the int argument of a '*', or is NoStar.
template <class Unit, class Star = NoStar>
constexpr const Unit* ReadConversion(const Unit* at, const Unit* end, Conversion* c,
                                     Star star = {}) {
  at = ReadFlags(at, end, c);
  at = ReadNumber(at, end, &c->width, star);
  if (c->width < 0) {  // only a '*' has a sign
    c->isLeft = true;
    c->width = c->width == INT_MIN ? INT_MAX : -c->width;
  }
  if (at != end && *at == Unit{'.'}) at = ReadNumber(at + 1, end, &c->precision, star);
  at = ReadLength(at, end, &c->length);
  if (at == end || static_cast<std::uint32_t>(*at) >= 0x80) return at;
  c->letter = static_cast<char>(*at);
  return at + 1;
}

}  // namespace stewardry
