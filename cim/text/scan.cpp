// A C runtime's scanf over texts of either width. A runtime may have none for 16 bits, and both
// widths must read alike.
#include "cim/text/scan.h"

#include <algorithm>
#include <array>
#include <cassert>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>
#include <type_traits>

#include "cim/text/format.h"
#include "text/printf_grammar.h"

namespace stewardry::cim {

namespace {

constexpr std::size_t kMaxFields = 10;
// The longest number that is read; a C runtime may have such a limit.
constexpr std::size_t kMaxNumber = 508;

using Fields = std::array<void*, kMaxFields>;

template <class Unit>
bool IsSpace(Unit unit) {
  return unit == ' ' || (unit >= '\t' && unit <= '\r');
}

template <class Unit>
struct Conversion {
  bool isDropped = false;
  std::size_t width = 0;  // 0: none given
  ArgumentLength length = ArgumentLength::kNone;
  Unit letter = 0;
  const Unit* set = nullptr;  // of %[: the text between the brackets
  const Unit* setEnd = nullptr;
};

template <class Unit>
const Unit* ReadSet(const Unit* at, Conversion<Unit>* c) {
  c->set = at;
  if (*at == '^') ++at;
  if (*at == ']') ++at;  // the first one is part of the set
  while (*at != 0 && *at != ']') ++at;
  c->setEnd = at;
  return *at == 0 ? at : at + 1;
}

// Reads the conversion whose '%' immediately precedes `at`, and returns the address behind it. The
// letter is 0 if the format ends too early.
template <class Unit>
const Unit* ReadConversion(const Unit* at, const Unit* end, Conversion<Unit>* c) {
  if (*at == '*') {
    c->isDropped = true;
    ++at;
  }
  for (; *at >= '0' && *at <= '9'; ++at)
    c->width = std::min<std::size_t>(c->width * 10 + static_cast<std::size_t>(*at - '0'), INT_MAX);
  at = ReadLength(at, end, &c->length);
  if (at == end) return at;
  c->letter = *at++;
  return c->letter == '[' ? ReadSet(at, c) : at;
}

template <class Unit>
bool IsInSet(const Conversion<Unit>& c, Unit unit) {
  const Unit* at = c.set;
  const bool isInverted = *at == '^';
  if (isInverted) ++at;
  bool isFound = false;
  for (; at < c.setEnd; ++at) {
    const bool isRange = at + 2 < c.setEnd && at[1] == '-';
    isFound = isFound || (isRange ? unit >= at[0] && unit <= at[2] : unit == at[0]);
    if (isRange) at += 2;
  }
  return isFound != isInverted;
}

// Stores text in a field of either width, by the rules of the bounded copies: a narrow field gets
// the low bytes of 16-bit text, a 16-bit field the sign-extended bytes of narrow text.
template <class Unit>
void StoreText(void* field, bool isNarrow, const Unit* text, std::size_t count, bool isTerminated) {
  const auto store = [&](auto* to) {
    using To = std::remove_pointer_t<decltype(to)>;
    for (std::size_t i = 0; i < count; ++i)
      if constexpr (sizeof(Unit) < sizeof(To))
        to[i] = static_cast<To>(static_cast<signed char>(text[i]));
      else
        to[i] = static_cast<To>(text[i]);
    if (isTerminated) to[count] = 0;
  };
  isNarrow ? store(static_cast<char*>(field)) : store(static_cast<char16_t*>(field));
}

void StoreInteger(void* field, ArgumentLength length, unsigned long long value) {
  switch (length) {
    case ArgumentLength::kChar:
      *static_cast<unsigned char*>(field) = static_cast<unsigned char>(value);
      break;
    case ArgumentLength::kShort:
      *static_cast<unsigned short*>(field) = static_cast<unsigned short>(value);
      break;
    case ArgumentLength::kLong:
      *static_cast<unsigned long*>(field) = static_cast<unsigned long>(value);
      break;
    case ArgumentLength::kLongLong:
      *static_cast<unsigned long long*>(field) = value;
      break;
    default:
      *static_cast<unsigned*>(field) = static_cast<unsigned>(value);
  }
}

template <class Unit>
class Scanner {
 public:
  Scanner(const Unit* text, const Fields& fields) : start_(text), at_(text), fields_(fields) {}

