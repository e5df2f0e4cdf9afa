// The text forms of a date-time: the record of each form, refused texts, and printing.
#include "cim/value/datetime.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <initializer_list>
#include <string>
#include <utility>

namespace stewardry::cim {
namespace {

CimDatetime Stamp(CimDatetime::Timestamp timestamp) {
  CimDatetime value{1, {}};
  value.timestamp = timestamp;
  return value;
}

CimDatetime Span(CimDatetime::Interval interval) {
  CimDatetime value{0, {}};
  value.interval = interval;
  return value;
}

using Parser = int (*)(const char16_t*, CimDatetime*);

struct Case {
  std::u16string text;  // on the heap, so that a sanitizer reports a read beyond it
  CimDatetime value;
};

// Each form's own parser and the one of both forms must agree.
void ExpectParsed(Parser parse, std::initializer_list<Case> rows) {
  for (const Case& row : rows)
    for (const Parser each : {parse, Parser{Datetime_Parse}}) {
      SCOPED_TRACE(testing::PrintToString(row.text));
      CimDatetime value;
      std::memset(static_cast<void*>(&value), 0xEE, sizeof value);
      EXPECT_EQ(each(row.text.c_str(), &value), 0);
      EXPECT_EQ(std::memcmp(&value, &row.value, sizeof value), 0);
    }
}

// `texts` are separated by bars.
void ExpectRefused(Parser parse, const std::u16string& texts) {
  for (std::size_t begin = 0, end; begin <= texts.size(); begin = end + 1) {
    end = std::min(texts.find(u'|', begin), texts.size());
    const std::u16string text(texts, begin, end - begin);
    CimDatetime value;
    EXPECT_EQ(parse(text.c_str(), &value), -1) << testing::PrintToString(text);
    EXPECT_EQ(Datetime_Parse(text.c_str(), &value), -1) << testing::PrintToString(text);
  }
}

TEST(DatetimeTest, FixedFormsBecomeRecords) {
  ExpectParsed(Datetime_ParseFixed,
               {{u"****0229123000.000000-060", Stamp({0, 2, 29, 12, 30, 0, 0, -60})},
                {u"**************.******+***", Stamp({0, 0, 0, 0, 0, 0, 0, 0})},
                {u"99991399999999.999999+999",
                 Stamp({9999, 13, 99, 99, 99, 99, 999999, 999})},  // ranges are not checked
                {u"********020304.******:000", Span({0, 2, 3, 4, 0, {}})},
                {u"      -1020304.000005:000", Span({0xFFFFFFFF, 2, 3, 4, 5, {}})}});
}

TEST(DatetimeTest, OtherTextsAreRefusedAsFixedForm) {
  ExpectRefused(
      Datetime_ParseFixed,
      u"|2|20240229123456.123456+06|20240229123456.123456+0600|20240229123456.123456 060"
      u"|20240229123456,123456+060|*1240229123456.123456+060|1*240229123456.123456+060"
      u"|/0240229123456.123456+060|20240229123456.1234:6+060|20240229123456.123456+0\u01310"
      u"|2024  29123456.123456+060|2024022912345x.123456+060|20240229123456.123456+06x"
      u"|00000001020304.000005:001|00000001020304.000005:***|00000001020304.00000x:000");
}

TEST(DatetimeTest, SchemaFormsBecomeRecords) {
  ExpectParsed(Datetime_ParseSchema,
               {{u"2024-02-29", Stamp({2024, 2, 29, 0, 0, 0, 0, 0})},
                {u"2024-02-29+01:00T12:00:00-02:00", Stamp({2024, 2, 29, 12, 0, 0, 0, -120})},
                {u"2024-02-29T12:34:56.5Z", Stamp({2024, 2, 29, 12, 34, 56, 500000, 0})},
                {u"99:99:99.1234567890123456789012345", Stamp({0, 0, 0, 99, 99, 99, 123456, 0})},
                {u"PT", Span({})},
                {u"P4Y2M", Span({1522, 0, 0, 0, 0, {}})},
                {u"P3DT4H5M6.789S", Span({3, 4, 5, 6, 789000, {}})},
                {u"P1D1Y2DTT7M", Span({367, 0, 7, 0, 0, {}})},  // any order; the later item is used
                {u"PT99999999999S", Span({49710, 6, 28, 15, 0, {}})}});
}

TEST(DatetimeTest, OtherTextsAreRefusedAsSchemaForm) {
  ExpectRefused(
      Datetime_ParseSchema,
      u"-2024-02-29|2024|2024-2-29|2024-002-29|20240-02-29|2024-02-29 |2024-02-29T|2024-02-29Zx"
      u"|2024-02-29T12:00|2024-02-29T12:00:0|2024-02-29T12:00:00x|2024-02-29T12:00:00Z+01:00"
      u"|2024-02-29T12:00:00+1:00|2024-02-29T12:00:00+01|2024-02-2\uFF19"
      u"|12:00|1:00:00| 1:00:00|12:00:00Zx|12-00:00"
      u"|-P1D|P1|P1X|P1H|P1.5D|PT1D|PT1.5M|PT1.5|PTS|P Y|P1Y |p1Y");
}

TEST(DatetimeTest, FieldsAreReadWithinTheirText) {
  std::uint32_t value = 0;
  const std::u16string text(70, u'1');
  EXPECT_EQ(Datetime_ReadField(text.c_str(), 0, 63, &value), 0);
  EXPECT_EQ(value, 0xFFFFFFFF);
  for (const auto& [position, width] : {std::pair(0u, 64u), std::pair(68u, 3u), std::pair(0u, 0u)})
    EXPECT_EQ(Datetime_ReadField(text.c_str(), position, width, &value), -1);
}

TEST(DatetimeTest, RecordsArePrintedInBothForms) {
  constexpr std::uint32_t kMost = 0xFFFFFFFF;
  const struct {
    CimDatetime value;
    std::u16string fixed, schema;
  } rows[] = {
      {Stamp({2024, 2, 29, 12, 34, 56, 123456, 60}), u"20240229123456.123456+060",
       u"2024-02-29T12:34:56.123456+01:00"},
      {Stamp({10000, 0, 0, 0, 0, 0, 0, 0}), u"", u"10000-00-00T00:00:00Z"},
      {Stamp({0, 0, 0, 0, 0, 0, 0, INT32_MIN}), u"", u"0000-00-00T00:00:00-35791394:08"},
      {Stamp({kMost, kMost, kMost, kMost, kMost, kMost, kMost, -90}), u"-001-1-1-1-1-1.-00001-090",
       u"4294967295-4294967295-4294967295T4294967295:4294967295:42949672"},
      {Span({1, 2, 3, 4, 5, {}}), u"00000001020304.000005:000", u"P1DT2H3M4.000005S"},
      {Span({}), u"00000000000000.000000:000", u"P"},
      {Span({100000000, 0, 0, 0, 0, {}}), u"", u"P100000000D"},
  };
  for (const auto& row : rows) {
    std::u16string fixed(kFixedDatetimeSize, u'#'), schema(kSchemaDatetimeSize, u'#');
    Datetime_ToFixed(&row.value, fixed.data());
    Datetime_ToSchema(&row.value, schema.data());
    EXPECT_EQ(std::u16string(fixed.c_str()), row.fixed);
    EXPECT_EQ(std::u16string(schema.c_str()), row.schema);
    if (!row.fixed.empty()) ExpectParsed(Datetime_ParseFixed, {{row.fixed, row.value}});
  }
}

TEST(DatetimeTest, IntervalsHave64BitsOfMicroseconds) {
  const auto microseconds = [](const CimDatetime& value) {
    std::uint64_t result = 0;
    EXPECT_EQ(Datetime_IntervalToMicroseconds(&value, &result), 0);
    return result;
  };
  EXPECT_EQ(microseconds(Span({1, 2, 3, 4, 5, {}})), 93784000005u);
  EXPECT_EQ(microseconds(Span({0, ~0u, ~0u, ~0u, ~0u, {}})), 15723875271289967295u);
}

}  // namespace
}  // namespace stewardry::cim
