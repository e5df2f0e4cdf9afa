// The text fields of the records. The records' offsets are pinned where they are defined.
#include "service/inventory/records.h"

#include <gtest/gtest.h>

#include <string>

namespace stewardry {
namespace {

TEST(Records, TextFillsItsFieldAndNothingElse) {
  struct {
    char field[4];
    char next;
  } record = {{'o', 'l', 'd', '!'}, '#'};
  const struct {
    const char* text;
    std::string bytes;
  } kRows[] = {{"abcdefgh", "abcd"}, {"abcd", "abcd"}, {"a", {'a', 0, 0, 0}}, {"", {0, 0, 0, 0}}};
  for (const auto& row : kRows) {
    FillText(record.field, row.text);
    EXPECT_EQ(std::string(record.field, 4), row.bytes) << row.text;
    EXPECT_EQ(record.next, '#') << row.text;
    EXPECT_EQ(TextOf(record.field), std::string(row.text).substr(0, 4));
  }
}

}  // namespace
}  // namespace stewardry
