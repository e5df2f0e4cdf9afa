#include "service/kvm/keyboard_pump.h"

#include "platform/keyboard.h"
#include "service/diagnostics/side_log.h"
#include "service/kvm/agent.h"
#include "service/kvm/key_translation.h"
#include "service/kvm/kvm_state.h"
#include "service/kvm/pump_pace.h"
#include "service/kvm/shared_region.h"

namespace stewardry {

namespace {

constexpr int kHostModifiers[] = {platform::kVkLeftMenu, platform::kVkLeftControl,
                                  platform::kVkLeftWindows};

void Note(const char* line) { SideLog(kSideLogKeyboardMouse, "%s", line); }

bool IsHostModifierDown() {
  for (const int key : kHostModifiers)
    if ((platform::GetKeyState(key) & 0xFF00) != 0) return true;
  return false;
}

constexpr KeyboardHost kHost = {
    [](std::uint8_t character) {
      return static_cast<std::uint16_t>(platform::VkKeyScanA(character));
    },
    [](std::uint8_t key) { return static_cast<std::uint8_t>(platform::MapVirtualKeyA(key)); },
    [](std::uint8_t key, const KeyStates& states) { return platform::ToAscii(key, states); },
    [] { return (platform::GetKeyState(platform::kVkCapital) & 1) != 0; },
    [](std::uint8_t key) { return (platform::GetAsyncKeyState(key) & 0x8000) != 0; },
    [](std::uint8_t key, std::uint8_t scanCode, std::uint32_t flags) {
      Keyboard_UNICODE_Event(key, scanCode, flags, 0);
    },
    Note,
};

void HandleEntry(std::uint32_t entry) {
  ResetDeadKeys(kHost);
  KeyboardActionEvent(kHost, entry & 0xFFFF, (entry & 0x80000000) != 0);
  Note("keyEvent start\n");
}

}  // namespace

void Keyboard_UNICODE_Event(std::uint8_t virtualKey, std::uint8_t scanCode, std::uint32_t flags,
                            std::uint64_t) {
  Note("Keyboard_UNICODE_Eventreached\n");
  if (IsHostModifierDown()) {
    Note("not calling keybd_event\n");
    return;
  }
  Note("before setting Keystroke event\n");
  const keyInfo message{virtualKey, scanCode, flags, 0};
  WriteToAgentPipe(kAgentKeyboardPipe, &message, sizeof message);
  Note("after  setting Keystroke event\n");
}

std::uint32_t ProcessKeyboardEvents(void*) {
  auto* ring = reinterpret_cast<KeyboardRing*>(
      gKvm->KeyBoardBufferVirtualAddress.load(std::memory_order_relaxed));
  if (ring == nullptr) {
    SideLog(kSideLogKeyboardMouse, "%s: Keyboard buffer not initialized. Exiting the thread\n",
            "ProcessKeyboardEvents");
    return 0;
  }
  RunPump(ring, gKvm->gKeyboardThread.StopFlag(), HandleEntry);
  return 0;
}

}  // namespace stewardry
