// The keyboard layout, key states, the screen, and the numbers of input events. On Linux a US
// keyboard with all keys up.
#pragma once

#include <array>
#include <cstdint>

namespace platform {

// Virtual keys.
enum VirtualKey : std::uint8_t {
  kVkShift = 0x10,        // VK_SHIFT
  kVkControl = 0x11,      // VK_CONTROL
  kVkMenu = 0x12,         // VK_MENU
  kVkCapital = 0x14,      // VK_CAPITAL
  kVkSpace = 0x20,        // VK_SPACE
  kVkLeftWindows = 0x5B,  // VK_LWIN
  kVkNumpad0 = 0x60,      // VK_NUMPAD0
  kVkLeftShift = 0xA0,    // VK_LSHIFT
  kVkRightShift = 0xA1,   // VK_RSHIFT
  kVkLeftControl = 0xA2,  // VK_LCONTROL
  kVkLeftMenu = 0xA4,     // VK_LMENU
};

// The flags of keybd_event and mouse_event, which the agent calls.
constexpr std::uint32_t kKeyExtended = 1;  // KEYEVENTF_EXTENDEDKEY
constexpr std::uint32_t kKeyUp = 2;        // KEYEVENTF_KEYUP
enum MouseEventFlag : std::uint32_t {
  kMouseMove = 0x0001,        // MOUSEEVENTF_MOVE
  kMouseLeftDown = 0x0002,    // MOUSEEVENTF_LEFTDOWN
  kMouseLeftUp = 0x0004,      // MOUSEEVENTF_LEFTUP
  kMouseRightDown = 0x0008,   // MOUSEEVENTF_RIGHTDOWN
  kMouseRightUp = 0x0010,     // MOUSEEVENTF_RIGHTUP
  kMouseMiddleDown = 0x0020,  // MOUSEEVENTF_MIDDLEDOWN
  kMouseMiddleUp = 0x0040,    // MOUSEEVENTF_MIDDLEUP
  kMouseWheel = 0x0800,       // MOUSEEVENTF_WHEEL
  kMouseAbsolute = 0x8000,    // MOUSEEVENTF_ABSOLUTE
};
constexpr std::int32_t kWheelDelta = 120;  // WHEEL_DELTA, one notch

// Returns the virtual key of a character in the low byte and the modifiers that it needs in the
// high byte (1 Shift, 2 Ctrl, 4 Alt); -1 if the layout lacks the character.
std::int16_t VkKeyScanA(std::uint8_t character);

// Returns the scan code of a virtual key (MAPVK_VK_TO_VSC), 0 if there is none.
std::uint32_t MapVirtualKeyA(std::uint32_t virtualKey);

// Returns how many characters `virtualKey` produces under `states` (bit 7: down), negative for a
// dead key, which the layout's conversion state keeps (ToAscii with scan code 0 and flags 0).
int ToAscii(std::uint32_t virtualKey, const std::array<std::uint8_t, 256>& states);

// Returns the state in the calling thread's input queue; bit 15: down, bit 0: toggled.
std::int16_t GetKeyState(int virtualKey);
// Returns the present state; bit 15: down.
std::int16_t GetAsyncKeyState(int virtualKey);

constexpr int kScreenWidth = 0;   // SM_CXSCREEN
constexpr int kScreenHeight = 1;  // SM_CYSCREEN
constexpr int kSwapButton = 23;   // SM_SWAPBUTTON
// Returns one of these; 0 on failure.
int GetSystemMetrics(int index);

}  // namespace platform
