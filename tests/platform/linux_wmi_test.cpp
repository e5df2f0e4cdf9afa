// WMI's stand-in: the facts it gives, and that wrong use fails as it does on Windows.
#include <gtest/gtest.h>
#include <sys/utsname.h>

#include <string>

#include "platform/linux/gate.h"
#include "platform/linux/utf16.h"
#include "platform/wmi.h"
#include "tests/lab_folder_fixture.h"

namespace platform {
namespace {

class LinuxWmiTest : public LabTest {
 protected:
  void SetUp() override {
    LabTest::SetUp();
    Put("adapters.txt",
        "eth0 index=2 mac=02:00:0a:00:00:ff\nnomac index=5 down\nlo loopback index=1\n");
    ASSERT_EQ(CoInitializeEx(), 0);
    ASSERT_EQ(CoInitializeSecurity(), 0);
    ASSERT_EQ(CreateWbemLocator(&locator_), 0);
    ASSERT_EQ(ConnectServer(locator_, u"ROOT\\CIMV2", &services_), 0);
    ASSERT_EQ(CoSetProxyBlanket(services_), 0);
  }
  void TearDown() override {
    for (const char* name : {"adapters.txt", "chassis.txt"}) std::filesystem::remove(LabPath(name));
    CoUninitialize();
    LabTest::TearDown();
  }
  static void Put(const char* name, const char* text) { std::ofstream(LabPath(name)) << text; }

  WbemEnumerator Ask(const char16_t* query) {
    WbemEnumerator rows;
    EXPECT_EQ(ExecQuery(services_, query, &rows), 0);
    return rows;
  }
  static WbemValue Get(const WbemObject& row, const char16_t* name) {
    WbemValue value;
    EXPECT_EQ(GetProperty(row, name, &value), 0);
    return value;
  }

