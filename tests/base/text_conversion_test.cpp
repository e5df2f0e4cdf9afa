// Texts to scalar values, each type through the table, so that a row that leads to a neighbour's
// converter is seen.
#include "base/text_conversion.h"

#include <gtest/gtest.h>

#include <bit>
#include <cstring>
#include <limits>
#include <string>
#include <string_view>

#include "base/heap.h"
#include "base/instance/values.h"

namespace stewardry {
namespace {

constexpr double kInfinity = std::numeric_limits<double>::infinity();

// The value's bytes in 64 bits, with 0xEE in those that the type doesn't have.
struct Converted {
  int result;
  std::uint64_t bits;
};

Converted Convert(std::uint32_t type, std::u16string_view text) {
  const std::u16string exact(text);  // on the heap, where a read beyond it is seen
  alignas(8) std::uint8_t value[8];
  std::memset(value, 0xEE, sizeof value);
  const int result = TextConverters[type](exact.c_str(), value);
  return {result, std::bit_cast<std::uint64_t>(value)};
}

std::uint64_t Filled(std::uint32_t type, std::uint64_t value) {
  const unsigned bits = 8u * kElementSizes[type];
  const std::uint64_t mask = bits == 64 ? ~std::uint64_t{0} : (std::uint64_t{1} << bits) - 1;
  return (value & mask) | (0xEEEEEEEEEEEEEEEE & ~mask);
}

std::string Narrow(std::u16string_view text) { return std::string(text.begin(), text.end()); }

TEST(TextConversionTest, ANumberIsReadWrongly) {
  constexpr std::uint64_t kOnes = ~std::uint64_t{0};
  const struct {
    std::u16string_view text;
    std::uint64_t unsigned32;  // smaller types take its low bits
    std::uint64_t signed32;
    std::uint64_t unsigned64, signed64;
  } kCases[] = {
      {u"", 0, 0, 0, 0},
      {u"0", 0, 0, 0, 0},
      {u"300", 300, 300, 300, 300},
      {u"0x10", 16, 16, 16, 16},
      {u"0XfF", 255, 255, 255, 255},
      {u"010", 8, 8, 8, 8},
      {u"-1", kOnes, kOnes, kOnes, kOnes},
      {u" \t\r\n\f\v+7", 7, 7, 7, 7},
      {u"-0x10", kOnes - 15, kOnes - 15, kOnes - 15, kOnes - 15},
      {u"2147483648", 2147483648, 2147483647, 2147483648, 2147483648},
      {u"-2147483649", 2147483647, std::uint64_t{1} << 31, kOnes - 2147483648, kOnes - 2147483648},
      {u"4294967296", 4294967295, 2147483647, 4294967296, 4294967296},
      {u"-4294967296", 4294967295, std::uint64_t{1} << 31, kOnes - 4294967295, kOnes - 4294967295},
      {u"9223372036854775808", 4294967295, 2147483647, std::uint64_t{1} << 63, INT64_MAX},
      {u"-9223372036854775809", 4294967295, std::uint64_t{1} << 31, INT64_MAX,
       std::uint64_t{1} << 63},
      {u"18446744073709551615", 4294967295, 2147483647, kOnes, INT64_MAX},
      {u"18446744073709551616", 4294967295, 2147483647, kOnes, INT64_MAX},
      {u"-99999999999999999999999", 4294967295, std::uint64_t{1} << 31, kOnes,
       std::uint64_t{1} << 63},
      {u"0xFFFFFFFFFFFFFFFF", 4294967295, 2147483647, kOnes, INT64_MAX},
      {u"02000000000000000000000", 4294967295, 2147483647, kOnes, INT64_MAX},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(Narrow(c.text));
    const std::pair<std::uint32_t, std::uint64_t> kRows[] = {
        {CIM_UINT8, c.unsigned32},  {CIM_UINT16, c.unsigned32}, {CIM_UINT32, c.unsigned32},
        {CIM_CHAR16, c.unsigned32}, {CIM_SINT8, c.signed32},    {CIM_SINT16, c.signed32},
        {CIM_SINT32, c.signed32},   {CIM_UINT64, c.unsigned64}, {CIM_SINT64, c.signed64}};
    for (const auto& [type, value] : kRows) {
      const Converted converted = Convert(type, c.text);
      EXPECT_EQ(converted.result, 0) << kCimTypeNames[type];
      EXPECT_EQ(converted.bits, Filled(type, value)) << kCimTypeNames[type];
    }
  }
}

TEST(TextConversionTest, ATextThatIsNoNumberIsTakenOrChangesTheValue) {
  for (const std::u16string_view text :
       {u" ", u"-", u"+", u"x", u"1x", u"1 ", u"08", u"0x", u"0xg", u"- 1", u"--1", u"+-1", u"1.0",
        u"1e3", u"true", u"\uFF11", u"\u00A01", u"12\u0131"}) {
    SCOPED_TRACE(Narrow(text));
    for (std::uint32_t type = CIM_UINT8; type <= CIM_SINT64; ++type) {
      EXPECT_EQ(Convert(type, text).result, -1);
      EXPECT_EQ(Convert(type, text).bits, 0xEEEEEEEEEEEEEEEE);
    }
    EXPECT_EQ(Convert(CIM_CHAR16, text).result, -1);
  }
}

TEST(TextConversionTest, AWordOfBooleanIsReadWrongly) {
  for (const std::u16string_view text : {u"true", u"TRUE", u"tRuE"})
    EXPECT_EQ(Convert(CIM_BOOLEAN, text).bits, Filled(CIM_BOOLEAN, 1));
  for (const std::u16string_view text : {u"false", u"False"})
    EXPECT_EQ(Convert(CIM_BOOLEAN, text).bits, Filled(CIM_BOOLEAN, 0));
  for (const std::u16string_view text : {u"", u"1", u"0", u"tru", u"truex", u" true", u"yes"})
    EXPECT_EQ(Convert(CIM_BOOLEAN, text).result, -1) << Narrow(text);
}

TEST(TextConversionTest, ARealNumberIsReadWrongly) {
  const struct {
    std::u16string text;
    double value;
  } kCases[] = {
      {u"", 0.0},
      {u"-0", -0.0},
      {u" +3.25", 3.25},
      {u".5", 0.5},
      {u"5.", 5.0},
      {u"-1e-3", -0.001},
      {u"010", 10.0},
      {u"0x1p4", 16.0},
      {u"-0X.8P1", -1.0},
      {u"inf", kInfinity},
      {u"-Infinity", -kInfinity},
      {u"3.14159265358979e-7", 3.14159265358979e-7},
      {u"1e308", 1e308},
      {u"1e309", kInfinity},
      {u"-1e99999999999999999999", -kInfinity},
      {u"1e-400", 0.0},
      {u"-1e-99999999999999999999", -0.0},
      {u"0x1p99999", kInfinity},
      {u"0x1p-99999", 0.0},
      {u"4.9e-324", 4.9e-324},
      {u"1" + std::u16string(400, u'0'), kInfinity},
      {u"1" + std::u16string(400, u'0') + u"e-400", 1.0},
      {u"1" + std::u16string(5000, u'0') + u"e-10", kInfinity},
      {u"0." + std::u16string(400, u'0') + u"1", 0.0},
      {u"0." + std::u16string(4999, u'0') + u"1e10", 0.0},
      {u"0." + std::u16string(399, u'0') + u"1e400", 1.0},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(Narrow(c.text));
    EXPECT_EQ(Convert(CIM_REAL64, c.text).result, 0);
    EXPECT_EQ(Convert(CIM_REAL64, c.text).bits, std::bit_cast<std::uint64_t>(c.value));
    const auto single = std::bit_cast<std::uint32_t>(static_cast<float>(c.value));
    EXPECT_EQ(Convert(CIM_REAL32, c.text).result, 0);
    EXPECT_EQ(Convert(CIM_REAL32, c.text).bits, Filled(CIM_REAL32, single));
  }
  double nan = 0;
  EXPECT_EQ(Text_ToReal64(u"NaN", &nan), 0);
  EXPECT_NE(nan, nan);
  for (const std::u16string_view text :
       {u" ", u"-", u".", u"e5", u"1e", u"1,5", u"1.5 ", u"+-1", u"--1", u"0x", u"0x-1", u"0x 1",
        u"1.5f", u"1\u0665", u"infinit", u"true"})
    EXPECT_EQ(Convert(CIM_REAL64, text).result, -1) << Narrow(text);
}

TEST(TextConversionTest, ARowOfTheTableIsMissingOrTooMuch) {
  CimDatetime datetime;
  ASSERT_EQ(TextConverters[CIM_DATETIME](u"20240229123456.123456+060", &datetime), 0);
  EXPECT_EQ(datetime.timestamp.utcOffset, 60);
  for (std::uint32_t type = CIM_STRING; type < kTextConverterCount; ++type)
    EXPECT_EQ(TextConverters[type], nullptr);
  for (std::uint32_t type = 0; type < CIM_STRING; ++type) {
    EXPECT_EQ(TextConverters[type](nullptr, &datetime), -1) << type;
    EXPECT_EQ(TextConverters[type](u"1", nullptr), -1) << type;
  }
}

TEST(TextConversionTest, AnEmptyHeapCrashesALongNumber) {
  const std::u16string text(200, u'1');
  double value = 5;
  heap_gate::Arm(1);
  EXPECT_EQ(Text_ToReal64(text.c_str(), &value), -1);
  heap_gate::Disarm();
  EXPECT_EQ(value, 5);
}

}  // namespace
}  // namespace stewardry
