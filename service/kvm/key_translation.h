// From a key symbol (what a key means, in X's numbering, as RFB carries it) to key events (which
// keys are hit). Pure logic: whatever it asks of the keyboard layout, tells the agent or writes to
// a log goes through the KeyboardHost that it is given, so that any layout can be tried anywhere.
//
// A symbol takes one of four roads: a dead key is remembered; a character is looked up in the
// layout, and gets the modifiers that the layout wants around it, or is entered as a code on the
// keypad if the layout hasn't got it; another key comes out of the key table; the rest is dropped.
#pragma once

#include <array>
#include <atomic>
#include <cstdint>

#include "platform/keyboard.h"

namespace stewardry {

// The flags of a key event.
using platform::kKeyExtended;
using platform::kKeyUp;

using KeyStates = std::array<std::uint8_t, 256>;

// What the translation asks and tells. Called on its own thread only; all members are set.
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
  // One line of the side log, with whatever line end it has.
  void (*note)(const char* line);
};

// The last dead key not yet used, 0 if none. It lives as long as the process: a dead key pressed as
// the last thing in a session waits for the first character of the next. The keyboard pump's thread
// alone touches it, and sessions follow one another; relaxed.
extern std::atomic<std::uint32_t> gPendingDeadKey;

// Translates one key symbol, pressed or released, and sends the events. The keyboard pump's thread.
// Two switches that such a translation could have aren't offered, since nothing would set them:
// Japanese key positions, and unknown symbols handed to the agent as they are. A viewer's
// Ctrl+Alt+Del travels as the three keys that it is and starts nothing here.
void KeyboardActionEvent(const KeyboardHost& host, std::uint32_t keysym, bool pressed);

// Takes any dead key out of the layout's conversion state, which would otherwise change what the
// next character looks like to ToAscii. Before every ring entry.
void ResetDeadKeys(const KeyboardHost& host);

// What a dead key makes of a letter: the code of the marked letter in ISO 8859-1, or the keysym
// itself if the two don't compose.
std::uint32_t ComposeDeadKey(std::uint32_t deadKey, std::uint32_t keysym);

}  // namespace stewardry
