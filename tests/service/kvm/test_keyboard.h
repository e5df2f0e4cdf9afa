// A keyboard in memory: a layout as a table, key states that a test sets, and the events that came
// out as text.
#pragma once

#include <cstdint>
#include <set>
#include <span>
#include <string>

#include "service/kvm/key_translation.h"

namespace stewardry {

// One key of a layout: its characters plain, with Shift and with AltGr (0: none), in the ANSI code
// page. `dead` says which of the three are dead keys (bits 0, 1, 2).
struct LayoutKey {
  std::uint8_t virtualKey, plain, shifted, altGr, dead = 0;
};

// The signs and digits of a layout that tests type; letters are the same on all.
using Layout = std::span<const LayoutKey>;
inline constexpr LayoutKey kUsLayout[] = {
    {0x20, ' ', 0, 0}, {0x31, '1', '!', 0}, {0x36, '6', '^', 0}, {0xC0, '`', '~', 0}};
inline constexpr LayoutKey kGermanLayout[] = {{0x20, ' ', 0, 0},       {0x37, '7', '/', '{'},
                                              {0x51, 0, 0, '@'},       {0xBA, 0xFC, 0xDC, 0},
                                              {0xDC, '^', 0xB0, 0, 1}, {0xDD, 0xB4, '`', 0, 3}};
inline constexpr LayoutKey kFrenchLayout[] = {{0x20, ' ', 0, 0},         {0x31, '&', '1', 0},
                                              {0x32, 0xE9, '2', '~', 4}, {0x33, '"', '3', '#'},
                                              {0x37, 0xE8, '7', '`', 4}, {0xDD, '^', 0xA8, 0, 3}};

// One at a time: a KeyboardHost has no place for a pointer.
class TestKeyboard {
 public:
  explicit TestKeyboard(Layout layout);
  TestKeyboard(const TestKeyboard&) = delete;
  ~TestKeyboard();

  const KeyboardHost& Host() const;
  // Translates symbols: a press each, or a release where it is negative. Returns what came out:
  // virtual keys in hex with '+' for a press and '-' for a release, "x+" and "x-" for extended
  // ones.
  std::string Type(std::initializer_list<std::int32_t> keysyms);

  std::set<std::uint8_t> down;  // keys that the host's own state has down
  bool capsLock = false;
  std::string notes;
  int deadInLayout = 0;  // dead keys that wait in the layout's conversion state

 private:
  friend struct TestKeyboardHost;
  const Layout layout_;
  std::string events_;
};

}  // namespace stewardry
