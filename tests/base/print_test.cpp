// The print and the scan family: both widths, every letter, against the C runtime where that has
// the letter too.
#include "base/print.h"

#include <gtest/gtest.h>

#include <clocale>
#include <cstdio>
#include <cstring>
#include <string>

#include "base/format.h"
#include "base/heap.h"
#include "base/scan.h"

namespace stewardry {
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

TEST(Format, ALetterMeansAnotherTextInOneOfTheWidths) {
  EXPECT_EQ(Narrow("%T|%s|%S", u"wide", "narrow", u"wide"), "wide|narrow|wide");
  EXPECT_EQ(Wide(u"%T|%s|%S", u"wide", "narrow", u"wide"), u"wide|narrow|wide");
  EXPECT_EQ(Narrow("%T", u"\xE4\x20AC\xD83D\xDE00\xD800"),
            "\xC3\xA4\xE2\x82\xAC\xF0\x9F\x98\x80"
            "\xEF\xBF\xBD");
  EXPECT_EQ(Wide(u"%s", "\xC3\xA4\xFF"), u"\xE4\xFFFD");
  EXPECT_EQ(Narrow("%%T %%%T", u"x"), "%S %x");  // found behind a doubled sign, too
  EXPECT_EQ(
      Narrow("%s%T", static_cast<const char*>(nullptr), static_cast<const char16_t*>(nullptr)),
      "(null)(null)");
  // With something in between a letter keeps to the runtime's meaning.
  EXPECT_EQ(Wide(u"%5s|%-5s|%.2s|%hs|%ls", u"ab", u"ab", u"abc", "n", u"w"), u"   ab|ab   |ab|n|w");
  EXPECT_EQ(Narrow("%5s|%-5s|%.2s|%hs|%ls", "ab", "ab", "abc", "n", u"w"), "   ab|ab   |ab|n|w");
  EXPECT_EQ(Wide(u"%c%C%hc", 0x20AC, 'n', 'h'), u"\x20ACnh");
}

TEST(Format, ATranslationOverrunsOrCutsALongFormat) {
  for (const std::size_t length : {0u, 1u, 126u, 127u, 128u, 200u, 5000u}) {
    std::string format(length, 'x');
    format += "%T";
    EXPECT_EQ(Narrow("%d", 1), "1");
    char text[6000];
    EXPECT_EQ(Print_ToBuffer(text, sizeof text, format.c_str(), u"end"),
              static_cast<int>(length + 3));
    EXPECT_EQ(std::string(text), std::string(length, 'x') + "end");
  }
  const std::u16string format(300, u'x');
  char16_t wide[400] = u"old";
  char narrow[400] = "old";
  heap_gate::Arm(1);
  EXPECT_EQ(PrintW_ToBuffer(wide, 400, format.c_str()), -1);
  heap_gate::Arm(1);
  EXPECT_EQ(Print_ToBuffer(narrow, 400, std::string(300, 'x').c_str()), -1);
  heap_gate::Arm(1);
  EXPECT_EQ(PrintW_Alloc(u"%d", 1), nullptr);
  heap_gate::Disarm();
  EXPECT_EQ(wide[0], 0);
  EXPECT_EQ(narrow[0], 0);
}

// One value through the runtime and through both widths.
template <class Value>
void ExpectAsRuntime(const char* format, Value value) {
  char expected[1500];
  std::snprintf(expected, sizeof expected, format, value);
  EXPECT_EQ(Narrow(format, value), expected) << format;
  EXPECT_EQ(Wide(Widened(format).c_str(), value), Widened(expected)) << format;
}

TEST(Format, ANumberIsPrintedOtherwiseThanByTheRuntime) {
  for (const char* flags : {"", "-", "0", "+", " ", "#", "-0", "+0", "0#"})
    for (const char* width : {"", "1", "12"})
      for (const char* precision : {"", ".", ".0", ".3", ".10"}) {
        const std::string head = std::string("%") + flags + width + precision;
        for (const char letter : std::string("diuoxX"))
          for (const int value : {0, 7, -7, 123456789})
            ExpectAsRuntime((head + letter).c_str(), value);
        // The runtime of the Windows build pads %-0a with zeros. C lets '-' win (7.21.6.1 p. 6).
        const bool hexadecimal = std::string(flags) != "-0";
        for (const char letter : std::string(hexadecimal ? "feEgGaA" : "feEgG"))
          for (const double value : {0.0, -1.5, 1e-7, 123456.789, 1e300})
            ExpectAsRuntime((head + letter).c_str(), value);
      }
  ExpectAsRuntime("%lld", 9223372036854775807LL);
  ExpectAsRuntime("%hhd", 300);
  ExpectAsRuntime("%hu", 70000u);
  ExpectAsRuntime("%zu", sizeof(int));
  ExpectAsRuntime("%lu", 4000000000ul);
  ExpectAsRuntime("%Lg", 1.25L);
  EXPECT_EQ(Narrow("%I64d %I32u", -1LL, 5u), "-1 5");
  EXPECT_EQ(Narrow("%*d|%-*d|%.*f", 5, 42, -5, 42, 2, 1.0), "   42|42   |1.00");
  EXPECT_EQ(Narrow("%p", reinterpret_cast<void*>(0xABCDEF)), "0000000000ABCDEF");
  EXPECT_EQ(Wide(u"%20p|", nullptr), u"    0000000000000000|");
}

TEST(Format, AFormatThatIsNoneIsFollowed) {
  for (const char* format : {"%", "%n", "%y", "%5", "%1001d", "%.1001f", "%l", "a%99999999999d"})
    EXPECT_EQ(Narrow(format, 1), "-1") << format;
  EXPECT_EQ(PrintW_Alloc(u"%n", 1), nullptr);
  EXPECT_EQ(Narrow("%*d", 100000, 1), "-1");
}

TEST(Print, ABufferIsOverrunOrItsRestIsWrong) {
  for (const std::size_t size : {6u, 5u, 1u, 0u}) {
    char narrow[7] = "######";
    char16_t wide[7] = u"######";
    const bool fits = size == 6;
    EXPECT_EQ(Print_ToBuffer(narrow, size, "%d%s", 12, "345"), fits ? 5 : -1);
    EXPECT_EQ(PrintW_ToBuffer(wide, size, u"%d%T", 12, u"345"), fits ? 5 : -1);
    const std::string cut = std::string("12345").substr(0, size == 0 ? 0 : size - 1);
    if (size > 0) {
      EXPECT_STREQ(narrow, cut.c_str());
    }
    EXPECT_EQ(narrow[size], size == 0 || size == 6 ? (size == 0 ? '#' : '\0') : '#');
    EXPECT_EQ(wide[0], fits ? u'1' : size == 0 ? u'#' : u'\0');
  }
  char16_t* block = PrintW_Alloc(u"%s-%d", std::string(100, 'x').c_str(), 7);
  ASSERT_NE(block, nullptr);
  EXPECT_EQ(std::u16string(block), std::u16string(100, u'x') + u"-7");
  Heap_Free(block);
}

TEST(Print, AStreamGetsAnotherText) {
  std::FILE* file = std::tmpfile();
  ASSERT_NE(file, nullptr);
  EXPECT_EQ(Print_ToStream(file, "%d %T ", 1, u"\xE4"), 5);
  // A pair that is cut in two by the pieces in which text goes out.
  const std::u16string odd = std::u16string(511, u'x') + u"\xD83D\xDE00";
  EXPECT_EQ(PrintW_ToStream(file, u"%T", odd.c_str()), 513);
  std::rewind(file);
  char text[600] = {};
  const std::size_t size = std::fread(text, 1, sizeof text, file);
  std::fclose(file);
  EXPECT_EQ(std::string(text, size), "1 \xC3\xA4 " + std::string(511, 'x') + "\xF0\x9F\x98\x80");
  testing::internal::CaptureStdout();
  EXPECT_EQ(PrintW_ToStdout(u"%d", 12), 2);
  EXPECT_EQ(Print_ToStdout("%d", 34), 2);
  std::fflush(stdout);
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "1234");
}

