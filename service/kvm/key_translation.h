// Translates a key symbol (the meaning of a key, in X's numbering, as RFB carries it) into key
// events (the keys to press). Uses the keyboard layout, the agent and the log only through the
// KeyboardHost argument, so that any layout can be tested on any platform.
//
// A symbol is one of four kinds. A dead key is stored. A character is looked up in the layout and
// sent with the modifiers that the layout requires, or typed as a code on the keypad if the layout
// does not have it. Another key comes from the key table. The rest is dropped.
#pragma once

#include <array>
#include <cstdint>

#include "platform/keyboard.h"

namespace stewardry {

// The flags of a key event.
using platform::kKeyExtended;
using platform::kKeyUp;

using KeyStates = std::array<std::uint8_t, 256>;

// What the translation uses of its host. Called on its own thread only; no member is null.
struct KeyboardHost {
  // VkKeyScanA: the virtual key in the low byte; in the high byte 1 for Shift, 2 for Ctrl, 4 for
  // Alt; 0xFFFF if the layout has no such character.
  std::uint16_t (*vkKeyScan)(std::uint8_t character);
  // MapVirtualKeyA with MAPVK_VK_TO_VSC: the scan code.
  std::uint8_t (*scanCode)(std::uint8_t virtualKey);
  // ToAscii with scan code and flags 0: negative if the key is a dead key of the layout.
  int (*toAscii)(std::uint8_t virtualKey, const KeyStates& states);
  // GetKeyState(VK_CAPITAL), bit 0.
  bool (*capsLockIsOn)();
  // GetAsyncKeyState, bit 15.
  bool (*isDown)(std::uint8_t virtualKey);
  void (*send)(std::uint8_t virtualKey, std::uint8_t scanCode, std::uint32_t flags);
  // Writes one line to the side log, with the line end that it has.
  void (*note)(const char* line);
};

// Translates one key symbol, pressed or released, and sends the events. The keyboard thread. There
// is no switch for Japanese key positions or for sending unknown symbols unchanged: nothing would
// set it. A viewer's Ctrl+Alt+Del is sent as three keys and has no effect here.
void KeyboardActionEvent(const KeyboardHost& host, std::uint32_t keysym, bool pressed);

// Takes any dead key out of the layout's conversion state, which would otherwise change how ToAscii
// converts the next character. Before every ring entry.
void ResetDeadKeys(const KeyboardHost& host);

// Returns the code of the letter with the dead key's mark in ISO 8859-1, or the keysym itself if
// the two do not compose.
std::uint32_t ComposeDeadKey(std::uint32_t deadKey, std::uint32_t keysym);

// A modifier key that is pressed or released around a character and restored afterwards.
struct SpecialKey {
  std::int32_t virtualKey;
  std::uint32_t flags;  // added to each event
  bool pressed;         // this record has pressed the key
  bool released;        // this record has released the key
};

// Sets a record that has done nothing yet.
void SpecialKey_Init(SpecialKey* key, std::int32_t virtualKey);
// Presses the key if it is up. A key already down stays untouched, so it is not released later.
void SpecialKey_Press(const KeyboardHost& host, SpecialKey* key);
// Releases the key if it is down.
void SpecialKey_Release(const KeyboardHost& host, SpecialKey* key);
// Undoes what the record has done, if anything.
void SpecialKey_Restore(const KeyboardHost& host, const SpecialKey& key);

}  // namespace stewardry
