// printf-style formatting for the service's texts: the format strings stand as the system gives
// them ("%I64x", "%zd" and "%ls" included) and mean the same on every platform. The number and the
// types of the arguments are checked when the call is compiled, and the output never leaves its
// buffer.
#pragma once

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>

namespace stewardry {

// One argument, with the width it came in: %d of a 32-bit value is 32 bits wide, of a 64-bit value
// 64 bits; length modifiers in the format change nothing.
struct FormatArg {
  enum class Kind : std::uint8_t { kNone, kInteger, kText, kWideText };
  Kind kind = Kind::kNone;
  std::uint8_t width = 0;     // bytes of an integer
  std::uint64_t integer = 0;  // sign-extended if it came signed
  const char* text = nullptr;
  const char16_t* wide = nullptr;

  FormatArg() = default;
  template <std::integral T>
  FormatArg(T value)  // NOLINT(google-explicit-constructor): an argument is what it is made from
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

// One conversion of a format: "%[flags][width][.precision][length]letter". `end` is the offset
// behind it.
struct Conversion {
  bool zeroPadded = false;
  bool blankSign = false;  // a blank where a negative number has its sign
  bool wide = false;       // %ls
  int width = 0;
  int precision = -1;
  char letter = 0;
  std::size_t end = 0;
};

// Reads the conversion whose '%' stands at `at`. A letter of 0 means that it is not a valid one.
constexpr Conversion ReadConversion(std::string_view format, std::size_t at) {
  Conversion c;
  std::size_t i = at + 1;
  auto digits = [&] {
    constexpr int kEnough = 1000000;  // beyond any buffer; a longer number changes nothing
    int n = 0;
    for (; i < format.size() && format[i] >= '0' && format[i] <= '9'; ++i)
      if (n < kEnough) n = n * 10 + (format[i] - '0');
    return n;
  };
  for (; i < format.size() && (format[i] == '0' || format[i] == ' '); ++i)
    (format[i] == '0' ? c.zeroPadded : c.blankSign) = true;
  c.width = digits();
  if (i < format.size() && format[i] == '.') {
    ++i;
    c.precision = digits();
  }
  if (format.substr(i, 3) == "I64") i += 3;
  while (i < format.size() && (format[i] == 'l' || format[i] == 'z' || format[i] == 'h')) {
    c.wide = c.wide || format[i] == 'l';
    ++i;
  }
  if (i < format.size()) {
    c.letter =
        std::string_view("diuxXcs%").find(format[i]) == std::string_view::npos ? '\0' : format[i];
    ++i;
  }
  c.wide = c.wide && c.letter == 's';
  c.end = i;
  return c;
}

constexpr FormatArg::Kind WantedKind(const Conversion& c) {
  if (c.letter != 's') return FormatArg::Kind::kInteger;
  return c.wide ? FormatArg::Kind::kWideText : FormatArg::Kind::kText;
}

// Called only when a format and its arguments don't match: a call of it can't be compiled.
[[noreturn]] void FormatMismatch(const char* why);

// A format text checked against the types of its arguments at compile time.
template <class... Args>
struct CheckedFormat {
  template <std::size_t N>
  consteval CheckedFormat(const char (&format)[N])  // NOLINT(google-explicit-constructor)
      : text(format, N - 1) {
    constexpr std::size_t count = sizeof...(Args);
    const FormatArg::Kind kinds[count + 1] = {KindOf<Args>()..., FormatArg::Kind::kNone};
    std::size_t used = 0;
    for (std::size_t i = 0; i < text.size();) {
      if (text[i] != '%') {
        ++i;
        continue;
      }
      Conversion c = ReadConversion(text, i);
      if (c.letter == 0) FormatMismatch("unknown conversion");
      i = c.end;
      if (c.letter == '%') continue;
      if (used >= count) FormatMismatch("too few arguments");
      if (kinds[used++] != WantedKind(c)) FormatMismatch("an argument of another type");
    }
    if (used != count) FormatMismatch("too many arguments");
  }
  std::string_view text;
};

// Formats into `out` of `size` bytes (at least 1), cut to size-1 characters and always terminated.
// 16-bit text comes out as UTF-8, a null text as "(null)". Gives the length written. Any thread.
std::size_t FormatText(char* out, std::size_t size, std::string_view format,
                       std::span<const FormatArg> args);

// The same with the check at compile time.
template <class... Args>
std::size_t FormatTo(char* out, std::size_t size,
                     CheckedFormat<std::type_identity_t<Args>...> format, const Args&... args) {
  const FormatArg list[] = {FormatArg(args)..., FormatArg()};
  return FormatText(out, size, format.text, std::span(list, sizeof...(Args)));
}

// A text from outside as a log may have it: each control character is a '?', so that it begins no
// line of its own.
std::string PrintableText(std::string_view text);

// True if the zero-terminated texts are the same but for the case of the letters A to Z.
bool EqualIgnoringCase(const char* a, const char* b);

}  // namespace stewardry
