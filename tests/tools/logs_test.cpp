// The tool's reader of logs, with files as a service may leave them.
#include <gmock/gmock.h>

#include <filesystem>
#include <fstream>

#include "tools/archive/masker.h"
#include "tools/diagnosis/rules.h"
#include "tools/logs/line_source.h"
#include "tools/logs/log_reader.h"
#include "tools/logs/log_time.h"
#include "tools/logs/sessions.h"

namespace stewardry::tools {
namespace {

using ::testing::ElementsAre;

std::string ServiceLine(int second, const std::string& text) {
  char stamp[64];
  std::snprintf(stamp, sizeof stamp, "INFO:  <2026/11/22 22:%02d:%02d>[7]-[ 9 M ] ", second / 60,
                second % 60);
  return stamp + text + " <thread=8 (0x8)>\r\n";
}

class Logs : public ::testing::Test {
 protected:
  Logs() { std::filesystem::create_directory(folder_); }
  ~Logs() override {
    reader_.reset();  // a folder with open files stays on Windows
    std::filesystem::remove_all(folder_);
  }
  std::string PathOf(const char* name) const { return folder_ + "/" + name; }
  void Append(const char* name, const std::string& bytes) const {
    std::ofstream(PathOf(name), std::ios::binary | std::ios::app) << bytes;
  }
  std::vector<std::string> Texts(std::int64_t since = 0) {
    std::vector<std::string> texts;
    LogWindow window;
    window.since = since;
    reader_->Read(window, [&](const LogLine& line) {
      texts.push_back(line.text);
      return true;
    });
    return texts;
  }

  const std::string folder_ = ::testing::TempDir() + "stewardry-" +
                              ::testing::UnitTest::GetInstance()->current_test_info()->name();
  std::unique_ptr<LogReader> reader_ = std::make_unique<LogReader>(folder_);
};

TEST(LogLine, EachFormatIsTakenApart) {
  const LogLine service = ParseLogLine(Log::kService, ServiceLine(5, "Remote port 0xdabc"));
  const LogLine wmi =
      ParseLogLine(Log::kWmi,
                   "[7]-[ 9 M ] WARN:  text $$<TAVRIN_WMI><Sun  Nov 22 22:00:05.608 "
                   "2026 UTC><thread=8 (0x8)>");
  const LogLine side = ParseLogLine(Log::kSide, "Sun Nov 22 22:00:05 2026: text\r");
  EXPECT_EQ(TimeText(service.time), "2026-11-22 22:00:05");
  EXPECT_EQ(wmi.time, service.time);
  EXPECT_EQ(side.time, service.time);
  EXPECT_EQ(service.process, 7U);
  EXPECT_EQ(service.thread, 8U);
  EXPECT_EQ(wmi.level, "WARN");
  EXPECT_EQ(wmi.text, "text");
  EXPECT_EQ(side.text, "text");
  EXPECT_EQ(WithPlainAddresses(service.text), "Remote port 48346");
  for (const char* bad : {"", "INFO:  <2026/13/22 22:00:05>[7]-[ 9 M ] x", "<", "\xFF\x01\xC3"}) {
    EXPECT_FALSE(ParseLogLine(Log::kService, bad).hasOwnTime) << bad;
  }
  EXPECT_EQ(ParseLogLine(Log::kWireless, std::string("a\0b\x01\xE4", 5)).text, "ab \xEF\xBF\xBD");
}

TEST_F(Logs, AreMergedByTimeAcrossTheBackup) {
  Append("tavrinLog.lo_", ServiceLine(1, "old"));
  Append("tavrinLog.log", ServiceLine(3, "new") + "cut");
  Append("tavrinKeyboardMouseLog.log", "Sun Nov 22 22:00:02 2026: side\r\n");
  EXPECT_THAT(Texts(), ElementsAre("old", "side", "new", "cut"));
}

TEST_F(Logs, AWindowAtTheEndIsFoundBehindTrashAndASetBackClock) {
  std::string many;
  for (int second = 0; second < 3000; ++second) many += ServiceLine(second, std::string(300, 'x'));
  Append("tavrinLog.log", many + std::string(1 << 20, '\0') + "\n" + std::string(1 << 20, 'y') +
                              "\n" + ServiceLine(1000, "set back") + ServiceLine(3599, "last"));
  EXPECT_THAT(Texts(LocalSeconds(2026, 11, 22, 22, 59, 59)), ElementsAre("last"));
}

TEST_F(Logs, ARotationLosesAndRepeatsNoFollowedLine) {
  Append("tavrinLog.log", ServiceLine(1, "one") + ServiceLine(2, "two"));
  EXPECT_THAT(Texts(), ElementsAre("one", "two"));
  Append("tavrinLog.log", ServiceLine(3, "three") + "INFO:  <2026/11/22 22:00:04>[7]-[ 9 M ] fo");
  std::vector<std::string> followed;
  const auto take = [&](const LogLine& line) {
    followed.push_back(line.text);
    return true;
  };
  EXPECT_TRUE(reader_->ReadNew(take));
  EXPECT_THAT(followed, ElementsAre("three"));
  Append("tavrinLog.log", "ur <thread=8 (0x8)>\r\n");
  std::filesystem::rename(PathOf("tavrinLog.log"), PathOf("tavrinLog.lo_"));
  Append("tavrinLog.log", ServiceLine(5, "five"));
  EXPECT_TRUE(reader_->ReadNew(take));
  EXPECT_TRUE(reader_->ReadNew(take));
  EXPECT_THAT(followed, ElementsAre("three", "four", "five"));
}

TEST(Patterns, StarsStandForAnyCharacters) {
  EXPECT_TRUE(FitsPattern("Cannot open device 5", "Cannot open device *"));
  EXPECT_TRUE(FitsPattern("a failed with error: 1167", "*failed with error: 1167"));
  EXPECT_TRUE(FitsPattern("answer of 12 bytes is too short", "answer of * bytes*short"));
  EXPECT_FALSE(FitsPattern("Socket is closed. GetLastError: 5", "Socket is closed"));
  EXPECT_FALSE(FitsPattern("x Cannot open device 5", "Cannot open device *"));
}

TEST(Masked, TheSameValueGetsTheSamePlaceholderInEachForm) {
  Masker masker;
  masker.AddHost("LabHost");
  masker.Keep("2.4.1.0");
  EXPECT_EQ(masker.Mask("0x501a8c0 192.168.1.5:22 10.0.0.1 labhost 00-1A-2B-3C-4D-5E fe80::1"),
            "ip-1 ip-1:22 ip-2 host-1 mac-1 ip-3");
  const std::string plain = "1.0.0.533 2.4.1.0 255.255.255.0 22:25:42 127.0.0.1 labhosts 0x71c9";
  EXPECT_EQ(masker.Mask(plain), plain);
}

}  // namespace
}  // namespace stewardry::tools
