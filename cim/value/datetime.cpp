#include "cim/value/datetime.h"

#include <algorithm>
#include <cassert>
#include <iterator>
#include <string_view>
#include <utility>

#include "cim/text/number_scan.h"
#include "cim/value/fixed_digits.h"

namespace stewardry::cim {
namespace {

using Timestamp = CimDatetime::Timestamp;
using Interval = CimDatetime::Interval;

constexpr std::size_t kFixedLength = kFixedDatetimeSize - 1;
constexpr std::size_t kPointPosition = 14;
constexpr std::size_t kSignPosition = 21;  // of the offset's sign, or of an interval's colon
constexpr std::size_t kOffsetPosition = 22;
constexpr std::size_t kOffsetWidth = 3;
constexpr std::size_t kMaxFieldWidth = 63;
constexpr std::size_t kFractionDigits = 6;

// A field of the fixed form, in the order of the text.
template <class Record>
struct FixedField {
  std::uint8_t position;
  std::uint8_t width;
  std::uint32_t Record::*member;
};

constexpr FixedField<Timestamp> kTimestampFields[] = {
    {0, 4, &Timestamp::year},          {4, 2, &Timestamp::month},   {6, 2, &Timestamp::day},
    {8, 2, &Timestamp::hour},          {10, 2, &Timestamp::minute}, {12, 2, &Timestamp::second},
    {15, 6, &Timestamp::microseconds},
};
constexpr FixedField<Interval> kIntervalFields[] = {
    {0, 8, &Interval::days},     {8, 2, &Interval::hours},         {10, 2, &Interval::minutes},
    {12, 2, &Interval::seconds}, {15, 6, &Interval::microseconds},
};

// Returns true if every field lies before the sign.
template <class Record, std::size_t kCount>
constexpr bool FieldsFit(const FixedField<Record> (&fields)[kCount]) {
  for (const FixedField<Record>& field : fields)
    if (field.width == 0 || field.position + field.width > kSignPosition) return false;
  return true;
}
static_assert(FieldsFit(kTimestampFields) && FieldsFit(kIntervalFields));

// Reads a field of asterisks or a number of any syntax. The number is read from a copy, which
// excludes the text after the field.
int ReadAnyField(const char16_t* field, std::size_t width, std::uint32_t* value) {
  assert(width <= kMaxFieldWidth);
  *value = 0;
  char16_t copy[kMaxFieldWidth + 1] = {};
  for (std::size_t i = 0; i < width && field[i] != 0; ++i) copy[i] = field[i];
  if (copy[0] == u'*') {
    return std::all_of(copy, copy + width, [](char16_t unit) { return unit == u'*'; }) ? 0 : -1;
  }
  const ScannedNumber number = ScanDecimal(copy);
  if (number.end != copy + width || number.end == copy) return -1;
  *value = AsUint32(number);
  return 0;
}

// Reads a field of digits, the usual case. Returns false and an undefined value for any other.
template <std::size_t... Place>
bool ReadDigits(const char16_t* field, std::uint32_t* value, std::index_sequence<Place...>) {
  std::uint32_t number = 0;
  ((number = number * 10 + static_cast<std::uint32_t>(field[Place]) - u'0'), ...);
  *value = number;
  return (IsDigitUnit(field[Place]) && ...);
}

// Reads one field of a text of the right length. The table is a template argument, which makes the
// width a constant.
template <const auto& Fields, std::size_t Index, class Record>
bool ReadFixedField(const char16_t* text, Record* record) {
  constexpr auto kField = Fields[Index];
  const char16_t* start = text + kField.position;
  std::uint32_t* value = &(record->*kField.member);
  return ReadDigits(start, value, std::make_index_sequence<kField.width>()) ||
         ReadAnyField(start, kField.width, value) == 0;
}

template <const auto& Fields, class Record, std::size_t... Index>
bool ReadFields(const char16_t* text, Record* record, std::index_sequence<Index...>) {
  return (ReadFixedField<Fields, Index>(text, record) && ...);
}

template <const auto& Fields, class Record>
bool ReadFields(const char16_t* text, Record* record) {
  return ReadFields<Fields>(text, record, std::make_index_sequence<std::size(Fields)>());
}

// Reads no unit after the terminator.
template <std::size_t... Place>
bool HasFixedLength(const char16_t* text, std::index_sequence<Place...>) {
  return ((text[Place] != 0) && ...) && text[kFixedLength] == 0;
}

// Read the fields of a fixed form one by one: the usual text does not come here, and shall not pay
// for the registers that this needs.
[[gnu::noinline]] int ReadInterval(const char16_t* text, Interval* interval) {
  *interval = Interval{};
  return ReadFields<kIntervalFields>(text, interval) ? 0 : -1;
}

[[gnu::noinline]] int ReadTimestamp(const char16_t* text, Timestamp* timestamp) {
  *timestamp = Timestamp{};
  if (!ReadFields<kTimestampFields>(text, timestamp)) return -1;
  std::uint32_t offset = 0;
  if (Datetime_ReadField(text, kOffsetPosition, kOffsetWidth, &offset) != 0) return -1;
  const bool west = text[kSignPosition] == u'-';
  timestamp->utcOffset = static_cast<std::int32_t>(west ? 0 - offset : offset);
  return 0;
}

int ParseFixedInterval(const char16_t* text, CimDatetime* value) {
  const std::u16string_view tail(text + kOffsetPosition, kOffsetWidth);
  if (tail != u"000") return -1;
  value->timestampForm = 0;
  const FixedDigits digits = FixedDigits_Of(text);
  if (!FixedDigits_AreAll(digits)) return ReadInterval(text, &value->interval);
  value->interval = IntervalOf(digits);
  return 0;
}

int ParseFixedTimestamp(const char16_t* text, CimDatetime* value) {
  value->timestampForm = 1;
  const FixedDigits digits = FixedDigits_Of(text);
  if (!FixedDigits_AreAll(digits)) return ReadTimestamp(text, &value->timestamp);
  value->timestamp = TimestampOf(digits, text[kSignPosition] == u'-');
  return 0;
}

bool BeginsWithDigits(const char16_t* text, std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) {
    if (!IsDigitUnit(text[i])) return false;  // the terminator is not a digit
  }
  return true;
}

// A position in a schema form. A read advances it, or returns false and leaves it undefined if the
// expected item is missing.
class Cursor {
 public:
  explicit Cursor(const char16_t* text) : at_(text) {}

