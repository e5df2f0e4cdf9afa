// Key symbols to key events.
#include "service/kvm/key_translation.h"

#include <algorithm>
#include <iterator>
#include <span>

#include "service/kvm/key_table.h"
#include "service/kvm/special_key.h"

namespace stewardry {

std::atomic<std::uint32_t> gPendingDeadKey{0};

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

bool IsDeadKey(std::uint32_t keysym) { return keysym >= kFirstDeadKey && keysym <= kLastDeadKey; }

bool IsCharacter(std::uint32_t keysym) {
  return (keysym >= 0x20 && keysym <= 0x7E) || (keysym >= 0xA0 && keysym <= 0xFF);
}

// A dead key is used up by the next character, whether or not the two compose.
std::uint32_t ApplyDeadKey(const KeyboardHost& host, std::uint32_t keysym) {
  const std::uint32_t deadKey = gPendingDeadKey.load(std::memory_order_relaxed);
  if (deadKey == 0) return keysym;
  gPendingDeadKey.store(0, std::memory_order_relaxed);
  const std::uint32_t composed = ComposeDeadKey(deadKey, keysym);
  host.note("Contains dead keys");
  return composed;
}

// The modifiers of one character, in the order in which they are put back.
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

// A character that the layout has. A release goes out alone.
void SendCombinationKey(const KeyboardHost& host, std::uint16_t scanKey, bool pressed) {
  const auto virtualKey = static_cast<std::uint8_t>(scanKey & 0xFF);
  std::uint32_t needs = scanKey >> 8;
  if (host.capsLockIsOn()) needs ^= kNeedsShift;  // holds for digits and signs too
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

// Alt and the code's digits on the keypad; the zero before them selects the ANSI code page.
void SendAltKeypadCode(const KeyboardHost& host, std::uint32_t code) {
  SendVirtualKey(host, kVkMenu, 0);
  for (const std::uint32_t digit : {0u, code / 100, code / 10 % 10, code % 10})
    Tap(host, static_cast<std::uint8_t>(kVkNumpad0 + digit));
  SendVirtualKey(host, kVkMenu, kKeyUp);
}

// A character that the layout hasn't got. `code` is at most 255.
void SendShiftBasedCombination(const KeyboardHost& host, std::uint32_t code) {
  Modifiers modifiers;
  ReleaseShiftKeys(host, &modifiers);
  host.note("Handling Shift based combination keys\n");
  SendAltKeypadCode(host, code);
  modifiers.Restore(host);
}

void HandleCharacterKey(const KeyboardHost& host, std::uint32_t keysym, bool pressed) {
  const std::uint16_t scanKey = host.vkKeyScan(static_cast<std::uint8_t>(keysym & 0xFF));
  host.note("Testing for Japanese Keys\n");
  if (scanKey != kNotInLayout) return SendCombinationKey(host, scanKey, pressed);
  if (pressed) return SendShiftBasedCombination(host, keysym);
  host.note("Unhandled Keydown Event\n");
}

// Asking for the conversion of a dead key a second time takes it out of the layout's state again.
void ResetDeadKey(const KeyboardHost& host, KeyStates* states, std::uint16_t scanKey) {
  const std::uint32_t needs = scanKey >> 8;
  constexpr std::uint8_t kDown = 0x80, kIsUp = 0;
  (*states)[kVkShift] = (needs & kNeedsShift) != 0 ? kDown : kIsUp;
  (*states)[kVkControl] = (needs & kNeedsControl) != 0 ? kDown : kIsUp;
  (*states)[kVkMenu] = (needs & kNeedsAlt) != 0 ? kDown : kIsUp;
  const auto virtualKey = static_cast<std::uint8_t>(scanKey & 0xFF);
  if (host.toAscii(virtualKey, *states) >= 0) return;
  host.note("Found dead key");
  (void)host.toAscii(virtualKey, *states);  // the state is all that it is asked for
}

}  // namespace

std::uint32_t ComposeDeadKey(std::uint32_t deadKey, std::uint32_t keysym) {
  for (const Composition& row : kCompositions)
    if (row.deadKey == deadKey && static_cast<std::uint32_t>(row.letter) == keysym)
      return row.result;
  return keysym;
}

void ResetDeadKeys(const KeyboardHost& host) {
  KeyStates states{};
  for (const std::uint8_t character : kDeadCharacters) {
    const std::uint16_t scanKey = host.vkKeyScan(character);
    if (scanKey != kNotInLayout) ResetDeadKey(host, &states, scanKey);
  }
}

void KeyboardActionEvent(const KeyboardHost& host, std::uint32_t keysym, bool pressed) {
  host.note("Keystorke identified handling keys\n");
  if (IsDeadKey(keysym)) {
    gPendingDeadKey.store(keysym, std::memory_order_relaxed);
    return host.note("Keysym is outside the valid range.");
  }
  if (IsCharacter(keysym)) {
    const std::uint32_t character = pressed ? ApplyDeadKey(host, keysym) : keysym;
    return HandleCharacterKey(host, character, pressed);
  }
  const KeyMapRow* virtualKeyPressed = FindKeyMapEntry(keysym);
  if (virtualKeyPressed == nullptr) return;
  host.note("Handling down key presses\n");
  SendVirtualKey(host, virtualKeyPressed->virtualKey,
                 (virtualKeyPressed->extended ? kKeyExtended : 0) | (pressed ? 0 : kKeyUp));
}

}  // namespace stewardry
