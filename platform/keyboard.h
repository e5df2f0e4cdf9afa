// The keyboard layout and the state of its keys, and the screen. On Linux a plain US keyboard with
// all keys up stands in.
#pragma once

#include <array>
#include <cstdint>

namespace platform {

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

// GetSystemMetrics with SM_CXSCREEN (0), SM_CYSCREEN (1) or SM_SWAPBUTTON (23).
int GetSystemMetrics(int index);

}  // namespace platform
