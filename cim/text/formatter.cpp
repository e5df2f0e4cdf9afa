#include "cim/text/formatter.h"

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cwchar>
#include <string>
#include <string_view>

#include "text/code_points.h"
#include "text/printf_grammar.h"

namespace stewardry::cim {

namespace {

constexpr int kMaxWidth = 1000;
// Holds a number of the largest exponent (309 digits) with the largest precision.
constexpr std::size_t kNumberRoom = 1400;

// Passes a va_list by reference, which the type itself does not allow on every platform.
struct Arguments {
  va_list list;
};

template <class Unit>
class Formatter {
 public:
  explicit Formatter(Output<Unit>* out) : out_(out) {}

  int Run(const Unit* format, Arguments* arguments) {
    const Unit* const formatEnd = format + std::char_traits<Unit>::length(format);
    const auto star = [arguments] { return va_arg(arguments->list, int); };
    for (;;) {
      const Unit* end = std::find(format, formatEnd, Unit{'%'});
      Put(format, static_cast<std::size_t>(end - format));
      if (end == formatEnd) return count_ > INT_MAX ? -1 : static_cast<int>(count_);
      Conversion c;
      format = ReadConversion(end + 1, formatEnd, &c, star);
      if (c.width > kMaxWidth || c.precision > kMaxWidth || !Convert(c, arguments)) return -1;
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
        Pad('%', 1);
        return true;
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
        PutCharacter(c, va_arg(arguments->list, int));
        return true;
      case 's':
      case 'S':
        PutText(c, va_arg(arguments->list, const void*));
        return true;
      default:
        return PutReal(c, arguments);
    }
  }

  bool PutReal(const Conversion& c, Arguments* arguments) {
    constexpr std::string_view kReals = "fFeEgGaA";
    if (c.letter == 0 || kReals.find(c.letter) == std::string_view::npos) return false;
    if (c.length == ArgumentLength::kLongDouble) {
      const char ending[] = {'L', c.letter, 0};
      return PutNumber(c, ending, va_arg(arguments->list, long double));
    }
    const char ending[] = {c.letter, 0};
    return PutNumber(c, ending, va_arg(arguments->list, double));
  }

  static long long Signed(ArgumentLength length, Arguments* arguments) {
    switch (length) {
      case ArgumentLength::kChar:
        return static_cast<signed char>(va_arg(arguments->list, int));
      case ArgumentLength::kShort:
        return static_cast<short>(va_arg(arguments->list, int));
      case ArgumentLength::kLong:  // NOLINT(bugprone-branch-clone): another type on Windows
        return va_arg(arguments->list, long);
      case ArgumentLength::kNone:
      case ArgumentLength::kLongDouble:
        return va_arg(arguments->list, int);
      default:
        return va_arg(arguments->list, long long);
    }
  }
  static unsigned long long Unsigned(ArgumentLength length, Arguments* arguments) {
    switch (length) {
      case ArgumentLength::kChar:
        return static_cast<unsigned char>(va_arg(arguments->list, unsigned));
      case ArgumentLength::kShort:
        return static_cast<unsigned short>(va_arg(arguments->list, unsigned));
      case ArgumentLength::kLong:  // NOLINT(bugprone-branch-clone)
        return va_arg(arguments->list, unsigned long);
      case ArgumentLength::kNone:
      case ArgumentLength::kLongDouble:
        return va_arg(arguments->list, unsigned);
      default:
        return va_arg(arguments->list, unsigned long long);
    }
  }

  // Puts the number as the runtime prints it, padded to its width. `ending` follows the precision
  // in the runtime's format.
  template <class Number>
  bool PutNumber(const Conversion& c, const char* ending, Number value) {
    char format[24] = "%";
    std::size_t size = 1;
    if (c.hasPlus) format[size++] = '+';
    if (c.hasBlank) format[size++] = ' ';
    if (c.isAlternate) format[size++] = '#';
    if (c.precision >= 0) {
      format[size++] = '.';
      format[size++] = '*';
    }
    std::copy_n(ending, std::char_traits<char>::length(ending) + 1, format + size);
    char text[kNumberRoom];
    const int length = c.precision >= 0
                           ? std::snprintf(text, sizeof text, format, c.precision, value)
                           : std::snprintf(text, sizeof text, format, value);
    if (length < 0 || static_cast<std::size_t>(length) >= sizeof text) return false;
    PutPadded(c, {text, static_cast<std::size_t>(length)});
    return true;
  }

