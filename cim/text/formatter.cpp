// Conversions: their parts, their arguments, their text.
#include "cim/text/formatter.h"

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cwchar>
#include <string>
#include <string_view>

#include "cim/text/text.h"

namespace stewardry::cim {

namespace {

constexpr int kMaxWidth = 1000;
// A number of the largest exponent (309 digits) with the largest precision.
constexpr std::size_t kNumberRoom = 1400;

// A list that is passed on by reference, which va_list itself can't be everywhere.
struct Arguments {
  va_list list;
};

enum class Length { kNone, kChar, kShort, kLong, kLongLong, kMax, kSize, kDifference, kLongDouble };

struct Conversion {
  std::string_view flags() const { return {flagText, flagCount}; }
  bool Has(char flag) const { return flags().find(flag) != std::string_view::npos; }
  char flagText[8];
  std::size_t flagCount = 0;
  int width = 0;
  int precision = -1;
  Length length = Length::kNone;
  char letter = 0;  // 0: no valid conversion
};

struct LengthRow {
  std::string_view text;
  Length length;
};
// Longer words stand before those that they begin with. I64, I32 and w are the Windows runtime's.
constexpr LengthRow kLengths[] = {
    {"hh", Length::kChar},      {"h", Length::kShort},      {"ll", Length::kLongLong},
    {"l", Length::kLong},       {"j", Length::kMax},        {"z", Length::kSize},
    {"t", Length::kDifference}, {"L", Length::kLongDouble}, {"I64", Length::kLongLong},
    {"I32", Length::kNone},     {"I", Length::kSize},       {"w", Length::kLong}};

template <class Unit>
bool StartsWith(const Unit* text, std::string_view word) {
  return std::equal(word.begin(), word.end(), text,
                    [](char c, Unit unit) { return static_cast<Unit>(c) == unit; });
}

template <class Unit>
bool IsDigit(Unit unit) {
  return unit >= '0' && unit <= '9';
}

// Digits, or a * and its argument. INT_MAX for a number that is too large.
template <class Unit>
const Unit* ReadNumber(const Unit* at, int* number, Arguments* arguments) {
  if (*at == '*') return *number = va_arg(arguments->list, int), at + 1;
  for (*number = 0; IsDigit(*at); ++at)
    *number = *number > kMaxWidth ? INT_MAX : *number * 10 + static_cast<int>(*at - '0');
  return at;
}

template <class Unit>
const Unit* ReadFlags(const Unit* at, Conversion* c) {
  constexpr std::string_view kFlags = "-+ #0";
  for (; *at < 0x80 && kFlags.find(static_cast<char>(*at)) != std::string_view::npos && *at != 0;
       ++at)
    if (c->flagCount < kFlags.size() && !c->Has(static_cast<char>(*at)))
      c->flagText[c->flagCount++] = static_cast<char>(*at);
  return at;
}

template <class Unit>
const Unit* ReadLength(const Unit* at, Conversion* c) {
  for (const LengthRow& row : kLengths)
    if (StartsWith(at, row.text)) return c->length = row.length, at + row.text.size();
  return at;
}

// Reads the conversion behind a %, and gives what follows it.
template <class Unit>
const Unit* ReadConversion(const Unit* at, Conversion* c, Arguments* arguments) {
  at = ReadFlags(at, c);
  at = ReadNumber(at, &c->width, arguments);
  if (c->width < 0) {  // of a *: flushed left
    if (!c->Has('-')) c->flagText[c->flagCount++] = '-';
    c->width = c->width < -kMaxWidth ? INT_MAX : -c->width;
  }
  if (*at == '.') at = ReadNumber(at + 1, &c->precision, arguments);
  at = ReadLength(at, c);
  const bool isInBounds = c->width <= kMaxWidth && c->precision <= kMaxWidth;
  if (!isInBounds || *at == 0 || *at >= 0x80) return at;
  c->letter = static_cast<char>(*at);
  return at + 1;
}

template <class Unit>
class Formatter {
 public:
  explicit Formatter(Output<Unit>* out) : out_(out) {}

  int Run(const Unit* format, Arguments* arguments) {
    for (;;) {
      const Unit* end = format;
      while (*end != 0 && *end != '%') ++end;
      Put(format, static_cast<std::size_t>(end - format));
      if (*end == 0) return count_ > INT_MAX ? -1 : static_cast<int>(count_);
      Conversion c;
      format = ReadConversion(end + 1, &c, arguments);
      if (!Convert(c, arguments)) return -1;
    }
  }

