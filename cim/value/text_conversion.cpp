#include "cim/value/text_conversion.h"

#include <algorithm>
#include <cassert>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <string_view>
#include <system_error>

#include "cim/memory/heap.h"
#include "cim/text/decimal_real.h"
#include "cim/text/four_units.h"
#include "cim/text/number_scan.h"
#include "cim/value/datetime.h"
#include "cim/value/names.h"

namespace stewardry::cim {
namespace {

// `Take` narrows the scanned number to the value's type.
template <class Value, auto Take>
int ConvertWhole(const char16_t* text, Value* value) {
  if (text == nullptr || value == nullptr) return -1;
  const ScannedNumber number = ScanAnyBase(text);
  if (*number.end != 0) return -1;
  *value = static_cast<Value>(Take(number));
  return 0;
}

// The text of a real number in narrow characters, for std::from_chars.
class NarrowNumber {
 public:
  // Has no digits if a unit is not ASCII, or if allocation for a long text fails.
  explicit NarrowNumber(std::u16string_view text) {
    char* narrow = buffer_;
    if (text.size() >= sizeof buffer_)
      narrow = block_ = static_cast<char*>(Heap_Allocate(text.size()));
    if (narrow != nullptr && Narrow(text, narrow)) digits_ = std::string_view(narrow, text.size());
  }
  NarrowNumber(const NarrowNumber&) = delete;
  NarrowNumber& operator=(const NarrowNumber&) = delete;
  ~NarrowNumber() { Heap_Free(block_); }

  std::string_view Digits() const { return digits_; }

 private:
  // Returns false if a unit is not ASCII.
  static bool Narrow(std::u16string_view text, char* narrow) {
    std::uint64_t seen = 0;  // the bits of all units
    std::size_t i = 0;
    for (; text.size() - i >= 4; i += 4) {
      const std::uint64_t four = LoadFourUnits(text.data() + i);
      seen |= four;
      const std::uint64_t pairs = (four | four >> 8) & 0x0000FFFF0000FFFF;
      const auto packed = static_cast<std::uint32_t>(pairs | pairs >> 16);
      std::memcpy(narrow + i, &packed, sizeof packed);
    }
    for (; i < text.size(); ++i) {
      narrow[i] = static_cast<char>(text[i]);
      seen |= text[i];
    }
    return (seen & FourTimes(0xFF80)) == 0;
  }

