#include "cim/text/text.h"

#include <gtest/gtest.h>

#include <iterator>
#include <string>

#include "cim/memory/heap.h"
#include "cim/text/number_text.h"
#include "cim/text/print.h"
#include "cim/text/text_list.h"

namespace stewardry::cim {
namespace {

TEST(Text, CopiesStayInTheirBufferAndReturnTheWholeLength) {
  for (const std::size_t size : {6u, 5u, 1u, 0u}) {
    std::u16string wide(6, u'#');
    std::string narrow(6, '#');
    EXPECT_EQ(Text_Copy(wide.data(), u"12345", size), 5u);
    EXPECT_EQ(Text_CopyNarrow(narrow.data(), "12345", size), 5u);
    std::string expected = std::string("12345").substr(0, size == 0 ? 0 : size - 1);
    if (size > 0) expected += '\0';
    expected.resize(6, '#');
    EXPECT_EQ(narrow, expected);
    EXPECT_EQ(wide, std::u16string(expected.begin(), expected.end()));
  }
}

TEST(Text, ConcatenationsStayInTheirBuffer) {
  char16_t wide[6] = u"ab";
  EXPECT_EQ(Text_Cat(wide, u"cdefgh", 6), 6u);
  EXPECT_EQ(Text_CatFromNarrow(wide, "x", 6), 1u);  // already full
  EXPECT_EQ(std::u16string(wide), u"abcde");
  char endless[4] = {'a', 'b', 'c', 'd'};
  EXPECT_EQ(Text_CatNarrow(endless, "xyz", 4), 3u);
  EXPECT_EQ(Text_CatNarrow(endless, "xyz", 0), 3u);
  EXPECT_STREQ(endless, "abc");
}

TEST(Text, UnitsBecomeUtf8) {
  // One to four bytes, then surrogates without a partner.
  const std::u16string text = u"aZ~\x7F\x80\x7FF\x800\xFFFF\xD83D\xDE00|\xDE00x\xD83Dx\xD83D";
  const std::string utf8 =
      "aZ~\x7F\xC2\x80\xDF\xBF\xE0\xA0\x80\xEF\xBF\xBF\xF0\x9F\x98\x80|"
      "\xEF\xBF\xBDx\xEF\xBF\xBDx\xEF\xBF\xBD";
  const int length = static_cast<int>(text.size()), needed = static_cast<int>(utf8.size());
  std::string bytes(utf8.size(), '#');
  EXPECT_EQ(Text_ToUtf8(text.data(), length, nullptr, 0), needed);
  EXPECT_EQ(Text_ToUtf8(text.data(), length, bytes.data(), needed), needed);
  EXPECT_EQ(bytes, utf8);
  EXPECT_EQ(Text_ToUtf8(text.data(), length, bytes.data(), needed - 1), 0);
}

TEST(Text, EachByteOfAnInvalidSequenceIsReplaced) {
  for (const std::string bytes :
       {"\x80", "\xC0\x80", "\xC3", "\xC3x", "\xE0\x80\x80", "\xED\xA0\x80", "\xF4\x90\x80\x80",
        "\xF8\x80\x80\x80", "\xF0\x9F\x98", "\xFF"}) {
    char16_t units[8];
    EXPECT_EQ(PrintW_ToBuffer(units, 8, u"%s", bytes.c_str()), static_cast<int>(bytes.size()));
    EXPECT_EQ(units[0], u'\xFFFD');
  }
}

TEST(Text, ComparisonIsByUnsignedUnits) {
  EXPECT_EQ(Text_Compare(u"a", u"a\x8000"), -1);
  EXPECT_EQ(Text_Compare(u"\x8000", u"\x7FFF"), 1);
}

TEST(NumberText, NumbersAreWrittenInEveryForm) {
  char narrow32[11], narrow64[21];
  char16_t wide32[11], wide64[21], wideLong[64];
  std::size_t size = 0;
  for (const std::uint64_t value : {0ULL, 9ULL, 10ULL, 63ULL, 64ULL, 4294967295ULL, ~0ULL}) {
    const std::string digits = std::to_string(value);
    const std::u16string wide(digits.begin(), digits.end());
    EXPECT_EQ(Uint64ToNarrow(narrow64, value, &size), digits);
    EXPECT_EQ(Uint64ToText(wide64, value, &size), wide);
    EXPECT_EQ(Uint64ToLongText(wideLong, value, &size), wide);
    EXPECT_EQ(size, digits.size());
    if (value > 0xFFFFFFFF) continue;
    EXPECT_EQ(Uint32ToNarrow(narrow32, static_cast<std::uint32_t>(value)), digits);
    EXPECT_EQ(Uint32ToText(wide32, static_cast<std::uint32_t>(value)), wide);
  }
  EXPECT_EQ(std::u16string(Sint64ToLongText(wideLong, INT64_MIN)), u"-9223372036854775808");
}

TEST(TextList, ListsSurviveFailedAllocations) {
  constexpr std::size_t kCounts[] = {0, 0, 1, 0, 1, 2};  // by the number of the request that fails
  for (std::uint64_t failed = 0; failed < std::size(kCounts); ++failed) {
    heap_gate::Arm(failed + 1);
    TextListW list = TextListW_New();
    if (list != nullptr) TextListW_Append(&list, u"one");
    if (list != nullptr) TextListW_Append(&list, u"two");
    heap_gate::Disarm();
    EXPECT_EQ(TextListW_Count(list), kCounts[failed]);
    TextListW_Free(list);
  }
}

}  // namespace
}  // namespace stewardry::cim
