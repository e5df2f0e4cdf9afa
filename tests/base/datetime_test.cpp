// The text forms of a date-time: what parses to which record, what doesn't, and what is printed.
#include "base/datetime.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <string_view>

namespace stewardry {
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
  const char16_t* text;
  CimDatetime value;
};

void ExpectParsed(Parser parse, const Case& c) {
  SCOPED_TRACE(std::string(std::u16string_view(c.text).begin(), std::u16string_view(c.text).end()));
  const std::u16string exact(c.text);  // on the heap, where a read beyond it is seen
  CimDatetime value;
  std::fill_n(reinterpret_cast<std::uint8_t*>(&value), sizeof value, std::uint8_t{0xEE});
  ASSERT_EQ(parse(exact.c_str(), &value), 0);
  EXPECT_EQ(std::memcmp(&value, &c.value, sizeof value), 0);
}

void ExpectRefused(Parser parse, std::u16string_view text) {
  const std::u16string exact(text);
  CimDatetime value;
  EXPECT_EQ(parse(exact.c_str(), &value), -1) << std::string(text.begin(), text.end());
}

TEST(DatetimeTest, AFixedFormIsReadWrongly) {
  const Case kCases[] = {
      {u"20240229123456.123456+060", Stamp({2024, 2, 29, 12, 34, 56, 123456, 60})},
      {u"20240229123000.000000-060", Stamp({2024, 2, 29, 12, 30, 0, 0, -60})},
      {u"****0229123000.000000+000", Stamp({0, 2, 29, 12, 30, 0, 0, 0})},
      {u"**************.******+***", Stamp({0, 0, 0, 0, 0, 0, 0, 0})},
      {u"99991399999999.999999+999", Stamp({9999, 13, 99, 99, 99, 99, 999999, 999})},  // no ranges
      {u"  24+2 9123000.     0+ 60", Stamp({24, 2, 9, 12, 30, 0, 0, 60})},
      {u"00000001020304.000005:000", Span({1, 2, 3, 4, 5, {}})},
      {u"********020304.******:000", Span({0, 2, 3, 4, 0, {}})},
      {u"      -1020304.000005:000", Span({0xFFFFFFFF, 2, 3, 4, 5, {}})},
  };
  for (const Case& c : kCases) {
    ExpectParsed(Datetime_ParseFixed, c);
    ExpectParsed(Datetime_Parse, c);
  }
}

TEST(DatetimeTest, ATextThatIsNoFixedFormIsTaken) {
  for (const std::u16string_view text :
       {u"", u"2", u"20240229123456.123456+06", u"20240229123456.123456+0600",
        u"20240229123456.123456 060", u"20240229123456,123456+060", u"*1240229123456.123456+060",
        u"1*240229123456.123456+060", u"***40229123456.123456+060", u"2024  29123456.123456+060",
        u"2024022912345x.123456+060", u"20240229123456.123456+06x", u"00000001020304.000005:001",
        u"00000001020304.000005:***", u"00000001020304.00000x:000", u"\uFF12\uFF1024-02-29"}) {
    ExpectRefused(Datetime_ParseFixed, text);
    ExpectRefused(Datetime_Parse, text);
  }
}

