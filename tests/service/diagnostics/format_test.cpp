#include "service/diagnostics/format.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>

namespace stewardry {
namespace {

template <class... Args>
std::string Text(CheckedFormat<std::type_identity_t<Args>...> format, const Args&... args) {
  char out[200];
  const FormatArg list[] = {FormatArg(args)..., FormatArg()};
  FormatText(out, sizeof out, format.text, std::span(list, sizeof...(Args)));
  return out;
}

TEST(Format, IntegersKeepTheirWidthAndTakeTheConversionsSign) {
  EXPECT_EQ(Text("%d", -1), "-1");
  EXPECT_EQ(Text("%d", 0xFFFFFFFFU), "-1");
  EXPECT_EQ(Text("%u", -1), "4294967295");
  EXPECT_EQ(Text("%d", std::uint8_t{255}), "255");
  EXPECT_EQ(Text("%llu", UINT64_MAX), "18446744073709551615");
  EXPECT_EQ(Text("%I64x", std::uint64_t{0xABCDEF0123}), "abcdef0123");
  EXPECT_EQ(Text("%zd %zx %lu", std::size_t{7}, std::size_t{31}, 5UL), "7 1f 5");
}

TEST(Format, WidthPaddingAndPrecisionAreThoseOfTheLineFormats) {
  EXPECT_EQ(Text("%.2X%.2X", 0xA, 0xFF), "0AFF");
  EXPECT_EQ(Text("[%4d|%04d|%3s]", 42, -7, "x"), "[  42|-007|  x]");
  EXPECT_EQ(Text("[% d|% ld|% u|% 04d]", 5, -5, 5u, 5), "[ 5|-5|5| 005]");
  EXPECT_EQ(Text("%.3s %%", "abcdef"), "abc %");
}

TEST(Format, WideTextBecomesUtf8AndHalfAPairTheReplacementCharacter) {
  EXPECT_EQ(Text("%ls", u"na\u00EFve \u20AC"), "na\xC3\xAFve \xE2\x82\xAC");
  EXPECT_EQ(Text("%ls", u"\xD83D\xDE00"), "\xF0\x9F\x98\x80");
  const char16_t lone[] = {0xD83D, u'x', 0};
  EXPECT_EQ(Text("%ls", static_cast<const char16_t*>(lone)), "\xEF\xBF\xBDx");
}

TEST(Format, NullTextIsNamedAndAMissingArgumentWritesNothing) {
  EXPECT_EQ(Text("%s", static_cast<const char*>(nullptr)), "(null)");
  char out[20];
  EXPECT_EQ(FormatText(out, sizeof out, "a%db%s%", {}), 2U);
  EXPECT_STREQ(out, "ab");
}

// The terminator must be inside a buffer of each size, and the byte behind it unchanged.
TEST(Format, OutputStaysInItsBuffer) {
  const std::string text(50, 'y');
  for (std::size_t size = 1; size < 80; ++size) {
    std::string out(size + 1, '#');
    const FormatArg args[] = {FormatArg(text), FormatArg(u"\u20AC\u20AC"), FormatArg(1)};
    const std::size_t n = FormatText(out.data(), size, "%s|%ls|%99999d", args);
    EXPECT_LT(n, size);
    EXPECT_EQ(out[n], 0);
    EXPECT_EQ(out[size], '#');
  }
}

}  // namespace
}  // namespace stewardry