TEST(Print, TheUsersLocaleChangesANumberOrIsLost) {
  const bool hasComma = std::setlocale(LC_ALL, "de_DE.UTF-8") != nullptr ||
                        std::setlocale(LC_ALL, "German_Germany.1252") != nullptr;
  const std::string before = std::setlocale(LC_ALL, nullptr);
  char text[16];
  EXPECT_EQ(Print_ToBufferC(text, sizeof text, "%.1f", 1.5), 3);
  EXPECT_STREQ(text, "1.5");
  EXPECT_EQ(std::setlocale(LC_ALL, nullptr), before);
  double number = 0;
  EXPECT_EQ(ScanW_FromTextC(u"2.5", u"%lf", &number), 1);
  EXPECT_EQ(number, 2.5);
  EXPECT_EQ(std::setlocale(LC_ALL, nullptr), before);
  if (hasComma) {
    EXPECT_EQ(Narrow("%.1f", 1.5), "1,5");
  }
  std::setlocale(LC_ALL, "C");
}

TEST(Scan, AFieldIsReadOtherwiseInOneOfTheWidths) {
  int a = 0, b = 0;
  unsigned x = 0;
  float f = 0;
  double d = 0;
  char narrow[16] = {};
  char16_t wide[16] = {}, set[16] = {};
  EXPECT_EQ(Scan_FromTextC(" 12 -7,ff 1.5 2.5e1", "%d%i,%x%f%lf", &a, &b, &x, &f, &d), 5);
  EXPECT_TRUE(a == 12 && b == -7 && x == 255 && f == 1.5F && d == 25.0);
  EXPECT_EQ(ScanW_FromTextC(u" 13 0x1F,fe 1.5 2.5e1", u"%d%i,%x%f%lf", &a, &b, &x, &f, &d), 5);
  EXPECT_TRUE(a == 13 && b == 31 && x == 254 && d == 25.0);
  EXPECT_EQ(ScanW_FromTextC(u"one two 3-4;", u"%s %T %[0-9-];%d", narrow, wide, set, &a), 3);
  EXPECT_STREQ(narrow, "one");
  EXPECT_EQ(std::u16string(wide), u"two");
  EXPECT_EQ(std::u16string(set), u"3-4");
  EXPECT_EQ(Scan_FromTextC("one two", "%T %s", wide, narrow), 2);
  EXPECT_EQ(std::u16string(wide), u"one");
  EXPECT_STREQ(narrow, "two");
  std::uint8_t byte = 0;
  std::int16_t word = 0;
  std::int64_t big = 0;
  EXPECT_EQ(Scan_FromTextC("300 70000 -9223372036854775808", "%hhu%hd%lld", &byte, &word, &big), 3);
  EXPECT_TRUE(byte == 44 && word == 4464 && big == INT64_MIN);
  EXPECT_EQ(Scan_FromTextC("12345 ab%", "%2d%*d %2c%%%n", &a, narrow, &b), 2);
  EXPECT_TRUE(a == 12 && std::strncmp(narrow, "ab", 2) == 0 && b == 9);
  EXPECT_EQ(Scan_FromTextC("abc]x", "%[^]]]", narrow), 1);
  EXPECT_STREQ(narrow, "abc");
}

