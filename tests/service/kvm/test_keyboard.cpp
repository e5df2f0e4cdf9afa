// A keyboard in memory.
#include "tests/service/kvm/test_keyboard.h"

#include <cstdio>

namespace stewardry {

namespace {

TestKeyboard* gKeyboard;

std::uint16_t Scan(std::uint8_t virtualKey, std::uint32_t modifiers) {
  return static_cast<std::uint16_t>(virtualKey | modifiers << 8);
}

}  // namespace

struct TestKeyboardHost {
  static std::uint16_t VkKeyScan(std::uint8_t character) {
    if (character >= 'a' && character <= 'z')
      return Scan(static_cast<std::uint8_t>(character - 'a' + 'A'), 0);
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

TestKeyboard::TestKeyboard(const Layout& layout) : layout_(layout) {
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

const Layout& UsLayout() {
  static const Layout layout = {
      {0x20, ' ', 0, 0},   {0x30, '0', ')', 0},  {0x31, '1', '!', 0}, {0x32, '2', '@', 0},
      {0x33, '3', '#', 0}, {0x34, '4', '$', 0},  {0x35, '5', '%', 0}, {0x36, '6', '^', 0},
      {0x37, '7', '&', 0}, {0x38, '8', '*', 0},  {0x39, '9', '(', 0}, {0xBA, ';', ':', 0},
      {0xBB, '=', '+', 0}, {0xBC, ',', '<', 0},  {0xBD, '-', '_', 0}, {0xBE, '.', '>', 0},
      {0xBF, '/', '?', 0}, {0xC0, '`', '~', 0},  {0xDB, '[', '{', 0}, {0xDC, '\\', '|', 0},
      {0xDD, ']', '}', 0}, {0xDE, '\'', '"', 0},
  };
  return layout;
}

const Layout& GermanLayout() {
  static const Layout layout = {
      {0x20, ' ', 0, 0},       {0x30, '0', '=', '}'},   {0x31, '1', '!', 0},
      {0x32, '2', '"', 0xB2},  {0x33, '3', 0xA7, 0xB3}, {0x34, '4', '$', 0},
      {0x35, '5', '%', 0},     {0x36, '6', '&', 0},     {0x37, '7', '/', '{'},
      {0x38, '8', '(', '['},   {0x39, '9', ')', ']'},   {0x51, 0, 0, '@'},
      {0xBA, 0xFC, 0xDC, 0},   {0xBB, '+', '*', '~'},   {0xBC, ',', ';', 0},
      {0xBD, '-', '_', 0},     {0xBE, '.', ':', 0},     {0xBF, '#', '\'', 0},
      {0xC0, 0xF6, 0xD6, 0},   {0xDB, 0xDF, '?', '\\'}, {0xDC, '^', 0xB0, 0, 1},
      {0xDD, 0xB4, '`', 0, 3}, {0xDE, 0xE4, 0xC4, 0},   {0xE2, '<', '>', '|'},
  };
  return layout;
}

const Layout& FrenchLayout() {
  static const Layout layout = {
      {0x20, ' ', 0, 0},         {0x30, 0xE0, '0', '@'},  {0x31, '&', '1', 0},
      {0x32, 0xE9, '2', '~', 4}, {0x33, '"', '3', '#'},   {0x34, '\'', '4', '{'},
      {0x35, '(', '5', '['},     {0x36, '-', '6', '|'},   {0x37, 0xE8, '7', '`', 4},
      {0x38, '_', '8', '\\'},    {0x39, 0xE7, '9', 0},    {0xBA, '$', 0xA3, 0xA4},
      {0xBB, '=', '+', '}'},     {0xBC, ',', '?', 0},     {0xBE, ';', '.', 0},
      {0xBF, ':', '/', 0},       {0xC0, 0xF9, '%', 0},    {0xDB, ')', 0xB0, ']'},
      {0xDC, '*', 0xB5, 0},      {0xDD, '^', 0xA8, 0, 3}, {0xDF, '!', 0xA7, 0},
      {0xE2, '<', '>', 0},
  };
  return layout;
}

}  // namespace stewardry
