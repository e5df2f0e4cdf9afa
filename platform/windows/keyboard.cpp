#include "platform/keyboard.h"

#include "platform/windows/runtime/windows_api.h"

namespace platform {

static_assert(kVkShift == VK_SHIFT && kVkControl == VK_CONTROL && kVkMenu == VK_MENU &&
              kVkCapital == VK_CAPITAL && kVkSpace == VK_SPACE && kVkLeftWindows == VK_LWIN &&
              kVkNumpad0 == VK_NUMPAD0 && kVkLeftShift == VK_LSHIFT && kVkRightShift == VK_RSHIFT &&
              kVkLeftControl == VK_LCONTROL && kVkLeftMenu == VK_LMENU);
static_assert(kKeyExtended == KEYEVENTF_EXTENDEDKEY && kKeyUp == KEYEVENTF_KEYUP);
static_assert(kMouseMove == MOUSEEVENTF_MOVE && kMouseLeftDown == MOUSEEVENTF_LEFTDOWN &&
              kMouseLeftUp == MOUSEEVENTF_LEFTUP && kMouseRightDown == MOUSEEVENTF_RIGHTDOWN &&
              kMouseRightUp == MOUSEEVENTF_RIGHTUP && kMouseMiddleDown == MOUSEEVENTF_MIDDLEDOWN &&
              kMouseMiddleUp == MOUSEEVENTF_MIDDLEUP && kMouseWheel == MOUSEEVENTF_WHEEL &&
              kMouseAbsolute == MOUSEEVENTF_ABSOLUTE && kWheelDelta == WHEEL_DELTA);
static_assert(kScreenWidth == SM_CXSCREEN && kScreenHeight == SM_CYSCREEN &&
              kSwapButton == SM_SWAPBUTTON);

std::int16_t VkKeyScanA(std::uint8_t character) {
  return ::VkKeyScanA(static_cast<char>(character));
}

std::uint32_t MapVirtualKeyA(std::uint32_t virtualKey) {
  return ::MapVirtualKeyA(virtualKey, MAPVK_VK_TO_VSC);
}

int ToAscii(std::uint32_t virtualKey, const std::array<std::uint8_t, 256>& states) {
  WORD characters = 0;
  return ::ToAscii(virtualKey, 0, states.data(), &characters, 0);
}

std::int16_t GetKeyState(int virtualKey) { return ::GetKeyState(virtualKey); }

std::int16_t GetAsyncKeyState(int virtualKey) { return ::GetAsyncKeyState(virtualKey); }

int GetSystemMetrics(int index) { return ::GetSystemMetrics(index); }

}  // namespace platform
