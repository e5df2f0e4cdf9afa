// The keyboard pump: the thread that passes the key symbols of the ring to the agent.
#pragma once

#include <cstdint>

namespace stewardry {

// The message to the agent, the four values of a keybd_event call; little-endian.
struct keyInfo {
  std::uint32_t bVk;          // virtual key, 0 to 255
  std::uint32_t bScan;        // scan code, 0 to 255
  std::uint32_t dwFlags;      // 1 KEYEVENTF_EXTENDEDKEY, 2 KEYEVENTF_KEYUP
  std::uint32_t dwExtraInfo;  // 0
};
static_assert(sizeof(keyInfo) == 16);

// A session's thread: polls the keyboard ring and translates each entry until gKeyboardThread is
// asked to stop. Returns 0, at once if there is no ring. The parameter is not used.
std::uint32_t ProcessKeyboardEvents(void* parameter);

// Sends a key event to the agent, unless the host's own left Alt, left Control or left Windows key
// is down. The keyboard thread.
void Keyboard_UNICODE_Event(std::uint8_t virtualKey, std::uint8_t scanCode, std::uint32_t flags,
                            std::uint64_t extraInfo);

}  // namespace stewardry