 private:
  void Put(const Unit* units, std::size_t count) {
    if (count == 0) return;
    out_->Put(units, count);
    count_ += count;
  }
  void Pad(char fill, std::size_t count) {
    const auto unit = static_cast<Unit>(fill);
    while (count-- > 0) Put(&unit, 1);
  }

  bool Convert(const Conversion& c, Arguments* arguments) {
    switch (c.letter) {
      case '%':
        return Pad('%', 1), true;
      case 'd':
      case 'i':
        return PutNumber(c, "lld", Signed(c.length, arguments));
      case 'u':
      case 'o':
      case 'x':
      case 'X': {
        const char ending[] = {'l', 'l', c.letter, 0};
        return PutNumber(c, ending, Unsigned(c.length, arguments));
      }
      case 'p':
        return PutPointer(c, va_arg(arguments->list, void*));
      case 'c':
      case 'C':
        return PutCharacter(c, va_arg(arguments->list, int)), true;
      case 's':
      case 'S':
        return PutText(c, va_arg(arguments->list, const void*)), true;
      default:
        return PutReal(c, arguments);
    }
  }

  bool PutReal(const Conversion& c, Arguments* arguments) {
    constexpr std::string_view kReals = "fFeEgGaA";
    if (c.letter == 0 || kReals.find(c.letter) == std::string_view::npos) return false;
    if (c.length == Length::kLongDouble) {
      const char ending[] = {'L', c.letter, 0};
      return PutNumber(c, ending, va_arg(arguments->list, long double));
    }
    const char ending[] = {c.letter, 0};
    return PutNumber(c, ending, va_arg(arguments->list, double));
  }

  static long long Signed(Length length, Arguments* arguments) {
    switch (length) {
      case Length::kChar:
        return static_cast<signed char>(va_arg(arguments->list, int));
      case Length::kShort:
        return static_cast<short>(va_arg(arguments->list, int));
      case Length::kLong:
        return va_arg(arguments->list, long);
      case Length::kNone:
      case Length::kLongDouble:
        return va_arg(arguments->list, int);
      default:
        return va_arg(arguments->list, long long);
    }
  }
  static unsigned long long Unsigned(Length length, Arguments* arguments) {
    switch (length) {
      case Length::kChar:
        return static_cast<unsigned char>(va_arg(arguments->list, unsigned));
      case Length::kShort:
        return static_cast<unsigned short>(va_arg(arguments->list, unsigned));
      case Length::kLong:
        return va_arg(arguments->list, unsigned long);
      case Length::kNone:
      case Length::kLongDouble:
        return va_arg(arguments->list, unsigned);
      default:
        return va_arg(arguments->list, unsigned long long);
    }
  }

  // The runtime's own number, without a width. `ending` is what stands behind the precision.
  template <class Number>
  bool PutNumber(const Conversion& c, const char* ending, Number value) {
    char format[24] = "%";
    std::size_t size = 1;
    for (const char flag : c.flags())
      if (flag != '-' && flag != '0') format[size++] = flag;
    if (c.precision >= 0) format[size++] = '.', format[size++] = '*';
    std::copy_n(ending, std::char_traits<char>::length(ending) + 1, format + size);
    char text[kNumberRoom];
    const int length = c.precision >= 0
                           ? std::snprintf(text, sizeof text, format, c.precision, value)
                           : std::snprintf(text, sizeof text, format, value);
    if (length < 0 || static_cast<std::size_t>(length) >= sizeof text) return false;
    return PutPadded(c, {text, static_cast<std::size_t>(length)}), true;
  }

  bool PutPointer(const Conversion& c, const void* pointer) {
    Conversion digits = c;
    digits.precision = 16;
    digits.flagCount = 0;
    if (c.Has('-')) digits.flagText[digits.flagCount++] = '-';
    return PutNumber(digits, "llX",
                     static_cast<unsigned long long>(reinterpret_cast<std::uintptr_t>(pointer)));
  }