  int Run(const Unit* format) {
    const Unit* const end = format + std::char_traits<Unit>::length(format);
    while (format != end) {
      if (IsSpace(*format)) {
        SkipSpace();
        ++format;
      } else if (*format != '%') {
        if (*at_ != *format) return Result();
        ++at_;
        ++format;
      } else {
        Conversion<Unit> c;
        format = ReadConversion(format + 1, end, &c);
        if (!Read(c)) return Result();
      }
    }
    return stored_;
  }

 private:
  int Result() const { return *at_ == 0 && stored_ == 0 && !hasRead_ ? -1 : stored_; }
  void SkipSpace() {
    while (IsSpace(*at_)) ++at_;
  }

  bool Read(const Conversion<Unit>& c) {
    if (c.letter == '%') {
      SkipSpace();
      if (*at_ != '%') return false;
      ++at_;
      return true;
    }
    if (c.letter == 'n') {
      StoreCount(c);
      return true;
    }
    if (c.letter != 'c' && c.letter != 'C' && c.letter != '[') SkipSpace();
    if (*at_ == 0) return false;
    const bool isRead = ReadField(c);
    hasRead_ = hasRead_ || isRead;
    return isRead;
  }

  bool ReadField(const Conversion<Unit>& c) {
    switch (c.letter) {
      case 'd':
      case 'u':
        return ReadInteger(c, 10);
      case 'i':
        return ReadInteger(c, 0);
      case 'o':
        return ReadInteger(c, 8);
      case 'x':
      case 'X':
      case 'p':
        return ReadInteger(c, 16);
      case 'c':
      case 'C':
        return ReadText(c, c.width == 0 ? 1 : c.width, false, [](Unit) { return true; });
      case 's':
      case 'S':
        return ReadText(c, c.width, true, [](Unit unit) { return !IsSpace(unit); });
      case '[':
        return ReadText(c, c.width, true, [&c](Unit unit) { return IsInSet(c, unit); });
      default:
        return ReadReal(c);
    }
  }

  // Returns the next field's address; null for a conversion that drops, and for one that TakeFields
  // did not count, such as the %d that remains of %*%%d after the conversion %*%.
  void* Next(const Conversion<Unit>& c) {
    if (c.isDropped || used_ == fields_.size()) return nullptr;
    return fields_[used_++];
  }

  void StoreCount(const Conversion<Unit>& c) {
    if (void* field = Next(c); field != nullptr)
      StoreInteger(field, c.length, static_cast<unsigned long long>(at_ - start_));
  }

  template <class Belongs>
  bool ReadText(const Conversion<Unit>& c, std::size_t width, bool isTerminated, Belongs belongs) {
    std::size_t count = 0;
    while (at_[count] != 0 && (width == 0 || count < width) && belongs(at_[count])) ++count;
    const bool isWhole = isTerminated ? count > 0 : count == width;
    void* field = isWhole ? Next(c) : nullptr;
    if (field != nullptr) {
      StoreText(field, IsNarrow(c), at_, count, isTerminated);
      ++stored_;
    }
    at_ += count;
    return isWhole;
  }

  static bool IsNarrow(const Conversion<Unit>& c) {
    if (c.length == ArgumentLength::kShort) return true;
    if (c.length == ArgumentLength::kLong) return false;
    const bool isOther = c.letter == 'S' || c.letter == 'C';
    return (sizeof(Unit) == 1) != isOther;
  }

