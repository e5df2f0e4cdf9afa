// Numbers under a locale whose decimal point takes two bytes. No such locale need be installed: the
// test writes the one category that it needs in the form in which the C library loads it.
#include <gtest/gtest.h>

#include <clocale>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

#include "base/print.h"
#include "base/scan.h"

namespace stewardry {
namespace {

// The category's mark, six items, where each lies, and the items: point, separator, grouping, both
// of them as wide characters, the encoding.
constexpr char kNumbers[] =
    "\x14\x11\x03\x20\6\0\0\0\x20\0\0\0\x23\0\0\0\x24\0\0\0\x28\0\0\0\x2C\0\0\0\x30\0\0\0"
    "\xD9\xAB\0\0\0\0\0\0\x6B\6\0\0\0\0\0\0UTF-8";

TEST(Locale, ItsPointIsPrintedInBothWidthsAndItsNameComesBack) {
  namespace fs = std::filesystem;
  char folder[] = "/tmp/stewardry-locale-XXXXXX";
  ASSERT_NE(mkdtemp(folder), nullptr);
  fs::create_directory(fs::path(folder) / "arabic");
  std::ofstream(fs::path(folder) / "arabic/LC_NUMERIC").write(kNumbers, sizeof kNumbers);
  setenv("LOCPATH", (std::string(folder) + ":/usr/lib/locale").c_str(), 1);
  ASSERT_NE(std::setlocale(LC_CTYPE, "C.UTF-8"), nullptr);
  ASSERT_NE(std::setlocale(LC_NUMERIC, "arabic"), nullptr);
  fs::remove_all(folder);
  const std::string name = std::setlocale(LC_ALL, nullptr);
  EXPECT_GT(name.size(), 128u);  // of all categories

  char narrow[32];
  char16_t wide[32];
  EXPECT_EQ(Print_ToBuffer(narrow, 32, "%.1f", 1.5), 4);
  EXPECT_STREQ(narrow,
               "1\xD9\xAB"
               "5");
  EXPECT_EQ(PrintW_ToBuffer(wide, 32, u"%5.1f|%-5.1f|%05.1f", 1.5, 1.5, -1.5), 17);
  EXPECT_EQ(std::u16string(wide), u"  1\u066B5|1\u066B5  |-01\u066B5");
  EXPECT_EQ(Print_ToBufferC(narrow, 32, "%.1f", 1.5), 3);
  EXPECT_STREQ(narrow, "1.5");
  double scanned = 0;
  EXPECT_EQ(Scan_FromTextC("2.5", "%lf", &scanned), 1);
  EXPECT_EQ(scanned, 2.5);
  EXPECT_EQ(std::setlocale(LC_ALL, nullptr), name);
  std::setlocale(LC_ALL, "C");
  unsetenv("LOCPATH");
}

}  // namespace
}  // namespace stewardry