  char16_t Unit() const { return *at_; }
  bool AtEnd() const { return *at_ == 0; }
  bool AtZone() const { return *at_ == u'Z' || *at_ == u'+' || *at_ == u'-'; }

  bool Take(char16_t unit) {
    if (*at_ != unit) return false;
    ++at_;
    return true;
  }

  // Reads a number of any width.
  bool Number(std::uint32_t* value) {
    const ScannedNumber number = ScanDecimal(at_);
    if (number.end == at_) return false;
    at_ = number.end;
    *value = AsUint32(number);
    return true;
  }

  // Reads a number of exactly `Width` units.
  template <std::size_t Width>
  bool Number(std::uint32_t* value) {
    const char16_t* start = at_;
    if (BeginsWithDigits(start, Width) && !IsDigitUnit(start[Width])) {
      at_ += Width;
      return ReadDigits(start, value, std::make_index_sequence<Width>());
    }
    return Number(value) && at_ - start == Width;
  }

  // Reads the digits after the point, of which there may be none, as microseconds.
  std::uint32_t Fraction() {
    const ScannedNumber all = ScanDecimal(at_);
    const auto length = static_cast<std::size_t>(all.end - at_);
    if (length == 0) return 0;
    char16_t digits[kFractionDigits + 1] = {};
    std::fill_n(digits, kFractionDigits, u'0');
    std::copy_n(at_, std::min(length, kFractionDigits), digits);
    at_ = all.end;
    return AsUint32(ScanDecimal(digits));
  }

