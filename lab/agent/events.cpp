#include "lab/agent/events.h"

#include <cassert>
#include <cstdio>
#include <cstring>
#include <string_view>

namespace lab_agent {

namespace {

constexpr std::size_t kEventSize = 16;

std::uint32_t Word(Message message, std::size_t index) {
  assert(4 * (index + 1) <= message.size());
  std::uint32_t word = 0;
  for (int i = 3; i >= 0; --i) word = word << 8 | message[4 * index + static_cast<std::size_t>(i)];
  return word;
}

std::string DescribeOther(const char* kind, Message message) {
  return std::string(kind) + " message of " + std::to_string(message.size()) + " bytes";
}

struct FlagWord {
  std::uint32_t bit;
  const char* word;
};
// MOUSEEVENTF_... of winuser.h.
constexpr FlagWord kMouseWords[] = {
    {0x0001, "move"},     {0x0002, "left-down"},   {0x0004, "left-up"},   {0x0008, "right-down"},
    {0x0010, "right-up"}, {0x0020, "middle-down"}, {0x0040, "middle-up"},
};
constexpr std::uint32_t kWheel = 0x0800, kAbsolute = 0x8000, kKnownMouse = 0x887F;

}  // namespace

std::string DescribeKey(Message message) {
  if (message.size() != kEventSize) return DescribeOther("key", message);
  const std::uint32_t flags = Word(message, 2);
  char text[80];
  std::snprintf(text, sizeof text, "key 0x%02X scan 0x%02X%s %s", Word(message, 0),
                Word(message, 1), (flags & 1) != 0 ? " extended" : "",
                (flags & 2) != 0 ? "release" : "press");
  std::string words = text;
  if ((flags & ~3u) != 0) words += " unknown-flags";
  if (Word(message, 3) != 0) words += " extra-info";
  return words;
}

std::string DescribeMouse(Message message) {
  if (message.size() != kEventSize) return DescribeOther("mouse", message);
  const std::uint32_t flags = Word(message, 0);
  std::string words =
      "mouse " + std::to_string(Word(message, 1)) + "," + std::to_string(Word(message, 2));
  for (const FlagWord& row : kMouseWords)
    if ((flags & row.bit) != 0) words += std::string(" ") + row.word;
  if ((flags & kWheel) != 0)
    words += " wheel " + std::to_string(static_cast<std::int32_t>(Word(message, 3)));
  if ((flags & kAbsolute) == 0) words += " not-absolute";
  if ((flags & ~kKnownMouse) != 0) words += " unknown-flags";
  return words;
}

bool IsTerminate(Message message) {
  constexpr std::string_view kTerminate = "Terminate";
  return message.size() == kTerminate.size() &&
         std::memcmp(message.data(), kTerminate.data(), kTerminate.size()) == 0;
}

}  // namespace lab_agent
