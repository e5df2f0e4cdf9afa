// The keyboard layout and the state of its keys, and the screen. On Linux a plain US keyboard with
// all keys up stands in.
#pragma once

#include <array>
#include <cstdint>

namespace platform {

// Virtual keys that the service names.
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

// The flags of a keybd_event and of a mouse_event, which the agent calls for the service.
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

// VkKeyScanA: the virtual key of a character in the low byte, the modifiers that it needs in the
// high byte (1 Shift, 2 Ctrl, 4 Alt); -1 if the layout has no such character.
std::int16_t VkKeyScanA(std::uint8_t character);

// MapVirtualKeyA(virtualKey, MAPVK_VK_TO_VSC): the scan code, 0 if there is none.
std::uint32_t MapVirtualKeyA(std::uint32_t virtualKey);

// ToAscii with scan code 0 and flags 0: how many characters `virtualKey` gives under `states` (256
// bytes of key state, bit 7 is down), negative for a dead key, which then waits in the layout's
// conversion state.
int ToAscii(std::uint32_t virtualKey, const std::array<std::uint8_t, 256>& states);

// GetKeyState: the state as the calling thread's input queue sees it; bit 15 down, bit 0 toggled.
std::int16_t GetKeyState(int virtualKey);
// GetAsyncKeyState: the state now; bit 15 down.
std::int16_t GetAsyncKeyState(int virtualKey);

constexpr int kScreenWidth = 0;   // SM_CXSCREEN
constexpr int kScreenHeight = 1;  // SM_CYSCREEN
constexpr int kSwapButton = 23;   // SM_SWAPBUTTON
// GetSystemMetrics of one of these.
int GetSystemMetrics(int index);

}  // namespace platform