  // Zeros go behind the sign and the 0x, and not where a precision has said how many digits.
  void PutPadded(const Conversion& c, std::string_view text) {
    const auto width = static_cast<std::size_t>(c.width);
    const std::size_t size = RecodeNumber(text, [](const Unit*, std::size_t) {});
    const std::size_t padding = width > size ? width - size : 0;
    const bool isWhole = std::string_view("diouxX").find(c.letter) != std::string_view::npos;
    const bool isFinite = text.find_first_of("nN") == std::string_view::npos;  // no inf, no nan
    const bool zeros = c.Has('0') && !c.Has('-') && isFinite && !(isWhole && c.precision >= 0);
    if (!c.Has('-') && !zeros) Pad(' ', padding);
    std::size_t head = zeros && text.find_first_of("+- ") == 0 ? 1 : 0;
    if (zeros && (text.substr(head, 2) == "0x" || text.substr(head, 2) == "0X")) head += 2;
    const auto put = [this](const Unit* units, std::size_t count) { Put(units, count); };
    (void)RecodeNumber(text.substr(0, head), put);
    if (zeros) Pad('0', padding);
    (void)RecodeNumber(text.substr(head), put);
    if (c.Has('-')) Pad(' ', padding);
  }

  // Hands the runtime's number on in this width, and gives its length there. All of it is ASCII but
  // for a locale's decimal point, whose bytes in the locale's encoding become one unit of 16 bits.
  template <class Take>
  static std::size_t RecodeNumber(std::string_view text, Take take) {
    if constexpr (sizeof(Unit) == 1) return take(text.data(), text.size()), text.size();
    std::size_t size = 0;
    for (; !text.empty(); ++size) {
      wchar_t wide = static_cast<unsigned char>(text[0]);
      std::size_t bytes = 1;
      if (wide >= 0x80) {
        std::mbstate_t state{};
        bytes = std::mbrtowc(&wide, text.data(), text.size(), &state);
        if (bytes - 1 >= text.size()) bytes = 1, wide = 0xFFFD;  // no character
      }
      const auto unit = static_cast<Unit>(wide);
      take(&unit, 1);
      text.remove_prefix(bytes);
    }
    return size;
  }

  // Whether text behind this conversion is narrow.
  static bool IsNarrow(const Conversion& c) {
    if (c.length == Length::kShort) return true;
    if (c.length == Length::kLong) return false;
    return (sizeof(Unit) == 1) == (c.letter == 's' || c.letter == 'c');
  }

  void PutCharacter(const Conversion& c, int value) {
    if (IsNarrow(c)) {
      const char text = static_cast<char>(value);
      return PutSpan(c, &text, 1);
    }
    const auto text = static_cast<char16_t>(value);
    PutSpan(c, &text, 1);
  }

  void PutText(const Conversion& c, const void* text) {
    if (text == nullptr) return PutSpan(c, "(null)", 6);
    IsNarrow(c) ? PutBounded(c, static_cast<const char*>(text))
                : PutBounded(c, static_cast<const char16_t*>(text));
  }

  // A text need have no end within its precision.
  template <class From>
  void PutBounded(const Conversion& c, const From* text) {
    const std::size_t most = c.precision >= 0 ? static_cast<std::size_t>(c.precision) : SIZE_MAX;
    std::size_t length = 0;
    while (length < most && text[length] != 0) ++length;
    PutSpan(c, text, length);
  }

  template <class From>
  void PutSpan(const Conversion& c, const From* text, std::size_t length) {
    const std::size_t size = Recode(text, length, [](const Unit*, std::size_t) {});
    const auto width = static_cast<std::size_t>(c.width);
    const std::size_t padding = width > size ? width - size : 0;
    if (!c.Has('-')) Pad(' ', padding);
    (void)Recode(text, length, [this](const Unit* units, std::size_t count) { Put(units, count); });
    if (c.Has('-')) Pad(' ', padding);
  }

  // Hands the text on in this width, and gives its length there.
  template <class From, class Take>
  static std::size_t Recode(const From* text, std::size_t length, Take take) {
    if constexpr (sizeof(From) == sizeof(Unit)) return take(text, length), length;
    if constexpr (sizeof(From) != sizeof(Unit)) {
      std::size_t size = 0;
      for (std::size_t at = 0; at < length;) {
        Unit units[4];
        const std::size_t count = Text_Encode(Text_NextCodePoint(text, length, &at), units);
        take(units, count);
        size += count;
      }
      return size;
    }
  }

  Output<Unit>* out_;
  std::size_t count_ = 0;
};

}  // namespace

template <class Unit>
int FormatInto(Output<Unit>* out, const Unit* format, va_list arguments) {
  Arguments copy;
  va_copy(copy.list, arguments);
  const int count = Formatter<Unit>(out).Run(format, &copy);
  va_end(copy.list);
  return count;
}

template int FormatInto(Output<char>* out, const char* format, va_list arguments);
template int FormatInto(Output<char16_t>* out, const char16_t* format, va_list arguments);

}  // namespace stewardry::cim