TEST(DatetimeTest, ASchemaFormIsReadWrongly) {
  const Case kCases[] = {
      {u"2024-02-29", Stamp({2024, 2, 29, 0, 0, 0, 0, 0})},
      {u"2024-02-29Z", Stamp({2024, 2, 29, 0, 0, 0, 0, 0})},
      {u"2024-02-29-05:00", Stamp({2024, 2, 29, 0, 0, 0, 0, -300})},
      {u"2024-02-29T12:00:00", Stamp({2024, 2, 29, 12, 0, 0, 0, 0})},
      {u"2024-02-29T12:00:00Z", Stamp({2024, 2, 29, 12, 0, 0, 0, 0})},
      {u"2024-02-29T12:00:00+01:30", Stamp({2024, 2, 29, 12, 0, 0, 0, 90})},
      {u"2024-02-29+01:00T12:00:00-02:00", Stamp({2024, 2, 29, 12, 0, 0, 0, -120})},
      {u"2024-02-29T12:34:56.5Z", Stamp({2024, 2, 29, 12, 34, 56, 500000, 0})},
      {u"12:00:00-00:30", Stamp({0, 0, 0, 12, 0, 0, 0, -30})},
      {u"99:99:99.1234567890123456789012345+00:00", Stamp({0, 0, 0, 99, 99, 99, 123456, 0})},
      {u"12:00:00.", Stamp({0, 0, 0, 12, 0, 0, 0, 0})},
      {u"12:00:00. 7", Stamp({0, 0, 0, 12, 0, 0, 70000, 0})},
      {u"P", Span({})},
      {u"PT", Span({})},
      {u"P1Y", Span({365, 0, 0, 0, 0, {}})},
      {u"P4Y", Span({1461, 0, 0, 0, 0, {}})},
      {u"P1M", Span({30, 0, 0, 0, 0, {}})},
      {u"P2M", Span({61, 0, 0, 0, 0, {}})},
      {u"PT3661S", Span({0, 1, 1, 1, 0, {}})},
      {u"PT1.5S", Span({0, 0, 0, 1, 500000, {}})},
      {u"PT1.S", Span({0, 0, 0, 1, 0, {}})},
      {u"P3DT4H5M6.789S", Span({3, 4, 5, 6, 789000, {}})},
      {u"P1D1Y2DTT7M", Span({367, 0, 7, 0, 0, {}})},  // any order, the later one counts
      {u"PT99999999999S", Span({49710, 6, 28, 15, 0, {}})},
  };
  for (const Case& c : kCases) {
    ExpectParsed(Datetime_ParseSchema, c);
    ExpectParsed(Datetime_Parse, c);
  }
}

TEST(DatetimeTest, ATextThatIsNoSchemaFormIsTaken) {
  for (const std::u16string_view text : {u"",
                                         u"-",
                                         u"-2024-02-29",
                                         u"-P1D",
                                         u"2024",
                                         u"2024-2-29",
                                         u"2024-002-29",
                                         u"20240-02-29",
                                         u"2024-02-29 ",
                                         u"2024-02-29T",
                                         u"2024-02-29Zx",
                                         u"2024-02-29T12:00",
                                         u"2024-02-29T12:00:0",
                                         u"2024-02-29T12:00:00x",
                                         u"2024-02-29T12:00:00Z+01:00",
                                         u"2024-02-29T12:00:00+1:00",
                                         u"2024-02-29T12:00:00+01",
                                         u"2024-02-2\uFF19",
                                         u"12:00",
                                         u"1:00:00",
                                         u" 1:00:00",
                                         u"12:00:00Zx",
                                         u"12-00:00",
                                         u"P1",
                                         u"P1X",
                                         u"P1H",
                                         u"P1.5D",
                                         u"PT1D",
                                         u"PT1.5M",
                                         u"PT1.5",
                                         u"PTS",
                                         u"P Y",
                                         u"P1Y ",
                                         u"p1Y"}) {
    ExpectRefused(Datetime_ParseSchema, text);
    ExpectRefused(Datetime_Parse, text);
  }
}

TEST(DatetimeTest, AFieldReachesBeyondItsText) {
  std::uint32_t value = 9;
  const std::u16string text(70, u'1');
  EXPECT_EQ(Datetime_ReadField(text.c_str(), 0, 63, &value), 0);
  EXPECT_EQ(value, 0xFFFFFFFF);
  EXPECT_EQ(Datetime_ReadField(text.c_str(), 60, 9, &value), 0);
  EXPECT_EQ(value, 111111111u);
  EXPECT_EQ(Datetime_ReadField(text.c_str(), 0, 64, &value), -1);
  EXPECT_EQ(Datetime_ReadField(text.c_str(), 68, 3, &value), -1);
  EXPECT_EQ(Datetime_ReadField(text.c_str(), 0, 0, &value), -1);
  value = 9;
  EXPECT_EQ(Datetime_ReadField(u"1*1", 1, 2, &value), -1);
  EXPECT_EQ(value, 0u);
}

