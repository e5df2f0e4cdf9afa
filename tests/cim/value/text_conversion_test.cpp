// Converts texts to scalar values. Every type goes through the table, which detects a wrong row.
#include "cim/value/text_conversion.h"

#include <gtest/gtest.h>

#include <bit>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <string>
#include <string_view>
#include <utility>

#include "cim/value/values.h"

namespace stewardry::cim {
namespace {

constexpr double kInfinity = std::numeric_limits<double>::infinity();

constexpr std::uint64_t kUnchanged = 0xEEEEEEEEEEEEEEEE;

// Returns the value's bytes in 64 bits, with 0xEE in those beyond the type. A refused text leaves
// all of them unchanged.
std::uint64_t Convert(std::uint32_t type, std::u16string_view text) {
  const std::u16string exact(text);  // on the heap, so that a sanitizer reports a read beyond it
  alignas(8) std::uint8_t value[8];
  std::memset(value, 0xEE, sizeof value);
  const int result = TextConverters[type](exact.c_str(), value);
  const auto bits = std::bit_cast<std::uint64_t>(value);
  EXPECT_EQ(result, bits == kUnchanged ? -1 : 0) << testing::PrintToString(exact);
  return bits;
}

std::uint64_t Filled(std::uint32_t type, std::uint64_t value) {
  const unsigned bits = 8u * kElementSizes[type];
  const std::uint64_t mask = bits == 64 ? ~std::uint64_t{0} : (std::uint64_t{1} << bits) - 1;
  return (value & mask) | (kUnchanged & ~mask);
}

TEST(TextConversionTest, NumbersStayInTheRangeOfTheirType) {
  constexpr std::uint64_t kOnes = ~std::uint64_t{0}, kTop = std::uint64_t{1} << 63;
  constexpr std::uint64_t kMax32 = 0xFFFFFFFF, kTop32 = 0x80000000;
  const struct {
    std::u16string_view text;
    std::uint64_t unsigned32, signed32;  // smaller types get the low bits
    std::uint64_t unsigned64, signed64;
  } rows[] = {
      {u"0300", 192, 192, 192, 192},
      {u"0XfF", 255, 255, 255, 255},
      {u" \t\r\n\f\v+7", 7, 7, 7, 7},
      {u"2147483648", kTop32, kTop32 - 1, kTop32, kTop32},
      {u"-2147483649", kTop32 - 1, kTop32, kOnes - kTop32, kOnes - kTop32},
      {u"-4294967296", kMax32, kTop32, kOnes - kMax32, kOnes - kMax32},
      {u"9223372036854775808", kMax32, kTop32 - 1, kTop, kTop - 1},
      {u"-9223372036854775809", kMax32, kTop32, kTop - 1, kTop},
      {u"18446744073709551616", kMax32, kTop32 - 1, kOnes, kTop - 1},
      {u"-99999999999999999999999", kMax32, kTop32, kOnes, kTop},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(testing::PrintToString(row.text));
    for (const std::uint32_t type : {CIM_UINT8, CIM_UINT16, CIM_UINT32, CIM_CHAR16})
      EXPECT_EQ(Convert(type, row.text), Filled(type, row.unsigned32)) << kCimTypeNames[type];
    for (const std::uint32_t type : {CIM_SINT8, CIM_SINT16, CIM_SINT32})
      EXPECT_EQ(Convert(type, row.text), Filled(type, row.signed32)) << kCimTypeNames[type];
    EXPECT_EQ(Convert(CIM_UINT64, row.text), row.unsigned64);
    EXPECT_EQ(Convert(CIM_SINT64, row.text), row.signed64);
  }
}

TEST(TextConversionTest, OtherTextsAreRefusedAsNumbers) {
  for (const std::u16string_view text :
       {u" ", u"-", u"1x", u"1 ", u"0x", u"- 1", u"+-1", u"\u00A01", u"12\u0131"})
    for (std::uint32_t type = CIM_UINT8; type <= CIM_CHAR16; ++type)
      EXPECT_EQ(Convert(type, text), kUnchanged) << kCimTypeNames[type];
  for (const std::u16string_view text : {u"08", u"1.0"})
    EXPECT_EQ(Convert(CIM_SINT64, text), kUnchanged);
  for (const std::u16string_view text : {u".", u"1e", u"1,5", u"1.5 ", u"0x-1", u"0x 1", u"0x.",
                                         u"0xinf", u"-0Xnan", u"0xInfinity", u"0x\u0131"})
    EXPECT_EQ(Convert(CIM_REAL64, text), kUnchanged);
}

TEST(TextConversionTest, TwoWordsAreBoolean) {
  EXPECT_EQ(Convert(CIM_BOOLEAN, u"tRuE"), Filled(CIM_BOOLEAN, 1));
  EXPECT_EQ(Convert(CIM_BOOLEAN, u"false"), Filled(CIM_BOOLEAN, 0));
  for (const std::u16string_view text : {u"", u"1", u"tru", u"truex", u" true"})
    EXPECT_EQ(Convert(CIM_BOOLEAN, text), kUnchanged);
}

void ExpectReal(const std::u16string& text, double value) {
  EXPECT_EQ(Convert(CIM_REAL64, text), std::bit_cast<std::uint64_t>(value));
  const auto single = std::bit_cast<std::uint32_t>(static_cast<float>(value));
  EXPECT_EQ(Convert(CIM_REAL32, text), Filled(CIM_REAL32, single));
}

TEST(TextConversionTest, RealNumbersOutOfRangeAreInfiniteOrZero) {
  using std::string_literals::operator""s;
  const auto zeros = [](std::size_t count) { return std::u16string(count, u'0'); };
  const std::pair<const char16_t*, double> rows[] = {
      {u"", 0.0},     {u" +3.25", 3.25},  {u".5", 0.5},      {u"5.", 5.0},       {u"-1e-3", -0.001},
      {u"010", 10.0}, {u"-0X.8P1", -1.0}, {u"1e308", 1e308}, {u"5e-324", 5e-324}};
  for (const auto& [text, value] : rows) ExpectReal(text, value);
  for (const std::string text :
       {"0e99", "0.30000000000000004", "9007199254740993", "9007199254740995", "1e-27", "1e28",
        "9999999999999999999e-27", "9.999999999999999999E+45", "18446744073709551616", "7.e0027"})
    ExpectReal(std::u16string(text.begin(), text.end()), std::strtod(text.c_str(), nullptr));
  for (const auto& text : {u"1" + zeros(400) + u"e-400", u"0." + zeros(399) + u"1e400"})
    ExpectReal(text, 1.0);
  for (const auto& text : {u"inf"s, u"Infinity"s, u"1e309"s, u"1e99999999999999999999"s,
                           u"0x1p99999"s, u"1" + zeros(5000) + u"e-10"}) {
    ExpectReal(text, kInfinity);
    ExpectReal(u"-" + text, -kInfinity);
  }
  for (const auto& text : {u"1e-400"s, u"1e-99999999999999999999"s, u"0x1p-99999"s,
                           u"0x1" + zeros(1100) + u"p-5480", u"0." + zeros(4999) + u"1e10"}) {
    ExpectReal(text, 0.0);
    ExpectReal(u"-" + text, -0.0);
  }
  double value = 0;
  EXPECT_EQ(Text_ToReal64(u"NaN", &value), 0);
  EXPECT_NE(value, value);
}

TEST(TextConversionTest, TypesUpToDatetimeHaveAConverter) {
  CimDatetime datetime;
  ASSERT_EQ(TextConverters[CIM_DATETIME](u"20240229123456.123456+060", &datetime), 0);
  EXPECT_EQ(datetime.timestamp.utcOffset, 60);
  for (std::uint32_t type = 0; type < kTextConverterCount; ++type) {
    ASSERT_EQ(TextConverters[type] != nullptr, type < CIM_STRING) << type;
    if (type >= CIM_STRING) continue;
    EXPECT_EQ(TextConverters[type](nullptr, &datetime), -1) << type;
  }
}

}  // namespace
}  // namespace stewardry::cim
