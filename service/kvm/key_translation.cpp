#include "service/kvm/key_translation.h"

#include <algorithm>
#include <cassert>
#include <iterator>
#include <span>

#include "service/kvm/key_table.h"
#include "service/kvm/kvm_state.h"

namespace stewardry {

namespace {

using enum platform::VirtualKey;

// The modifiers of VkKeyScanA's high byte.
enum : std::uint32_t { kNeedsShift = 1, kNeedsControl = 2, kNeedsAlt = 4 };

constexpr std::uint16_t kNotInLayout = 0xFFFF;

constexpr std::uint32_t kFirstDeadKey = 0xFE50;  // dead_grave
constexpr std::uint32_t kLastDeadKey = 0xFE60;   // dead_belowdot

// The characters of the dead keys that a layout may have: grave, acute, circumflex, diaeresis,
// degree, cedilla, tilde (ISO 8859-1).
constexpr std::uint8_t kDeadCharacters[] = {0x60, 0xB4, 0x5E, 0xA8, 0xB0, 0xB8, 0x7E};

struct Composition {
  std::uint32_t deadKey;
  char letter;
  std::uint8_t result;
};
constexpr Composition kCompositions[] = {
    // dead_grave
    {0xFE50, 'A', 0xC0},
    {0xFE50, 'E', 0xC8},
    {0xFE50, 'I', 0xCC},
    {0xFE50, 'O', 0xD2},
    {0xFE50, 'U', 0xD9},
    {0xFE50, 'a', 0xE0},
    {0xFE50, 'e', 0xE8},
    {0xFE50, 'i', 0xEC},
    {0xFE50, 'o', 0xF2},
    {0xFE50, 'u', 0xF9},
    // dead_acute
    {0xFE51, 'A', 0xC1},
    {0xFE51, 'E', 0xC9},
    {0xFE51, 'I', 0xCD},
    {0xFE51, 'O', 0xD3},
    {0xFE51, 'U', 0xDA},
    {0xFE51, 'Y', 0xDD},
    {0xFE51, 'a', 0xE1},
    {0xFE51, 'e', 0xE9},
    {0xFE51, 'i', 0xED},
    {0xFE51, 'o', 0xF3},
    {0xFE51, 'u', 0xFA},
    {0xFE51, 'y', 0xFD},
    // dead_circumflex
    {0xFE52, 'A', 0xC2},
    {0xFE52, 'E', 0xCA},
    {0xFE52, 'I', 0xCE},
    {0xFE52, 'O', 0xD4},
    {0xFE52, 'U', 0xDB},
    {0xFE52, 'a', 0xE2},
    {0xFE52, 'e', 0xEA},
    {0xFE52, 'i', 0xEE},
    {0xFE52, 'o', 0xF4},
    {0xFE52, 'u', 0xFB},
    // dead_tilde
    {0xFE53, 'A', 0xC3},
    {0xFE53, 'N', 0xD1},
    {0xFE53, 'O', 0xD5},
    {0xFE53, 'a', 0xE3},
    {0xFE53, 'n', 0xF1},
    {0xFE53, 'o', 0xF5},
    // dead_diaeresis
    {0xFE57, 'A', 0xC4},
    {0xFE57, 'E', 0xCB},
    {0xFE57, 'I', 0xCF},
    {0xFE57, 'O', 0xD6},
    {0xFE57, 'U', 0xDC},
    {0xFE57, 'a', 0xE4},
    {0xFE57, 'e', 0xEB},
    {0xFE57, 'i', 0xEF},
    {0xFE57, 'o', 0xF6},
    {0xFE57, 'u', 0xFC},
    {0xFE57, 'y', 0xFF},
    // dead_cedilla
    {0xFE5B, 'C', 0xC7},
    {0xFE5B, 'c', 0xE7},
};
static_assert(std::adjacent_find(std::begin(kCompositions), std::end(kCompositions),
                                 [](const Composition& a, const Composition& b) {
                                   return a.deadKey > b.deadKey ||
                                          (a.deadKey == b.deadKey && a.letter >= b.letter);
                                 }) == std::end(kCompositions));

bool IsDown(const KeyboardHost& host, const SpecialKey& key) {
  return key.virtualKey >= 0 && key.virtualKey <= 0xFF &&
         host.isDown(static_cast<std::uint8_t>(key.virtualKey));
}

// Sends one event of a key with its scan code. Logs a number that is no virtual key (0 to 255) and
// does not send it.
void SendVirtualKey(const KeyboardHost& host, std::int64_t virtualKey, std::uint32_t flags) {
  if (virtualKey < 0 || virtualKey > 0xFF) {
    host.note("Harmful Keysymbol received\n");
    return;
  }
  const auto key = static_cast<std::uint8_t>(virtualKey);
  host.send(key, host.scanCode(key), flags);
}

bool IsDeadKey(std::uint32_t keysym) { return keysym >= kFirstDeadKey && keysym <= kLastDeadKey; }

bool IsCharacter(std::uint32_t keysym) {
  return (keysym >= 0x20 && keysym <= 0x7E) || (keysym >= 0xA0 && keysym <= 0xFF);
}

// The next character uses the dead key up, whether or not the two compose.
std::uint32_t ApplyDeadKey(const KeyboardHost& host, std::uint32_t keysym) {
  const std::uint32_t deadKey = gKvm->gPendingDeadKey.load(std::memory_order_relaxed);
  if (deadKey == 0) return keysym;
  gKvm->gPendingDeadKey.store(0, std::memory_order_relaxed);
  const std::uint32_t composed = ComposeDeadKey(deadKey, keysym);
  host.note("Contains dead keys");
  return composed;
}

// The modifiers of one character, in the order in which they are restored.
struct Modifiers {
  SpecialKey control, alt, shift, leftShift, rightShift;

