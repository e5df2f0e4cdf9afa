// The keyboard layout, key states and the screen, of user32.
#include "platform/keyboard.h"

#include "platform/windows/runtime/windows_api.h"

namespace platform {

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