  bool PutPointer(const Conversion& c, const void* pointer) {
    Conversion digits;
    digits.isLeft = c.isLeft;
    digits.width = c.width;
    digits.precision = 16;
    digits.letter = c.letter;
    return PutNumber(digits, "llX",
                     static_cast<unsigned long long>(reinterpret_cast<std::uintptr_t>(pointer)));
  }

  // Zeros follow the sign and the 0x. A whole number with a precision is padded with blanks.
  void PutPadded(const Conversion& c, std::string_view text) {
    const auto width = static_cast<std::size_t>(c.width);
    const std::size_t size = RecodeNumber(text, [](const Unit*, std::size_t) {});
    const std::size_t padding = width > size ? width - size : 0;
    const bool isWhole = std::string_view("diouxX").find(c.letter) != std::string_view::npos;
    const bool isFinite = text.find_first_of("nN") == std::string_view::npos;  // no inf, no nan
    const bool zeros = c.isZeroPadded && !c.isLeft && isFinite && !(isWhole && c.precision >= 0);
    if (!c.isLeft && !zeros) Pad(' ', padding);
    std::size_t head = zeros && text.find_first_of("+- ") == 0 ? 1 : 0;
    if (zeros && (text.substr(head, 2) == "0x" || text.substr(head, 2) == "0X")) head += 2;
    const auto put = [this](const Unit* units, std::size_t count) { Put(units, count); };
    (void)RecodeNumber(text.substr(0, head), put);
    if (zeros) Pad('0', padding);
    (void)RecodeNumber(text.substr(head), put);
    if (c.isLeft) Pad(' ', padding);
  }

  // Passes the runtime's number to `take` in this width, and returns its length there. It is ASCII
  // except for the locale's decimal point, whose bytes become one unit of 16 bits.
  template <class Take>
  static std::size_t RecodeNumber(std::string_view text, Take take) {
    if constexpr (sizeof(Unit) == 1) {
      take(text.data(), text.size());
      return text.size();
    }
    std::size_t size = 0;
    for (; !text.empty(); ++size) {
      wchar_t wide = static_cast<unsigned char>(text[0]);
      std::size_t bytes = 1;
      if (wide >= 0x80) {
        std::mbstate_t state{};
        // The state is the call's own. NOLINTNEXTLINE(concurrency-mt-unsafe)
        bytes = std::mbrtowc(&wide, text.data(), text.size(), &state);
        if (bytes == 0 || bytes > text.size()) {  // no character
          bytes = 1;
          wide = kReplacementPoint;
        }
      }
      const auto unit = static_cast<Unit>(wide);
      take(&unit, 1);
      text.remove_prefix(bytes);
    }
    return size;
  }

  // Returns whether the conversion's argument is narrow text.
  static bool IsNarrow(const Conversion& c) {
    if (c.length == ArgumentLength::kShort) return true;
    if (c.length == ArgumentLength::kLong) return false;
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

  // A text that is longer than the precision needs no terminator.
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
    if (!c.isLeft) Pad(' ', padding);
    (void)Recode(text, length, [this](const Unit* units, std::size_t count) { Put(units, count); });
    if (c.isLeft) Pad(' ', padding);
  }

  // Passes the text to `take` in this width, and returns its length there. Each byte of an invalid
  // sequence becomes a U+FFFD.
  template <class From, class Take>
  static std::size_t Recode(const From* text, std::size_t length, Take take) {
    if constexpr (sizeof(From) == sizeof(Unit)) {
      take(text, length);
      return length;
    } else {
      std::size_t size = 0;
      for (std::basic_string_view<From> rest(text, length); !rest.empty();) {
        const DecodedPoint decoded = DecodePoint(rest);
        Unit units[4];
        const std::size_t count = EncodePoint(decoded.point, units);
        take(units, count);
        size += count;
        rest.remove_prefix(decoded.isValid ? decoded.size : 1);
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