  WbemLocator locator_;
  WbemServices services_;
};

TEST_F(LinuxWmiTest, OperatingSystemIsNotThisOne) {
  const WbemEnumerator rows = Ask(u"SELECT * FROM Win32_OperatingSystem");
  WbemObject row;
  ASSERT_EQ(NextObject(rows, &row), 0);
  utsname system;
  ASSERT_EQ(::uname(&system), 0);
  EXPECT_EQ(Get(row, u"Version").text, Utf8ToUtf16(system.release));
  EXPECT_EQ(Get(row, u"OSType").number, 36U);
  EXPECT_EQ(Get(row, u"OSArchitecture").text, sizeof(void*) == 8 ? u"64-bit" : u"32-bit");
  const std::u16string caption = Get(row, u"Caption").text;
  EXPECT_FALSE(caption.empty());
  EXPECT_EQ(caption.find(u'"'), std::u16string::npos);
  EXPECT_EQ(NextObject(rows, &row), 1);
  EXPECT_FALSE(row);
}

TEST_F(LinuxWmiTest, AdapterIsMissingOrMistaken) {
  const WbemEnumerator rows = Ask(u"SELECT * FROM Win32_NetworkAdapter");
  WbemObject row;
  ASSERT_EQ(NextObject(rows, &row), 0);
  EXPECT_EQ(Get(row, u"Name").text, u"eth0");
  EXPECT_EQ(Get(row, u"MACAddress").text, u"02:00:0A:00:00:FF");
  EXPECT_EQ(Get(row, u"DeviceID").text, u"2");
  EXPECT_EQ(Get(row, u"StatusInfo").number, 3U);
  EXPECT_EQ(Get(row, u"NetConnectionStatus").number, 2U);
  ASSERT_EQ(NextObject(rows, &row), 0);
  EXPECT_EQ(Get(row, u"MACAddress").kind, WbemValue::kNull);
  EXPECT_EQ(Get(row, u"NetConnectionStatus").number, 7U);
  EXPECT_EQ(NextObject(rows, &row), 1) << "the loopback interface is no adapter";
}

TEST_F(LinuxWmiTest, ChassisTypesAreNoArray) {
  Put("chassis.txt", "9 10");
  const WbemEnumerator rows = Ask(u"SELECT * FROM Win32_SystemEnclosure");
  WbemObject row;
  ASSERT_EQ(NextObject(rows, &row), 0);
  EXPECT_EQ(Get(row, u"ChassisTypes").numbers, (std::vector<std::uint32_t>{9, 10}));
  Put("chassis.txt", "");
  const WbemEnumerator silent = Ask(u"SELECT * FROM Win32_SystemEnclosure");
  ASSERT_EQ(NextObject(silent, &row), 0);
  EXPECT_EQ(Get(row, u"ChassisTypes").kind, WbemValue::kNull);
}

TEST_F(LinuxWmiTest, WrongUseIsAnsweredLikeRightUse) {
  WbemServices services;
  EXPECT_TRUE(Failed(ConnectServer(locator_, u"ROOT\\Elsewhere", &services)));
  EXPECT_TRUE(Failed(ConnectServer(WbemLocator(), u"ROOT\\CIMV2", &services)));
  WbemEnumerator rows;
  EXPECT_TRUE(Failed(ExecQuery(services_, u"SELECT * FROM Win32_Unheard", &rows)));
  EXPECT_TRUE(Failed(ExecQuery(services_, u"DELETE", &rows)));
  EXPECT_TRUE(Failed(ExecQuery(services, u"SELECT * FROM Win32_OperatingSystem", &rows)));
  EXPECT_FALSE(rows);
  const WbemEnumerator system = Ask(u"SELECT * FROM Win32_OperatingSystem");
  WbemObject row;
  ASSERT_EQ(NextObject(system, &row), 0);
  WbemValue value;
  value.kind = WbemValue::kText;
  EXPECT_TRUE(Failed(GetProperty(row, u"Unheard", &value)));
  EXPECT_EQ(value.kind, WbemValue::kNull);
  CoUninitialize();
  WbemLocator locator;
  EXPECT_TRUE(Failed(CreateWbemLocator(&locator))) << "without COM";
  EXPECT_EQ(CoInitializeEx(), 0);
  EXPECT_EQ(CoInitializeEx(), 1) << "already open on this thread";
  CoUninitialize();
}

TEST(LinuxUtf16Test, TextIsBrokenOnItsWay) {
  const struct {
    std::string narrow;
    std::u16string wide;
  } kBothWays[] = {{"", u""},
                   {"eth0", u"eth0"},
                   {"\xC3\xA9\xE2\x82\xAC", u"\u00e9\u20ac"},
                   {"\xF0\x9F\x98\x80", u"\U0001F600"},
                   {"\xED\x9F\xBF\xEE\x80\x80", u"\uD7FF\uE000"}};
  for (const auto& text : kBothWays) {
    EXPECT_EQ(Utf8ToUtf16(text.narrow), text.wide);
    EXPECT_EQ(Utf16ToUtf8(text.wide), text.narrow);
  }
  const struct {
    const char* what;
    std::string narrow;
    std::u16string wide;
  } kBroken[] = {{"cut", "a\xE2\x82", u"a\uFFFD"},
                 {"broken off", "\xE2z", u"\uFFFDz"},
                 {"a lone follower", "\x80", u"\uFFFD"},
                 {"overlong", "\xC0\x80", u"\uFFFD"},
                 {"a surrogate", "\xED\xA0\x80", u"\uFFFD"},
                 {"beyond the last character", "\xF4\x90\x80\x80", u"\uFFFD"},
                 {"no first byte", "\xFFz", u"\uFFFDz"}};
  for (const auto& text : kBroken) EXPECT_EQ(Utf8ToUtf16(text.narrow), text.wide) << text.what;
  const char16_t lone[] = {0xD800, u'a', 0xDC00, 0};
  EXPECT_EQ(Utf16ToUtf8(lone),
            "\xEF\xBF\xBD"
            "a"
            "\xEF\xBF\xBD");
}

}  // namespace
}  // namespace platform