TEST(Scan, ATextOrAFormatThatEndsTooSoonIsReadOn) {
  int a = 0;
  EXPECT_EQ(Scan_FromTextC("", "%d", &a), -1);
  EXPECT_EQ(Scan_FromTextC("  ", "%d", &a), -1);
  EXPECT_EQ(Scan_FromTextC("x", "%d", &a), 0);
  EXPECT_EQ(Scan_FromTextC("5", "%d %d", &a, &a), 1);
  EXPECT_EQ(Scan_FromTextC("5", "6%d", &a), 0);
  for (const char* format : {"%", "%5", "%l", "%[a", "%y", "%*"})
    EXPECT_LE(Scan_FromTextC("5", format, &a), 1) << format;
  int n[11] = {};
  const char* ten = "%d%d%d%d%d%d%d%d%d%d";
  EXPECT_EQ(Scan_FromTextC("1 2 3 4 5 6 7 8 9 10 11", ten, n, n + 1, n + 2, n + 3, n + 4, n + 5,
                           n + 6, n + 7, n + 8, n + 9),
            10);
  const std::string eleven = std::string(ten) + "%d";
  n[0] = 0;
  EXPECT_EQ(Scan_FromTextC("1 2", eleven.c_str(), n, n + 1, n + 2, n + 3, n + 4, n + 5, n + 6,
                           n + 7, n + 8, n + 9, n + 10),
            -1);
  EXPECT_EQ(n[0], 0);
}

}  // namespace
}  // namespace stewardry
