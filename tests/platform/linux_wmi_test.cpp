// WMI's stand-in fails on wrong use as WMI does on Windows; the text conversion behind it.
#include <gtest/gtest.h>

#include <string>

#include "platform/linux/utf16.h"
#include "platform/wmi.h"

namespace platform {
namespace {

TEST(LinuxWmi, WrongUseFails) {
  WbemLocator locator;
  EXPECT_TRUE(Failed(CreateWbemLocator(&locator))) << "COM is not open";
  ASSERT_EQ(CoInitializeEx(), 0);
  EXPECT_EQ(CoInitializeEx(), 1) << "COM is open already on this thread";
  ASSERT_EQ(CreateWbemLocator(&locator), 0);
  WbemServices services;
  EXPECT_TRUE(Failed(ConnectServer(locator, u"ROOT\\Elsewhere", &services)));
  EXPECT_TRUE(Failed(ConnectServer(WbemLocator(), u"ROOT\\CIMV2", &services)));
  WbemEnumerator rows;
  EXPECT_TRUE(Failed(ExecQuery(services, u"SELECT * FROM Win32_OperatingSystem", &rows)));
  ASSERT_EQ(ConnectServer(locator, u"ROOT\\CIMV2", &services), 0);
  EXPECT_TRUE(Failed(ExecQuery(services, u"SELECT * FROM Win32_Unheard", &rows)));
  EXPECT_TRUE(Failed(ExecQuery(services, u"DELETE", &rows)));
  ASSERT_EQ(ExecQuery(services, u"SELECT * FROM Win32_OperatingSystem", &rows), 0);
  WbemObject row;
  ASSERT_EQ(NextObject(rows, &row), 0);
  WbemValue value;
  value.kind = WbemValue::kText;
  EXPECT_TRUE(Failed(GetProperty(row, u"Unheard", &value)));
  EXPECT_EQ(value.kind, WbemValue::kNull);
  EXPECT_EQ(NextObject(rows, &row), 1) << "one operating system";
  EXPECT_FALSE(row);
  CoUninitialize();
  CoUninitialize();
}

TEST(LinuxUtf16, ValidTextIsKeptBothWays) {
  const struct {
    std::string narrow;
    std::u16string wide;
  } kRows[] = {{"", u""},
               {"eth0", u"eth0"},
               {"\xC3\xA9\xE2\x82\xAC", u"\u00e9\u20ac"},
               {"\xF0\x9F\x98\x80", u"\U0001F600"},
               {"\xED\x9F\xBF\xEE\x80\x80", u"\uD7FF\uE000"}};
  for (const auto& row : kRows) {
    EXPECT_EQ(Utf8ToUtf16(row.narrow), row.wide);
    EXPECT_EQ(Utf16ToUtf8(row.wide), row.narrow);
  }
}

TEST(LinuxUtf16, BrokenTextHasReplacements) {
  const struct {
    const char* name;
    std::string narrow;
    std::u16string wide;
  } kRows[] = {{"cut", "a\xE2\x82", u"a\uFFFD"},
               {"broken off", "\xE2z", u"\uFFFDz"},
               {"continuation byte alone", "\x80", u"\uFFFD"},
               {"overlong", "\xC0\x80", u"\uFFFD"},
               {"surrogate", "\xED\xA0\x80", u"\uFFFD"},
               {"behind the last character", "\xF4\x90\x80\x80", u"\uFFFD"},
               {"no first byte", "\xFFz", u"\uFFFDz"}};
  for (const auto& row : kRows) EXPECT_EQ(Utf8ToUtf16(row.narrow), row.wide) << row.name;
  const char16_t lone[] = {0xD800, u'a', 0xDC00, 0};
  EXPECT_EQ(Utf16ToUtf8(lone),
            "\xEF\xBF\xBD"
            "a"
            "\xEF\xBF\xBD");
}

}  // namespace
}  // namespace platform
