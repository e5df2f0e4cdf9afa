// A keyboard in memory.
#include "tests/service/kvm/test_keyboard.h"

#include <cstdio>

namespace stewardry {

namespace {

TestKeyboard* gKeyboard;

std::uint16_t Scan(int virtualKey, int modifiers) {
  return static_cast<std::uint16_t>(virtualKey | modifiers << 8);
}

}  // namespace

struct TestKeyboardHost {
  static std::uint16_t VkKeyScan(std::uint8_t character) {
    if (character >= 'a' && character <= 'z') return Scan(character - 'a' + 'A', 0);
    if (character >= 'A' && character <= 'Z') return Scan(character, 1);
    for (const LayoutKey& key : gKeyboard->layout_) {
      if (character == key.plain) return Scan(key.virtualKey, 0);
      if (character == key.shifted) return Scan(key.virtualKey, 1);
      if (character == key.altGr) return Scan(key.virtualKey, 6);
    }
    return 0xFFFF;
  }

  static int ToAscii(std::uint8_t virtualKey, const KeyStates& states) {
    const int level = states[0x11] != 0 && states[0x12] != 0 ? 4 : states[0x10] != 0 ? 2 : 1;
    for (const LayoutKey& key : gKeyboard->layout_) {
      if (key.virtualKey != virtualKey || (key.dead & level) == 0) continue;
      // The second of two dead keys comes out with the first as two characters.
      if (gKeyboard->deadInLayout > 0) return gKeyboard->deadInLayout = 0, 2;
      return gKeyboard->deadInLayout = 1, -1;
    }
    return 1;
  }

  static void Send(std::uint8_t virtualKey, std::uint8_t scanCode, std::uint32_t flags) {
    char text[40];
    std::snprintf(text, sizeof text, "%02X%s%c", virtualKey, (flags & kKeyExtended) != 0 ? "x" : "",
                  (flags & kKeyUp) != 0 ? '-' : '+');
    if (!gKeyboard->events_.empty()) gKeyboard->events_ += ' ';
    gKeyboard->events_ += text;
    if (scanCode != static_cast<std::uint8_t>(virtualKey ^ 0x80))
      gKeyboard->events_ += "(another key's scan code)";
    if ((flags & ~(kKeyExtended | kKeyUp)) != 0) gKeyboard->events_ += "(unknown flags)";
  }

  static constexpr KeyboardHost kHost = {
      VkKeyScan,
      [](std::uint8_t key) { return static_cast<std::uint8_t>(key ^ 0x80); },
      ToAscii,
      [] { return gKeyboard->capsLock; },
      [](std::uint8_t key) { return gKeyboard->down.contains(key); },
      Send,
      [](const char* line) { gKeyboard->notes += line; },
  };
};

TestKeyboard::TestKeyboard(Layout layout) : layout_(layout) {
  gKeyboard = this;
  gPendingDeadKey.store(0);
}

TestKeyboard::~TestKeyboard() { gKeyboard = nullptr; }

const KeyboardHost& TestKeyboard::Host() const { return TestKeyboardHost::kHost; }

std::string TestKeyboard::Type(std::initializer_list<std::int32_t> keysyms) {
  events_.clear();
  for (const std::int32_t keysym : keysyms) {
    ResetDeadKeys(Host());
    KeyboardActionEvent(Host(), static_cast<std::uint32_t>(keysym < 0 ? -keysym : keysym),
                        keysym > 0);
  }
  return events_;
}

}  // namespace stewardry
