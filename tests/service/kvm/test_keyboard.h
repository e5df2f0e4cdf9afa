// A keyboard in memory: a layout as a table, key states that a test sets, and the events that came
// out as text.
#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "service/kvm/key_translation.h"

namespace stewardry {

// One key of a layout: its characters plain, with Shift and with AltGr (0: none), in the ANSI code
// page. `dead` says which of the three are dead keys (bits 0, 1, 2).
struct LayoutKey {
  std::uint8_t virtualKey;
  std::uint8_t plain, shifted, altGr;
  std::uint8_t dead = 0;
};

// The signs and digits of a layout; letters are the same on all.
using Layout = std::vector<LayoutKey>;
const Layout& UsLayout();
const Layout& GermanLayout();
const Layout& FrenchLayout();

// One at a time: the host that it gives has no place for a pointer.
class TestKeyboard {
 public:
  explicit TestKeyboard(const Layout& layout);
  TestKeyboard(const TestKeyboard&) = delete;
  ~TestKeyboard();

  const KeyboardHost& Host() const;
  // Translates symbols; a press each, or a release where it is negative. Gives what came out:
  // virtual keys in hex with '+' for a press and '-' for a release, "x+" and "x-" for extended
  // ones.
  std::string Type(std::initializer_list<std::int32_t> keysyms);

  std::set<std::uint8_t> down;  // keys that the host's own state has down
  bool capsLock = false;
  std::string notes;
  int deadInLayout = 0;  // dead keys that wait in the layout's conversion state

 private:
  friend struct TestKeyboardHost;
  const Layout& layout_;
  std::string events_;
};

}  // namespace stewardry