  // Copies the units ahead that may be part of a number, as narrow text with a terminator.
  void CopyNumber(const Conversion<Unit>& c, char (&number)[kMaxNumber + 1]) const {
    const std::size_t most = c.width == 0 ? kMaxNumber : std::min(c.width, kMaxNumber);
    std::size_t count = 0;
    for (; count < most && at_[count] > 0x20 && at_[count] < 0x7F; ++count)
      number[count] = static_cast<char>(at_[count]);
    number[count] = 0;
  }

  bool ReadInteger(const Conversion<Unit>& c, int base) {
    char number[kMaxNumber + 1];
    CopyNumber(c, number);
    char* end;
    // Both conversions of the runtime accept a sign and yield the same low bits. Beyond its range
    // each yields the end of the range.
    const bool isSigned = c.letter == 'd' || c.letter == 'i';
    const unsigned long long value =
        isSigned ? static_cast<unsigned long long>(std::strtoll(number, &end, base))
                 : std::strtoull(number, &end, base);
    if (end == number) return false;
    at_ += end - number;
    if (void* field = Next(c); field != nullptr) {
      const bool isPointer = c.letter == 'p';
      StoreInteger(field, isPointer ? ArgumentLength::kLongLong : c.length, value);
      ++stored_;
    }
    return true;
  }

  bool ReadReal(const Conversion<Unit>& c) {
    constexpr std::string_view kReals = "aAeEfFgG";
    if (c.letter >= 0x80 || kReals.find(static_cast<char>(c.letter)) == std::string_view::npos)
      return false;
    if (c.length == ArgumentLength::kLongDouble) return StoreReal(c, std::strtold);
    if (c.length == ArgumentLength::kLong) return StoreReal(c, std::strtod);
    return StoreReal(c, std::strtof);
  }

  // Converts to the field's own size: a narrowed number would be rounded twice.
  template <class Real>
  bool StoreReal(const Conversion<Unit>& c, Real (*convert)(const char*, char**)) {
    char number[kMaxNumber + 1];
    CopyNumber(c, number);
    char* end;
    const Real value = convert(number, &end);
    if (end == number) return false;
    at_ += end - number;
    if (void* field = Next(c); field != nullptr) {
      *static_cast<Real*>(field) = value;
      ++stored_;
    }
    return true;
  }

  const Unit* start_;
  const Unit* at_;
  const Fields& fields_;
  std::size_t used_ = 0;
  int stored_ = 0;
  bool hasRead_ = false;
};

// Takes one pointer for each % that does not precede another % or a *. Returns false for an
// eleventh.
template <class Unit>
bool TakeFields(const Unit* format, va_list arguments, Fields* fields) {
  va_list list;
  va_copy(list, arguments);
  std::size_t count = 0;
  bool isTaken = true;
  for (; *format != 0 && isTaken; ++format) {
    if (*format != '%') continue;
    if (*++format == 0) break;
    if (*format == '%' || *format == '*') continue;
    isTaken = count < fields->size();
    if (isTaken) (*fields)[count++] = va_arg(list, void*);
  }
  va_end(list);
  return isTaken;
}

template <class Unit>
int Scan(const Unit* text, const Unit* format, va_list arguments) {
  assert(text != nullptr && format != nullptr);
  const TranslatedFormat<Unit> translated(format);
  const CLocale locale;
  Fields fields{};
  if (translated.Text() == nullptr || !TakeFields(format, arguments, &fields)) return -1;
  return Scanner<Unit>(text, fields).Run(translated.Text());
}

}  // namespace

int Scan_FromTextCV(const char* text, const char* format, va_list arguments) {
  return Scan(text, format, arguments);
}

int Scan_FromTextC(const char* text, const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const int stored = Scan(text, format, arguments);
  va_end(arguments);
  return stored;
}

int ScanW_FromTextCV(const char16_t* text, const char16_t* format, va_list arguments) {
  return Scan(text, format, arguments);
}

int ScanW_FromTextC(const char16_t* text, const char16_t* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  const int stored = Scan(text, format, arguments);
  va_end(arguments);
  return stored;
}

}  // namespace stewardry::cim
