// A keyboard in memory: a layout as a table, key states that a test sets, and the sent events as
// text.
#pragma once

#include <cstdint>
#include <cstdio>
#include <initializer_list>
#include <set>
#include <span>
#include <string>

#include "service/kvm/key_translation.h"
#include "service/kvm/kvm_state.h"

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

// One at a time: all members are static, since a KeyboardHost has no context pointer.
class TestKeyboard {
 public:
  explicit TestKeyboard(Layout layout) {
    layout_ = layout;
    down.clear();
    notes.clear();
    capsLock = false;
    deadInLayout = 0;
    gKvm->gPendingDeadKey.store(0);
  }
  // Translates symbols: a press each, or a release where it is negative. Returns the events:
  // virtual keys in hex with '+' for a press and '-' for a release, "x+" and "x-" for extended
  // ones.
  static std::string Type(std::initializer_list<std::int32_t> keysyms) {
    events_.clear();
    for (const std::int32_t keysym : keysyms) {
      ResetDeadKeys(kHost);
      KeyboardActionEvent(kHost, static_cast<std::uint32_t>(keysym < 0 ? -keysym : keysym),
                          keysym > 0);
    }
    return events_;
  }

  static inline std::set<std::uint8_t> down;  // keys that the host's own state has down
  static inline bool capsLock;
  static inline std::string notes;
  static inline int deadInLayout;  // dead keys that wait in the layout's conversion state

 private:
  static std::uint16_t VkKeyScan(std::uint8_t character) {
    const auto scan = [](int key, int modifiers) {
      return static_cast<std::uint16_t>(key | modifiers << 8);
    };
    if (character >= 'a' && character <= 'z') return scan(character - 'a' + 'A', 0);
    if (character >= 'A' && character <= 'Z') return scan(character, 1);
    for (const LayoutKey& key : layout_) {
      if (character == key.plain) return scan(key.virtualKey, 0);
      if (character == key.shifted) return scan(key.virtualKey, 1);
      if (character == key.altGr) return scan(key.virtualKey, 6);
    }
    return 0xFFFF;
  }
  static int ToAscii(std::uint8_t virtualKey, const KeyStates& states) {
    const int level = states[0x11] != 0 && states[0x12] != 0 ? 4 : states[0x10] != 0 ? 2 : 1;
    for (const LayoutKey& key : layout_) {
      if (key.virtualKey != virtualKey || (key.dead & level) == 0) continue;
      // The second of two dead keys comes out with the first as two characters.
      deadInLayout = 1 - deadInLayout;
      return deadInLayout == 1 ? -1 : 2;
    }
    return 1;
  }
  static void Send(std::uint8_t virtualKey, std::uint8_t scanCode, std::uint32_t flags) {
    char text[64];
    std::snprintf(text, sizeof text, "%s%02X%s%c%s%s", events_.empty() ? "" : " ", virtualKey,
                  (flags & kKeyExtended) != 0 ? "x" : "", (flags & kKeyUp) != 0 ? '-' : '+',
                  scanCode != (virtualKey ^ 0x80) ? "(another scan code)" : "",
                  (flags & ~(kKeyExtended | kKeyUp)) != 0 ? "(unknown flags)" : "");
    events_ += text;
  }

  static inline Layout layout_;
  static inline std::string events_;

 public:
  static constexpr KeyboardHost kHost = {
      VkKeyScan,
      [](std::uint8_t key) { return static_cast<std::uint8_t>(key ^ 0x80); },
      ToAscii,
      [] { return capsLock; },
      [](std::uint8_t key) { return down.contains(key); },
      Send,
      [](const char* line) { notes += line; },
  };
};

}  // namespace stewardry