 private:
  const char16_t* at_;
};

// Parses `Z`, or a sign and hh:mm.
bool ParseZone(Cursor* cursor, Timestamp* timestamp) {
  if (cursor->Take(u'Z')) return true;
  const bool west = cursor->Take(u'-');
  if (!west && !cursor->Take(u'+')) return false;
  std::uint32_t hours = 0;
  std::uint32_t minutes = 0;
  if (!cursor->Number<2>(&hours) || !cursor->Take(u':') || !cursor->Number<2>(&minutes))
    return false;
  const std::uint32_t offset = hours * 60 + minutes;
  timestamp->utcOffset = static_cast<std::int32_t>(west ? 0 - offset : offset);
  return true;
}

bool ParseDate(Cursor* cursor, Timestamp* timestamp) {
  if (!cursor->Number<4>(&timestamp->year) || !cursor->Take(u'-')) return false;
  if (!cursor->Number<2>(&timestamp->month) || !cursor->Take(u'-')) return false;
  if (!cursor->Number<2>(&timestamp->day)) return false;
  return !cursor->AtZone() || ParseZone(cursor, timestamp);
}

bool ParseTime(Cursor* cursor, Timestamp* timestamp) {
  if (!cursor->Number<2>(&timestamp->hour) || !cursor->Take(u':')) return false;
  if (!cursor->Number<2>(&timestamp->minute) || !cursor->Take(u':')) return false;
  if (!cursor->Number<2>(&timestamp->second)) return false;
  if (cursor->Take(u'.')) timestamp->microseconds = cursor->Fraction();
  return !cursor->AtZone() || ParseZone(cursor, timestamp);
}

struct Duration {
  std::uint32_t years, months, days, hours, minutes, seconds, microseconds;
};

// A letter of a duration and the field it sets.
struct DurationItem {
  char16_t letter;
  bool afterT;
  std::uint32_t Duration::*member;
};
constexpr DurationItem kDurationItems[] = {
    {u'Y', false, &Duration::years},  {u'M', false, &Duration::months},
    {u'D', false, &Duration::days},   {u'H', true, &Duration::hours},
    {u'M', true, &Duration::minutes}, {u'S', true, &Duration::seconds},
};

// Parses one item: a number and its letter, or seconds with a fraction.
bool ParseDurationItem(Cursor* cursor, bool afterT, Duration* duration) {
  std::uint32_t number = 0;
  if (!cursor->Number(&number)) return false;
  if (afterT && cursor->Take(u'.')) {
    duration->microseconds = cursor->Fraction();
    duration->seconds = number;
    return cursor->Take(u'S');
  }
  for (const DurationItem& item : kDurationItems) {
    if (item.afterT != afterT || !cursor->Take(item.letter)) continue;
    duration->*item.member = number;
    return true;
  }
  return false;
}

// Carries seconds to minutes to hours to days, and converts years and months to days. All
// arithmetic on these fields wraps at 32 bits.
Interval Carry(Duration d) {
  d.minutes += d.seconds / 60;
  d.hours += d.minutes / 60;
  d.days += d.hours / 24;
  d.days += d.years * 365 + d.years / 4;
  d.days += d.months * 30 + d.months / 2;
  return Interval{d.days, d.hours % 24, d.minutes % 60, d.seconds % 60, d.microseconds, {}};
}

int ParseDuration(Cursor cursor, CimDatetime* value) {
  Duration duration{};
  bool afterT = false;
  while (!cursor.AtEnd()) {
    if (cursor.Take(u'T')) {
      afterT = true;
    } else if (!ParseDurationItem(&cursor, afterT, &duration)) {
      return -1;
    }
  }
  value->timestampForm = 0;
  value->interval = Carry(duration);
  return 0;
}

// A text that is cut at the buffer's size. End or EndWhole writes the terminator.
class BoundedText {
 public:
  BoundedText(char16_t* buffer, std::size_t size)
      : buffer_(buffer), next_(buffer), last_(buffer + size - 1) {
    assert(size != 0);
  }

  void Put(char16_t unit) {
    cut_ = cut_ || next_ == last_;
    if (!cut_) *next_++ = unit;
  }

  // Writes as "%0*u" does.
  void Number(std::uint32_t value, int width = 1) {
    assert(width <= 10);
    char16_t digits[10];
    char16_t* first = digits + 10;
    for (; value != 0 || width > 0; value /= 10, --width)
      *--first = static_cast<char16_t>(u'0' + value % 10);
    for (; first != digits + 10; ++first) Put(*first);
  }

  // Writes as "%0*d" does, for a signed field that is stored unsigned.
  void Signed(std::uint32_t value, int width) {
    const bool negative = value > std::uint32_t{INT32_MAX};
    if (negative) Put(u'-');
    Number(negative ? 0 - value : value, negative ? width - 1 : width);
  }

  void End() { *next_ = 0; }
  // As End, but empties a text that was cut.
  void EndWhole() { *(cut_ ? buffer_ : next_) = 0; }

