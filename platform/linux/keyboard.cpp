// A US keyboard with all keys up and no lock on, and a screen of 1024 by 768. The lab's screen.txt
// replaces its numbers: width, height, and 1 for swapped mouse buttons. Each call reads it.
#include "platform/keyboard.h"

#include <fstream>

#include "platform/linux/lab/lab_folder.h"
#include "platform/linux/runtime/gate.h"

namespace platform {

namespace {

constexpr std::int16_t kShift = 0x100;

// The keys that aren't letters or digits, with their two characters.
struct SignKey {
  char plain;
  char shifted;
  std::uint8_t virtualKey;
};
constexpr SignKey kSignKeys[] = {
    {' ', ' ', 0x20},   // VK_SPACE
    {';', ':', 0xBA},   // VK_OEM_1
    {'=', '+', 0xBB},   // VK_OEM_PLUS
    {',', '<', 0xBC},   // VK_OEM_COMMA
    {'-', '_', 0xBD},   // VK_OEM_MINUS
    {'.', '>', 0xBE},   // VK_OEM_PERIOD
    {'/', '?', 0xBF},   // VK_OEM_2
    {'`', '~', 0xC0},   // VK_OEM_3
    {'[', '{', 0xDB},   // VK_OEM_4
    {'\\', '|', 0xDC},  // VK_OEM_5
    {']', '}', 0xDD},   // VK_OEM_6
    {'\'', '"', 0xDE},  // VK_OEM_7
};
constexpr char kShiftedDigits[] = ")!@#$%^&*(";
static_assert(sizeof kShiftedDigits == 10 + 1);

// Scan codes of set 1: `count` virtual keys from `virtualKey` on, with codes counting up.
struct ScanRun {
  std::uint8_t virtualKey;
  std::uint8_t scanCode;
  std::uint8_t count = 1;
};
constexpr ScanRun kScanRuns[] = {
    {0x08, 0x0E},     {0x09, 0x0F},    {0x0C, 0x4C},     {0x0D, 0x1C},    {0x10, 0x2A},
    {0x11, 0x1D},     {0x12, 0x38},    {0x03, 0x46},     {0x14, 0x3A},    {0x1B, 0x01},
    {0x20, 0x39},     {0x21, 0x49},    {0x22, 0x51},     {0x23, 0x4F},    {0x24, 0x47},
    {0x25, 0x4B},     {0x26, 0x48},    {0x27, 0x4D},     {0x28, 0x50},    {0x2C, 0x54},
    {0x2D, 0x52, 2},  {0x2F, 0x63},    {0x30, 0x0B},     {0x31, 0x02, 9}, {0x5B, 0x5B},
    {0x5C, 0x5C, 2},  {0x60, 0x52},    {0x61, 0x4F, 3},  {0x64, 0x4B, 3}, {0x67, 0x47, 3},
    {0x6A, 0x37},     {0x6B, 0x4E},    {0x6D, 0x4A},     {0x6E, 0x53},    {0x6F, 0x35},
    {0x70, 0x3B, 10}, {0x7A, 0x57, 2}, {0x7C, 0x64, 11}, {0x87, 0x76},    {0x90, 0x45},
    {0x91, 0x46},     {0xA0, 0x2A},    {0xA1, 0x36},     {0xA2, 0x1D},    {0xA3, 0x1D},
    {0xA4, 0x38},     {0xA5, 0x38},    {0xBA, 0x27},     {0xBB, 0x0D},    {0xBC, 0x33},
    {0xBD, 0x0C},     {0xBE, 0x34, 2}, {0xC0, 0x29},     {0xDB, 0x1A},    {0xDC, 0x2B},
    {0xDD, 0x1B},     {0xDE, 0x28},    {0xE2, 0x56},
};
// The letters A to Z.
constexpr std::uint8_t kLetterScans[] = {0x1E, 0x30, 0x2E, 0x20, 0x12, 0x21, 0x22, 0x23, 0x17,
                                         0x24, 0x25, 0x26, 0x32, 0x31, 0x18, 0x19, 0x10, 0x13,
                                         0x1F, 0x14, 0x16, 0x2F, 0x11, 0x2D, 0x15, 0x2C};
static_assert(sizeof kLetterScans == 26);

std::int16_t SignKeyOf(char character) {
  for (const SignKey& key : kSignKeys) {
    if (key.plain == character) return key.virtualKey;
    if (key.shifted == character) return static_cast<std::int16_t>(key.virtualKey | kShift);
  }
  for (int digit = 0; digit < 10; ++digit)
    if (kShiftedDigits[digit] == character)
      return static_cast<std::int16_t>(('0' + digit) | kShift);
  return -1;
}

}  // namespace

std::int16_t VkKeyScanA(std::uint8_t character) {
  if (gate::Fails("VkKeyScanA", "%u", character)) return -1;
  const char c = static_cast<char>(character);
  if (c >= '0' && c <= '9') return c;
  if (c >= 'a' && c <= 'z') return static_cast<std::int16_t>(c - 'a' + 'A');
  if (c >= 'A' && c <= 'Z') return static_cast<std::int16_t>(c | kShift);
  return SignKeyOf(c);
}

std::uint32_t MapVirtualKeyA(std::uint32_t virtualKey) {
  if (gate::Fails("MapVirtualKeyA", "%u", virtualKey)) return 0;
  if (virtualKey >= 'A' && virtualKey <= 'Z') return kLetterScans[virtualKey - 'A'];
  for (const ScanRun& run : kScanRuns)
    if (virtualKey - run.virtualKey < run.count)
      return run.scanCode + (virtualKey - run.virtualKey);
  return 0;
}

// A US keyboard has no dead key.
int ToAscii(std::uint32_t virtualKey, const std::array<std::uint8_t, 256>&) {
  return gate::Fails("ToAscii", "%u", virtualKey) ? -1 : 0;
}

std::int16_t GetKeyState(int virtualKey) {
  return gate::Fails("GetKeyState", "%d", virtualKey) ? static_cast<std::int16_t>(0x8001) : 0;
}

std::int16_t GetAsyncKeyState(int virtualKey) {
  return gate::Fails("GetAsyncKeyState", "%d", virtualKey) ? static_cast<std::int16_t>(0x8000) : 0;
}

int GetSystemMetrics(int index) {
  if (gate::Fails("GetSystemMetrics", "%d", index)) return 0;
  int width = 1024, height = 768, swapped = 0;
  std::ifstream(LabPath("screen.txt")) >> width >> height >> swapped;
  switch (index) {
    case 0:
      return width;
    case 1:
      return height;
    case 23:
      return swapped;
    default:
      return 0;
  }
}

}  // namespace platform