TEST(DatetimeTest, ARecordIsPrintedWrongly) {
  constexpr std::uint32_t kMost = 0xFFFFFFFF;
  const struct {
    CimDatetime value;
    std::u16string_view fixed, schema;
  } kCases[] = {
      {Stamp({2024, 2, 29, 12, 34, 56, 123456, 60}), u"20240229123456.123456+060",
       u"2024-02-29T12:34:56.123456+01:00"},
      {Stamp({7, 13, 0, 99, 0, 0, 0, -90}), u"00071300990000.000000-090",
       u"0007-13-00T99:00:00-01:30"},
      {Stamp({0, 0, 0, 0, 0, 0, 7, 0}), u"00000000000000.000007+000",
       u"0000-00-00T00:00:00.000007Z"},
      {Stamp({10000, 0, 0, 0, 0, 0, 0, 0}), u"", u"10000-00-00T00:00:00Z"},
      {Stamp({kMost, 0, 0, 0, 0, 0, 0, 0}), u"-0010000000000.000000+000",
       u"4294967295-00-00T00:00:00Z"},
      {Stamp({0, 0, 0, 0, 0, 0, 0, INT32_MIN}), u"", u"0000-00-00T00:00:00-35791394:08"},
      {Stamp({kMost, kMost, kMost, kMost, kMost, kMost, kMost, 1}), u"-001-1-1-1-1-1.-00001+001",
       u"4294967295-4294967295-4294967295T4294967295:4294967295:42949672"},
      {Span({1, 2, 3, 4, 5, {}}), u"00000001020304.000005:000", u"P1DT2H3M4.000005S"},
      {Span({0, 0, 1, 30, 0, {}}), u"00000000000130.000000:000", u"PT1M30S"},
      {Span({0, 0, 0, 0, 25, {}}), u"00000000000000.000025:000", u"PT0.000025S"},
      {Span({9, 0, 0, 0, 0, {}}), u"00000009000000.000000:000", u"P9D"},
      {Span({0, 1, 0, 0, 0, {}}), u"00000000010000.000000:000", u"PT1H"},
      {Span({}), u"00000000000000.000000:000", u"P"},
      {Span({100000000, 0, 0, 0, 0, {}}), u"", u"P100000000D"},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(std::string(c.schema.begin(), c.schema.end()));
    std::u16string fixed(kFixedDatetimeSize, u'#');
    Datetime_ToFixed(&c.value, fixed.data());
    EXPECT_TRUE(fixed.c_str() == c.fixed);
    std::u16string schema(kSchemaDatetimeSize, u'#');
    Datetime_ToSchema(&c.value, schema.data());
    EXPECT_TRUE(schema.c_str() == c.schema);
    CimDatetime again;
    if (c.fixed.empty()) continue;
    ASSERT_EQ(Datetime_Parse(fixed.c_str(), &again), 0);
    EXPECT_EQ(std::memcmp(&again, &c.value, sizeof again), 0);
  }
}

TEST(DatetimeTest, AnIntervalsLengthLosesItsUpperBits) {
  const struct {
    CimDatetime::Interval interval;
    std::uint64_t microseconds;
  } kCases[] = {
      {{1, 2, 3, 4, 5, {}}, 93784000005u},
      {{99999999, 0, 0, 0, 0, {}}, 8639999913600000000u},
      {{0, 0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF, {}}, 15723875271289967295u},
  };
  std::uint64_t microseconds = 0;
  for (const auto& c : kCases) {
    const CimDatetime value = Span(c.interval);
    EXPECT_EQ(Datetime_IntervalToMicroseconds(&value, &microseconds), 0);
    EXPECT_EQ(microseconds, c.microseconds);
  }
  const CimDatetime stamp = Stamp({});
  EXPECT_EQ(Datetime_IntervalToMicroseconds(&stamp, &microseconds), -1);
  EXPECT_EQ(Datetime_IntervalToMicroseconds(nullptr, &microseconds), -1);
}

}  // namespace
}  // namespace stewardry