  Modifiers() {
    SpecialKey_Init(&control, kVkControl);
    SpecialKey_Init(&alt, kVkMenu);
    SpecialKey_Init(&shift, kVkShift);
    SpecialKey_Init(&leftShift, kVkLeftShift);
    SpecialKey_Init(&rightShift, kVkRightShift);
  }
  void Restore(const KeyboardHost& host) const {
    for (const SpecialKey* key : {&control, &alt, &shift, &leftShift, &rightShift})
      SpecialKey_Restore(host, *key);
  }
};

void ReleaseShiftKeys(const KeyboardHost& host, Modifiers* modifiers) {
  SpecialKey_Release(host, &modifiers->leftShift);
  SpecialKey_Release(host, &modifiers->rightShift);
}

void PressCombinationModifiers(const KeyboardHost& host, std::uint8_t virtualKey,
                               std::uint32_t needs, Modifiers* modifiers) {
  if ((needs & kNeedsControl) != 0) {
    host.note("Handling modifier 2\n");
    SpecialKey_Press(host, &modifiers->control);
  }
  if ((needs & kNeedsAlt) != 0) {
    host.note("Handling modifier 4\n");
    SpecialKey_Press(host, &modifiers->alt);
  }
  if ((needs & kNeedsShift) != 0) {
    host.note("Handling modifier 1\n");
    SpecialKey_Press(host, &modifiers->shift);
  } else if (virtualKey != kVkSpace) {
    // A character without Shift is sent with Shift up, even if the viewer holds it down.
    host.note("Handling non 0x20 combination key\n");
    ReleaseShiftKeys(host, modifiers);
  }
}

// Sends a character that the layout has. A release is sent without modifiers.
void SendCombinationKey(const KeyboardHost& host, std::uint16_t scanKey, bool pressed) {
  const auto virtualKey = static_cast<std::uint8_t>(scanKey & 0xFF);
  std::uint32_t needs = scanKey >> 8;
  if (host.capsLockIsOn()) needs ^= kNeedsShift;  // also for digits and signs
  Modifiers modifiers;
  if (pressed) PressCombinationModifiers(host, virtualKey, needs, &modifiers);
  host.note("Handling multiple Combination keys\n");
  SendVirtualKey(host, virtualKey, pressed ? 0 : kKeyUp);
  modifiers.Restore(host);
}

void Tap(const KeyboardHost& host, std::uint8_t virtualKey) {
  SendVirtualKey(host, virtualKey, 0);
  SendVirtualKey(host, virtualKey, kKeyUp);
}

// Types Alt and the code's digits on the keypad; the zero before them selects the ANSI code page.
void SendAltKeypadCode(const KeyboardHost& host, std::uint32_t code) {
  SendVirtualKey(host, kVkMenu, 0);
  for (const std::uint32_t digit : {0u, code / 100, code / 10 % 10, code % 10})
    Tap(host, static_cast<std::uint8_t>(kVkNumpad0 + digit));
  SendVirtualKey(host, kVkMenu, kKeyUp);
}

// Sends a character that the layout does not have. Requires a `code` of at most 255.
void SendShiftBasedCombination(const KeyboardHost& host, std::uint32_t code) {
  assert(code <= 0xFF);
  Modifiers modifiers;
  ReleaseShiftKeys(host, &modifiers);
  host.note("Handling Shift based combination keys\n");
  SendAltKeypadCode(host, code);
  modifiers.Restore(host);
}

void HandleCharacterKey(const KeyboardHost& host, std::uint32_t keysym, bool pressed) {
  const std::uint16_t scanKey = host.vkKeyScan(static_cast<std::uint8_t>(keysym & 0xFF));
  host.note("Testing for Japanese Keys\n");
  if (scanKey != kNotInLayout) {
    SendCombinationKey(host, scanKey, pressed);
  } else if (pressed) {
    SendShiftBasedCombination(host, keysym);
  } else {
    host.note("Unhandled Keydown Event\n");
  }
}

// A second conversion of a dead key takes it out of the layout's state again.
void ResetDeadKey(const KeyboardHost& host, KeyStates* states, std::uint16_t scanKey) {
  const std::uint32_t needs = scanKey >> 8;
  constexpr std::uint8_t kDown = 0x80, kIsUp = 0;
  (*states)[kVkShift] = (needs & kNeedsShift) != 0 ? kDown : kIsUp;
  (*states)[kVkControl] = (needs & kNeedsControl) != 0 ? kDown : kIsUp;
  (*states)[kVkMenu] = (needs & kNeedsAlt) != 0 ? kDown : kIsUp;
  const auto virtualKey = static_cast<std::uint8_t>(scanKey & 0xFF);
  if (host.toAscii(virtualKey, *states) >= 0) return;
  host.note("Found dead key");
  (void)host.toAscii(virtualKey, *states);  // only its effect on the state counts
}

}  // namespace

void SpecialKey_Init(SpecialKey* key, std::int32_t virtualKey) {
  assert(key != nullptr);
  *key = {virtualKey, 0, false, false};
}

void SpecialKey_Press(const KeyboardHost& host, SpecialKey* key) {
  if (IsDown(host, *key)) return;
  host.note("Special Key Pressed\n");
  SendVirtualKey(host, key->virtualKey, key->flags);
  key->pressed = true;
}

void SpecialKey_Release(const KeyboardHost& host, SpecialKey* key) {
  if (!IsDown(host, *key)) return;
  host.note("Special Key Released\n");
  SendVirtualKey(host, key->virtualKey, key->flags | kKeyUp);
  key->released = true;
}

void SpecialKey_Restore(const KeyboardHost& host, const SpecialKey& key) {
  if (key.pressed) {
    host.note("Special Key was earlier pressed now performing release\n");
    SendVirtualKey(host, key.virtualKey, key.flags | kKeyUp);
  } else if (key.released) {
    host.note("Special Key was earlier released now performing press\n");
    SendVirtualKey(host, key.virtualKey, key.flags);
  }
}

std::uint32_t ComposeDeadKey(std::uint32_t deadKey, std::uint32_t keysym) {
  for (const Composition& row : kCompositions)
    if (row.deadKey == deadKey && static_cast<std::uint32_t>(row.letter) == keysym)
      return row.result;
  return keysym;
}

void ResetDeadKeys(const KeyboardHost& host) {
  assert(host.vkKeyScan != nullptr && host.toAscii != nullptr && host.note != nullptr);
  KeyStates states{};
  for (const std::uint8_t character : kDeadCharacters) {
    const std::uint16_t scanKey = host.vkKeyScan(character);
    if (scanKey != kNotInLayout) ResetDeadKey(host, &states, scanKey);
  }
}

void KeyboardActionEvent(const KeyboardHost& host, std::uint32_t keysym, bool pressed) {
  assert(host.vkKeyScan != nullptr && host.scanCode != nullptr && host.capsLockIsOn != nullptr);
  assert(host.isDown != nullptr && host.send != nullptr && host.note != nullptr);
  host.note("Keystorke identified handling keys\n");
  if (IsDeadKey(keysym)) {
    gKvm->gPendingDeadKey.store(keysym, std::memory_order_relaxed);
    host.note("Keysym is outside the valid range.");
    return;
  }
  if (IsCharacter(keysym)) {
    HandleCharacterKey(host, pressed ? ApplyDeadKey(host, keysym) : keysym, pressed);
    return;
  }
  const KeyMapRow* virtualKeyPressed = FindKeyMapEntry(keysym);
  if (virtualKeyPressed == nullptr) return;
  host.note("Handling down key presses\n");
  SendVirtualKey(host, virtualKeyPressed->virtualKey,
                 (virtualKeyPressed->extended ? kKeyExtended : 0) | (pressed ? 0 : kKeyUp));
}

}  // namespace stewardry