  char buffer_[120];
  char* block_ = nullptr;
  std::string_view digits_;
};

// Returns true if a number outside the range of double is too large, false if it is too small. Adds
// the order of magnitude of the mantissa to the exponent; the sum is far from 0 in both cases.
bool IsTooLarge(std::string_view digits, bool hex) {
  const std::size_t mark = std::min(digits.find_first_of(hex ? "pP" : "eE"), digits.size());
  const std::string_view mantissa = digits.substr(0, mark);
  const std::size_t lead = mantissa.find_first_not_of("0.");
  if (lead == std::string_view::npos) return false;
  const auto point = static_cast<std::int64_t>(std::min(mantissa.find('.'), mantissa.size()));
  const std::int64_t order = (point - static_cast<std::int64_t>(lead)) * (hex ? 4 : 1);

  std::string_view power = digits.substr(std::min(mark + 1, digits.size()));
  if (power.starts_with('+')) power.remove_prefix(1);
  std::int64_t exponent = 0;
  const auto read = std::from_chars(power.data(), power.data() + power.size(), exponent);
  assert(read.ec != std::errc::result_out_of_range || !power.empty());
  if (read.ec == std::errc::result_out_of_range) return power.front() != '-';
  return exponent > -order;
}

// After the prefix std::from_chars would accept a sign or a word, so a digit or a point is
// required.
bool StartsHex(std::string_view digits) {
  if (digits.size() < 3 || digits[0] != '0' || (digits[1] | 0x20) != 'x') return false;
  return digits[2] == '.' || DigitValue(static_cast<unsigned char>(digits[2])) < 16;
}

// Reads a number without blanks and sign that extends to the end of `digits`.
bool ReadMagnitude(std::string_view digits, double* magnitude) {
  const bool hex = StartsHex(digits);
  if (hex) digits.remove_prefix(2);
  if (digits.empty() || digits.front() == '-') return false;
  const char* last = digits.data() + digits.size();
  const auto format = hex ? std::chars_format::hex : std::chars_format::general;
  const auto read = std::from_chars(digits.data(), last, *magnitude, format);
  if (read.ec == std::errc::invalid_argument || read.ptr != last) return false;
  if (read.ec == std::errc::result_out_of_range) {
    *magnitude = IsTooLarge(digits, hex) ? std::numeric_limits<double>::infinity() : 0.0;
  }
  return true;
}

// Reads as ReadMagnitude from 16-bit text, of which the units before `end` are no terminators. The
// usual numbers do not come here, and shall not pay for the buffer.
[[gnu::noinline]] bool ReadNarrow(const char16_t* text, const char16_t* end, double* magnitude) {
  const std::size_t length =
      static_cast<std::size_t>(end - text) + std::char_traits<char16_t>::length(end);
  return ReadMagnitude(NarrowNumber({text, length}).Digits(), magnitude);
}

// Adapts a converter to the table's form.
template <class Value, int (*Convert)(const char16_t*, Value*)>
int Into(const char16_t* text, void* value) {
  return Convert(text, static_cast<Value*>(value));
}

}  // namespace

int Text_ToBoolean(const char16_t* text, std::uint8_t* value) {
  if (text == nullptr || value == nullptr) return -1;
  const bool isTrue = Name_Equal(text, u"true");
  if (!isTrue && !Name_Equal(text, u"false")) return -1;
  *value = isTrue ? 1 : 0;
  return 0;
}

int Text_ToUint8(const char16_t* text, std::uint8_t* value) {
  return ConvertWhole<std::uint8_t, AsUint32>(text, value);
}

int Text_ToUint16(const char16_t* text, std::uint16_t* value) {
  return ConvertWhole<std::uint16_t, AsUint32>(text, value);
}

int Text_ToUint32(const char16_t* text, std::uint32_t* value) {
  return ConvertWhole<std::uint32_t, AsUint32>(text, value);
}

int Text_ToChar16(const char16_t* text, char16_t* value) {
  return ConvertWhole<char16_t, AsUint32>(text, value);
}

int Text_ToSint8(const char16_t* text, std::int8_t* value) {
  return ConvertWhole<std::int8_t, AsSint32>(text, value);
}

int Text_ToSint16(const char16_t* text, std::int16_t* value) {
  return ConvertWhole<std::int16_t, AsSint32>(text, value);
}

int Text_ToSint32(const char16_t* text, std::int32_t* value) {
  return ConvertWhole<std::int32_t, AsSint32>(text, value);
}

int Text_ToUint64(const char16_t* text, std::uint64_t* value) {
  return ConvertWhole<std::uint64_t, AsUint64>(text, value);
}

int Text_ToSint64(const char16_t* text, std::int64_t* value) {
  return ConvertWhole<std::int64_t, AsSint64>(text, value);
}

int Text_ToReal64(const char16_t* text, double* value) {
  if (text == nullptr || value == nullptr) return -1;
  if (*text == 0) {
    *value = 0;
    return 0;
  }
  while (IsBlankUnit(*text)) ++text;
  const bool negative = *text == u'-';
  if (negative || *text == u'+') ++text;
  const ScannedDecimal number = ScanReal(text);
  double magnitude = 0;
  if (*number.end == 0 && number.isExact && std::abs(number.exponent) <= kMostPower) {
    magnitude = NearestReal(number.digits, number.exponent);
  } else if (!ReadNarrow(text, number.end, &magnitude)) {
    return -1;
  }
  *value = negative ? -magnitude : magnitude;
  return 0;
}

int Text_ToReal32(const char16_t* text, float* value) {
  double wide = 0;
  if (value == nullptr || Text_ToReal64(text, &wide) != 0) return -1;
  *value = static_cast<float>(wide);
  return 0;
}

static_assert(kTextConverterCount == CIM_ARRAY);  // one for each scalar type
const TextConverter TextConverters[kTextConverterCount] = {
    Into<std::uint8_t, Text_ToBoolean>,
    Into<std::uint8_t, Text_ToUint8>,
    Into<std::int8_t, Text_ToSint8>,
    Into<std::uint16_t, Text_ToUint16>,
    Into<std::int16_t, Text_ToSint16>,
    Into<std::uint32_t, Text_ToUint32>,
    Into<std::int32_t, Text_ToSint32>,
    Into<std::uint64_t, Text_ToUint64>,
    Into<std::int64_t, Text_ToSint64>,
    Into<float, Text_ToReal32>,
    Into<double, Text_ToReal64>,
    Into<char16_t, Text_ToChar16>,
    Into<CimDatetime, Datetime_Parse>,
    nullptr,  // STRING
    nullptr,  // REFERENCE
    nullptr,  // INSTANCE
};

}  // namespace stewardry::cim
