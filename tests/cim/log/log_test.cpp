#include "cim/log/log.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <regex>
#include <string>

namespace stewardry::cim {
namespace {

class LogTest : public ::testing::Test {
 protected:
  LogTest()
      : path_(std::filesystem::temp_directory_path() /
              (std::filesystem::path(u"stewardry-log-\u00E4-") +=
               std::to_string(std::random_device{}()))) {}
  ~LogTest() override {
    LibLog_Detach();
    LibLog_SetLevel(LIBLOG_INFO);
    std::filesystem::remove(path_);
  }
  int Attach() { return LibLog_Attach(path_.u16string().c_str()); }
  // Returns the file's text without the times, the process and the thread.
  std::string Lines() {
    std::ifstream file(path_);
    const std::string text(std::istreambuf_iterator<char>(file), {});
    static const std::regex head(R"(\d{4}/\d\d/\d\d \d\d:\d\d:\d\d \[\d+,\d+\] )");
    return std::regex_replace(text, head, "<head>");
  }
  const std::filesystem::path path_;
};

TEST_F(LogTest, LinesAreFormattedOnceAStreamIsAttached) {
  EXPECT_EQ(LibLog_Put(LIBLOG_FATAL, "", 7, u"nowhere"), 0);
  ASSERT_EQ(Attach(), 0);
  EXPECT_EQ(LibLog_Put(LIBLOG_WARNING, "file.c", 7, u"%d %T %s", 1, u"\xE4", "b"), 1);
  EXPECT_EQ(LibLog_Put(LIBLOG_INFO, "", 5, u"%d", 2), 1);
  LibLog_Error(u"error %d", 5);
  const std::u16string longFormat(2000, u'x');
  LibLog_Event(LIBLOG_ERROR, 1, "", 0, longFormat.c_str());  // cut to 1023 units, its head included
  EXPECT_EQ(Lines(),
            "<head>WARNING: file.c(7): 1 \xC3\xA4 b\n"
            "<head>INFO: 2\n<head>ERROR: null(0): error 5\n"
            "<head>ERROR: null(0): EventId=1 Priority=ERROR " +
                std::string(998, 'x') + "\n");
}

TEST_F(LogTest, ThresholdSuppressesLessSevereLevels) {
  ASSERT_EQ(Attach(), 0);
  for (std::int32_t level = -1; level <= 7; ++level)
    EXPECT_EQ(LibLog_Put(level, "", 7, u"x"), level <= LIBLOG_INFO ? 1 : 0) << level;
  LibLog_SetLevel(1000);
  LibLog_Verbose(u"seen");
  for (const std::int32_t level : {-1, 6, 7}) LibLog_Event(level, 1, "", 0, u"unseen");
  const std::string lines = Lines();
  EXPECT_EQ(lines.find("unseen"), std::string::npos);
  EXPECT_NE(lines.find("VERBOSE: null(0): seen\n"), std::string::npos);
}

TEST_F(LogTest, NamesAndNumbersSetTheLevel) {
  std::int32_t level = 0;
  for (const char16_t* word : {u"fatal", u"ERROR", u"WaRnInG", u"3", u"debug", u"5"}) {
    EXPECT_EQ(LibLog_SetLevelText(word), 0);
    EXPECT_EQ(LibLog_GetLevel(), level++);
  }
  for (const char16_t* word : {u"", u"6", u"INFO ", u"1234567890123456789"})
    EXPECT_EQ(LibLog_SetLevelText(word), -1);
  EXPECT_EQ(LibLog_GetLevel(), LIBLOG_VERBOSE);
}

TEST_F(LogTest, AttachingNeedsAFileAndNoOtherStream) {
  for (const char16_t* path : {static_cast<const char16_t*>(nullptr), u"", u"/no/such/folder/log"})
    EXPECT_EQ(LibLog_Attach(path), 1);
  ASSERT_EQ(Attach(), 0);
  EXPECT_EQ(Attach(), 1);
  LibLog_Raw(u"first");
  EXPECT_EQ(LibLog_Detach(), 0);
  ASSERT_EQ(Attach(), 0);  // appends
  LibLog_Raw(u"second");
  EXPECT_EQ(Lines(), "first\nsecond\n");
}

}  // namespace
}  // namespace stewardry::cim
