// The print and the scan family in both widths. The C runtime is the reference where it has the
// letter.
#include "cim/text/print.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "cim/memory/heap.h"
#include "cim/text/scan.h"

namespace stewardry::cim {
namespace {

template <class... Args>
std::string Narrow(const char* format, Args... args) {
  char text[2048];
  const int count = Print_ToBuffer(text, sizeof text, format, args...);
  return count < 0 ? "-1" : std::string(text, static_cast<std::size_t>(count));
}
template <class... Args>
std::u16string Wide(const char16_t* format, Args... args) {
  char16_t text[2048];
  const int count = PrintW_ToBuffer(text, 2048, format, args...);
  return count < 0 ? u"-1" : std::u16string(text, static_cast<std::size_t>(count));
}
std::u16string Widened(const std::string& text) { return {text.begin(), text.end()}; }

TEST(Format, LettersSelectTheSameTextWidthInBothFamilies) {
  EXPECT_EQ(Narrow("%T|%s|%S", u"wide", "narrow", u"wide"), "wide|narrow|wide");
  EXPECT_EQ(Wide(u"%T|%s|%S", u"wide", "narrow", u"wide"), u"wide|narrow|wide");
  EXPECT_EQ(Narrow("%T", u"\xE4\x20AC\xD83D\xDE00\xD800"),
            "\xC3\xA4\xE2\x82\xAC\xF0\x9F\x98\x80"
            "\xEF\xBF\xBD");
  EXPECT_EQ(Wide(u"%s", "\xC3\xA4\xFF"), u"\xE4\xFFFD");
  EXPECT_EQ(Narrow("%%T %%%T", u"x"), "%S %x");  // also replaced behind a doubled sign
  EXPECT_EQ(Narrow("%s%T", static_cast<char*>(nullptr), nullptr), "(null)(null)");
  // A letter that does not follow its % directly has the runtime's meaning.
  EXPECT_EQ(Wide(u"%5s|%-5s|%.2s|%3hs|%ls", u"ab", u"ab", u"abc", "n", u"wx"),
            u"   ab|ab   |ab|  n|wx");
  for (const std::string& text : {std::string(126, 'x'), std::string(1900, 'x')})
    EXPECT_EQ(Narrow((text + "%T").c_str(), u"end"), text + "end");
}

// Compares both widths with the runtime.
template <class Value>
void ExpectAsRuntime(const std::string& format, Value value) {
  char expected[1500];
  std::snprintf(expected, sizeof expected, format.c_str(), value);
  EXPECT_EQ(Narrow(format.c_str(), value), expected) << format;
  EXPECT_EQ(Wide(Widened(format).c_str(), value), Widened(expected)) << format;
}

TEST(Format, NumbersArePrintedAsByTheRuntime) {
  for (const std::string flags : {"", "-", "0", "+", " ", "#", "-0", "+0", "0#"})
    for (const std::string width : {"", "1", "12"})
      for (const std::string precision : {"", ".", ".0", ".3", ".10"}) {
        const std::string head = "%" + flags + width + precision;
        for (const char letter : std::string("diuoxX"))
          for (const int value : {0, 7, -7, 123456789}) ExpectAsRuntime(head + letter, value);
        // The runtime of the Windows build pads %-0a with zeros. In C '-' overrides '0' (7.21.6.1
        // p. 6).
        for (const char letter : std::string(flags == "-0" ? "feEgG" : "feEgGaA"))
          for (const double value : {0.0, -1.5, 1e-7, 123456.789, 1e300})
            ExpectAsRuntime(head + letter, value);
      }
  ExpectAsRuntime("%lld", 9223372036854775807LL);
  EXPECT_EQ(Narrow("%I64d %I32u", -1LL, 5u), "-1 5");
  EXPECT_EQ(Narrow("%*d|%-*d|%.*f", 5, 42, -5, 42, 2, 1.0), "   42|42   |1.00");
  EXPECT_EQ(Narrow("%*d", -1000, 1), "1" + std::string(999, ' '));
  EXPECT_EQ(Narrow("%p", reinterpret_cast<void*>(0xABCDEF)), "0000000000ABCDEF");
}

TEST(Format, OtherConversionsAreRefused) {
  for (const char* format : {"%", "%n", "%y", "%5", "%1001d", "%.1001f", "%l", "a%99999999999d"})
    EXPECT_EQ(Narrow(format, 1), "-1") << format;
  EXPECT_EQ(Narrow("%*d", 100000, 1), "-1");
}

TEST(Print, BufferHoldsTheTextOrItsBeginning) {
  const struct {
    std::size_t size;
    const char* narrow;
    const char16_t* wide;  // emptied by a text that does not fit
  } rows[] = {{6, "12345", u"12345"}, {5, "1234", u""}, {1, "", u""}, {0, "######", u"######"}};
  for (const auto& row : rows) {
    char narrow[7] = "######";
    char16_t wide[7] = u"######";
    const int count = row.size == 6 ? 5 : -1;
    EXPECT_EQ(Print_ToBuffer(narrow, row.size, "%d%s", 12, "345"), count);
    EXPECT_EQ(PrintW_ToBuffer(wide, row.size, u"%d%T", 12, u"345"), count);
    EXPECT_STREQ(narrow, row.narrow);
    EXPECT_EQ(std::u16string(wide), row.wide);
    EXPECT_TRUE(row.size == 6 || (narrow[row.size] == '#' && wide[row.size] == u'#'));
  }
  char16_t* block = PrintW_Alloc(u"%s-%d", std::string(100, 'x').c_str(), 7);
  EXPECT_EQ(std::u16string(block), std::u16string(100, u'x') + u"-7");
  Heap_Free(block);
}

TEST(Print, StreamsReceiveUtf8) {
  std::FILE* file = std::tmpfile();
  ASSERT_NE(file, nullptr);
  EXPECT_EQ(Print_ToStream(file, "%d %T ", 1, u"\xE4"), 5);
  // A pair that two pieces of the output share, and half a pair at the end.
  const std::u16string odd = std::u16string(510, u'x') + u"\xD83D\xDE00\xD83D";
  EXPECT_EQ(PrintW_ToStream(file, u"%d%T", 7, odd.c_str()), 514);
  std::rewind(file);
  char text[600] = {};
  const std::size_t size = std::fread(text, 1, sizeof text, file);
  std::fclose(file);
  EXPECT_EQ(std::string(text, size),
            "1 \xC3\xA4 7" + std::string(510, 'x') + "\xF0\x9F\x98\x80\xEF\xBF\xBD");
}

TEST(Scan, NumbersHaveTheSizeOfTheirTarget) {
  int a = 0, b = 0;
  unsigned x = 0;
  float f = 0;
  double d = 0;
  std::uint8_t byte = 0;
  std::int16_t word = 0;
  std::int64_t big = 0;
  // The real numbers are just above the middle of two neighbours: a second rounding is wrong.
  EXPECT_EQ(Scan_FromTextC(" 12 -7,ff 0x1.00000100000000000001 0x1.000000000000080000000001p1",
                           "%d%i,%x%f%lf", &a, &b, &x, &f, &d),
            5);
  EXPECT_TRUE(a == 12 && b == -7 && x == 255 && f == 0x1.000002p0F && d == 0x1.0000000000001p1);
  EXPECT_EQ(Scan_FromTextC("300 70000 -9223372036854775808", "%hhu%hd%lld", &byte, &word, &big), 3);
  EXPECT_TRUE(byte == 44 && word == 4464 && big == INT64_MIN);
}

TEST(Scan, TextFieldsHaveTheWidthOfTheirLetter) {
  char narrow[16] = {};
  char16_t wide[16] = {};
  int a = 0, b = 0;
  EXPECT_EQ(ScanW_FromTextC(u"one two;4", u"%s %[a-z];%d", narrow, wide, &a), 3);
  EXPECT_STREQ(narrow, "one");
  EXPECT_EQ(std::u16string(wide), u"two");
  EXPECT_EQ(Scan_FromTextC("12345 ab%", "%2d%*d %2c%%%n", &a, narrow, &b), 2);
  EXPECT_TRUE(a == 12 && std::strncmp(narrow, "ab", 2) == 0 && b == 9);
  const auto field = [](const char* text, const char* format) {
    char stored[16] = {};
    return Scan_FromTextC(text, format, stored) == 1 ? std::string(stored) : "none";
  };
  EXPECT_EQ(field("abc]x", "%[^]]"), "abc");
  EXPECT_EQ(field("]a", "%[]]"), "]");
  EXPECT_EQ(field("0123456789ab", "%10s"), "0123456789");
}

TEST(Scan, OtherTextsAndFormatsEndTheScan) {
  int a = 0;
  for (const char* format : {"%", "%5", "%l", "%[a", "%y", "%*", "6%d"})
    EXPECT_EQ(Scan_FromTextC("5", format, &a), 0) << format;
  EXPECT_EQ(ScanW_FromTextC(u"5", u"%\x0165", &a), 0);  // the low byte of this letter is an 'e'
  EXPECT_EQ(Scan_FromTextC("", "%d", &a), -1);
  EXPECT_EQ(Scan_FromTextC("5", "%d %d", &a, &a), 1);
  const auto scan = [&a](const char* format) {
    return Scan_FromTextC("1 2 3 4 5 6 7 8 9 10 11", format, &a, &a, &a, &a, &a, &a, &a, &a, &a, &a,
                          &a);
  };
  EXPECT_EQ(scan("%d%d%d%d%d%d%d%d%d%d%d"), -1);  // too many fields: none is read
  EXPECT_EQ(a, 5);
  EXPECT_EQ(scan("%d%d%d%d%d%d%d%d%d%d"), 10);
  // Conversions that only the scanner finds, not the count before it.
  EXPECT_EQ(Scan_FromTextC("%7%7%7%7%7%7%7%7%7%7%7",
                           "%*%%d%*%%d%*%%d%*%%d%*%%d%*%%d%*%%d%*%%d%*%%d%*%%d%*%%d"),
            0);
}

}  // namespace
}  // namespace stewardry::cim