 private:
  char16_t* buffer_;
  char16_t* next_;
  char16_t* last_;
  bool cut_ = false;
};

std::uint32_t OffsetMagnitude(const Timestamp& t) {
  const auto offset = static_cast<std::uint32_t>(t.utcOffset);
  return t.utcOffset < 0 ? 0 - offset : offset;
}

void PutFixedTimestamp(const Timestamp& t, BoundedText* out) {
  for (const FixedField<Timestamp>& field : kTimestampFields) {
    if (field.position == kPointPosition + 1) out->Put(u'.');
    out->Signed(t.*field.member, field.width);
  }
  out->Put(t.utcOffset < 0 ? u'-' : u'+');
  out->Number(OffsetMagnitude(t), kOffsetWidth);
}

void PutFixedInterval(const Interval& interval, BoundedText* out) {
  for (const FixedField<Interval>& field : kIntervalFields) {
    if (field.position == kPointPosition + 1) out->Put(u'.');
    out->Number(interval.*field.member, field.width);
  }
  for (const char16_t unit : std::u16string_view(u":000")) out->Put(unit);
}

void PutSchemaZone(const Timestamp& t, BoundedText* out) {
  if (t.utcOffset == 0) return out->Put(u'Z');
  const std::uint32_t offset = OffsetMagnitude(t);
  out->Put(t.utcOffset < 0 ? u'-' : u'+');
  out->Number(offset / 60, 2);
  out->Put(u':');
  out->Number(offset % 60, 2);
}

void PutSchemaTimestamp(const Timestamp& t, BoundedText* out) {
  out->Number(t.year, 4);
  out->Put(u'-');
  out->Number(t.month, 2);
  out->Put(u'-');
  out->Number(t.day, 2);
  out->Put(u'T');
  out->Number(t.hour, 2);
  out->Put(u':');
  out->Number(t.minute, 2);
  out->Put(u':');
  out->Number(t.second, 2);
  if (t.microseconds != 0) {
    out->Put(u'.');
    out->Number(t.microseconds, kFractionDigits);
  }
  PutSchemaZone(t, out);
}

void PutItem(std::uint32_t value, char16_t letter, BoundedText* out) {
  if (value == 0) return;
  out->Number(value);
  out->Put(letter);
}

void PutSchemaInterval(const Interval& interval, BoundedText* out) {
  out->Put(u'P');
  PutItem(interval.days, u'D', out);
  if ((interval.hours | interval.minutes | interval.seconds | interval.microseconds) == 0) return;
  out->Put(u'T');
  PutItem(interval.hours, u'H', out);
  PutItem(interval.minutes, u'M', out);
  if (interval.microseconds == 0) return PutItem(interval.seconds, u'S', out);
  out->Number(interval.seconds);
  out->Put(u'.');
  out->Number(interval.microseconds, kFractionDigits);
  out->Put(u'S');
}

}  // namespace

int Datetime_ReadField(const char16_t* text, std::size_t position, std::size_t width,
                       std::uint32_t* value) {
  if (text == nullptr || value == nullptr || width > kMaxFieldWidth) return -1;
  return ReadAnyField(text + position, width, value);
}

int Datetime_ParseFixed(const char16_t* text, CimDatetime* value) {
  if (text == nullptr || value == nullptr) return -1;
  if (!HasFixedLength(text, std::make_index_sequence<kFixedLength>())) return -1;
  if (text[kPointPosition] != u'.') return -1;
  switch (text[kSignPosition]) {
    case u'+':
    case u'-':
      return ParseFixedTimestamp(text, value);
    case u':':
      return ParseFixedInterval(text, value);
    default:
      return -1;
  }
}

int Datetime_ParseSchema(const char16_t* text, CimDatetime* value) {
  if (text == nullptr || value == nullptr || *text == u'-') return -1;
  Cursor cursor(text);
  if (cursor.Take(u'P')) return ParseDuration(cursor, value);

  value->timestampForm = 1;
  value->timestamp = Timestamp{};
  if (BeginsWithDigits(text, 4)) {
    if (!ParseDate(&cursor, &value->timestamp)) return -1;
    if (cursor.AtEnd()) return 0;
    if (!cursor.Take(u'T')) return -1;
  } else if (!BeginsWithDigits(text, 2) || text[2] != u':') {
    return -1;
  }
  return ParseTime(&cursor, &value->timestamp) && cursor.AtEnd() ? 0 : -1;
}

int Datetime_Parse(const char16_t* text, CimDatetime* value) {
  return Datetime_ParseFixed(text, value) == 0 ? 0 : Datetime_ParseSchema(text, value);
}

void Datetime_ToFixed(const CimDatetime* value, char16_t* buffer) {
  if (value == nullptr || buffer == nullptr) return;
  BoundedText out(buffer, kFixedDatetimeSize);
  if (value->timestampForm != 0) {
    PutFixedTimestamp(value->timestamp, &out);
  } else {
    PutFixedInterval(value->interval, &out);
  }
  out.EndWhole();
}

void Datetime_ToSchema(const CimDatetime* value, char16_t* buffer) {
  if (value == nullptr || buffer == nullptr) return;
  BoundedText out(buffer, kSchemaDatetimeSize);
  if (value->timestampForm != 0) {
    PutSchemaTimestamp(value->timestamp, &out);
  } else {
    PutSchemaInterval(value->interval, &out);
  }
  out.End();
}

int Datetime_IntervalToMicroseconds(const CimDatetime* value, std::uint64_t* microseconds) {
  if (value == nullptr || microseconds == nullptr || value->timestampForm != 0) return -1;
  const Interval& i = value->interval;
  const std::uint64_t seconds = i.seconds + std::uint64_t{i.minutes} * 60 +
                                std::uint64_t{i.hours} * 3600 + std::uint64_t{i.days} * 86400;
  *microseconds = i.microseconds + seconds * 1000000;
  return 0;
}

}  // namespace stewardry::cim
