// Numbers under a locale whose decimal point has two bytes. The locale need not be installed: the
// test writes the one category that it needs in the form in which the C library loads it.
#include <gtest/gtest.h>

#include <clocale>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "cim/text/print.h"

namespace stewardry::cim {
namespace {

// The category's magic number, the number of items, their offsets, and the items: point, separator,
// grouping, the first two as wide characters, the encoding.
constexpr char kNumbers[] =
    "\x14\x11\x03\x20\6\0\0\0\x20\0\0\0\x23\0\0\0\x24\0\0\0\x28\0\0\0\x2C\0\0\0\x30\0\0\0"
    "\xD9\xAB\0\0\0\0\0\0\x6B\6\0\0\0\0\0\0UTF-8";

TEST(Locale, PointIsOneUnitAndTheLocaleIsRestored) {
  char folder[] = "/tmp/stewardry-locale-XXXXXX";
  const std::string path = mkdtemp(folder);
  std::filesystem::create_directory(path + "/arabic");
  std::ofstream(path + "/arabic/LC_NUMERIC").write(kNumbers, sizeof kNumbers);
  setenv("LOCPATH", (path + ":/usr/lib/locale").c_str(), 1);
  ASSERT_NE(std::setlocale(LC_CTYPE, "C.UTF-8"), nullptr);
  ASSERT_NE(std::setlocale(LC_NUMERIC, "arabic"), nullptr);
  std::filesystem::remove_all(path);
  const std::string name = std::setlocale(LC_ALL, nullptr);  // 170 characters: all categories
  char16_t text[32];
  EXPECT_EQ(PrintW_ToBuffer(text, 32, u"%5.1f|%-5.1f|%05.1f", 1.5, 1.5, -1.5), 17);
  EXPECT_EQ(std::u16string(text), u"  1\u066B5|1\u066B5  |-01\u066B5");
  EXPECT_EQ(PrintW_ToBufferC(text, 32, u"%.1f", 1.5), 3);
  EXPECT_EQ(std::setlocale(LC_ALL, nullptr), name);
  std::setlocale(LC_ALL, "C");
}

}  // namespace
}  // namespace stewardry::cim
