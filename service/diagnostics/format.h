// printf-style formatting for the service's texts. The format strings are the system's own
// ("%I64x", "%zd" and "%ls" included) and mean the same on every platform. The number and the types
// of the arguments are checked when the call is compiled; the output never leaves its buffer.
#pragma once

#include <cassert>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>

#include "text/printf_grammar.h"

namespace stewardry {

// One argument, with the width of its type: %d prints 32 bits of a 32-bit value and 64 bits of a
// 64-bit value. Length words in the format change nothing, except that %ls takes 16-bit text.
struct FormatArg {
  enum class Kind : std::uint8_t { kNone, kInteger, kText, kWideText };
  Kind kind = Kind::kNone;
  std::uint8_t width = 0;     // bytes of an integer
  std::uint64_t integer = 0;  // sign-extended if its type is signed
  const char* text = nullptr;
  const char16_t* wide = nullptr;

  FormatArg() = default;
  template <std::integral T>
  FormatArg(T value)  // NOLINT(google-explicit-constructor): the conversion is the purpose
      : kind(Kind::kInteger), width(sizeof(T)), integer(static_cast<std::uint64_t>(value)) {}
  FormatArg(const char* value) : kind(Kind::kText), text(value) {}          // NOLINT
  FormatArg(const char16_t* value) : kind(Kind::kWideText), wide(value) {}  // NOLINT
  FormatArg(const std::string& value) : FormatArg(value.c_str()) {}         // NOLINT
  FormatArg(const std::u16string& value) : FormatArg(value.c_str()) {}      // NOLINT
};

template <class T>
constexpr FormatArg::Kind KindOf() {
  using D = std::decay_t<T>;
  if constexpr (std::is_integral_v<D>) return FormatArg::Kind::kInteger;
  if constexpr (std::is_convertible_v<D, const char16_t*> || std::is_same_v<D, std::u16string>)
    return FormatArg::Kind::kWideText;
  return FormatArg::Kind::kText;
}

inline constexpr AsciiSet kFormatLetters("diuxXcs%");

// Reads the conversion whose '%' precedes *at and moves *at behind it. The letter is 0 if it is
// none of d i u x X c s %, or if the conversion has a flag other than 0 and the blank.
constexpr Conversion ReadFormatConversion(std::string_view format, std::size_t* at) {
  assert(*at > 0 && format[*at - 1] == '%');
  Conversion c;
  const char* const end = format.data() + format.size();
  *at = static_cast<std::size_t>(ReadConversion(format.data() + *at, end, &c) - format.data());
  if (!kFormatLetters.Has(c.letter) || c.isLeft || c.hasPlus || c.isAlternate) c.letter = 0;
  return c;
}

constexpr FormatArg::Kind WantedKind(const Conversion& c) {
  if (c.letter != 's') return FormatArg::Kind::kInteger;
  return c.length == ArgumentLength::kLong ? FormatArg::Kind::kWideText : FormatArg::Kind::kText;
}

// Not constexpr: CheckedFormat calls it for a mismatch, which ends the compilation.
[[noreturn]] void FormatMismatch(const char* why);

// A format text, checked against the types of its arguments at compile time.
template <class... Args>
struct CheckedFormat {
  template <std::size_t N>
  consteval CheckedFormat(const char (&format)[N])  // NOLINT(google-explicit-constructor)
      : text(format, N - 1) {
    constexpr std::size_t count = sizeof...(Args);
    const FormatArg::Kind kinds[count + 1] = {KindOf<Args>()..., FormatArg::Kind::kNone};
    std::size_t used = 0;
    for (std::size_t at = 0; at < text.size();) {
      if (text[at++] != '%') continue;
      const Conversion c = ReadFormatConversion(text, &at);
      if (c.letter == 0) FormatMismatch("unknown conversion");
      if (c.letter == '%') continue;
      if (used >= count) FormatMismatch("too few arguments");
      if (kinds[used++] != WantedKind(c)) FormatMismatch("an argument of another type");
    }
    if (used != count) FormatMismatch("too many arguments");
  }
  std::string_view text;
};

// Formats into `out` of `size` bytes (at least 1), cut to size-1 bytes and always terminated.
// Returns the length written. 16-bit text is written as UTF-8, a null text as "(null)".
// Unknown conversions and conversions without an argument write nothing. Any thread.
std::size_t FormatText(char* out, std::size_t size, std::string_view format,
                       std::span<const FormatArg> args);

// Does the same, and checks the format against its arguments when the call is compiled.
template <class... Args>
std::size_t FormatTo(char* out, std::size_t size,
                     CheckedFormat<std::type_identity_t<Args>...> format, const Args&... args) {
  const FormatArg list[] = {FormatArg(args)..., FormatArg()};
  return FormatText(out, size, format.text, std::span(list, sizeof...(Args)));
}

// Returns a text from outside with each control character replaced by '?', so that a log keeps its
// lines.
std::string PrintableText(std::string_view text);

}  // namespace stewardry
