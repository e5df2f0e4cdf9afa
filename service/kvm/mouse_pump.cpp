#include "service/kvm/mouse_pump.h"

#include <cassert>

#include "platform/keyboard.h"
#include "service/kvm/agent.h"
#include "service/kvm/kvm_state.h"
#include "service/kvm/pump_pace.h"

namespace stewardry {

namespace {

using enum platform::MouseEventFlag;
using platform::kWheelDelta;

// Bits of an entry's mask.
enum : std::uint32_t { kLeft = 1, kMiddle = 2, kRight = 4, kWheelUp = 8, kWheelDown = 16 };

bool ButtonsAreSwapped() { return platform::GetSystemMetrics(platform::kSwapButton) != 0; }

struct ButtonFlags {
  std::uint32_t down, up;
};
constexpr ButtonFlags kLeftFlags = {kMouseLeftDown, kMouseLeftUp};
constexpr ButtonFlags kMiddleFlags = {kMouseMiddleDown, kMouseMiddleUp};
constexpr ButtonFlags kRightFlags = {kMouseRightDown, kMouseRightUp};

// Returns x * 65535 / (size - 1) in wrapping signed 32-bit arithmetic. The one quotient that does
// not fit, of the least number by -1, cannot occur: size is above 1.
std::uint32_t Scale(std::uint32_t pixels, std::int32_t size) {
  assert(size > 1);
  const auto product = static_cast<std::int32_t>(pixels * 65535u);
  return static_cast<std::uint32_t>(product / (size - 1));
}

}  // namespace

std::int32_t TranslateMouseButtons(std::uint32_t* flags, const mouseBufferRingData& entry,
                                   bool (*swapped)()) {
  const mouseBufferRingData& last = gKvm->gLastMouseRingData;
  const std::uint32_t changed = entry.buttonMask ^ last.buttonMask;
  const auto add = [&](std::uint32_t bit, const ButtonFlags& button) {
    *flags |= (entry.buttonMask & bit) != 0 ? button.down : button.up;
  };
  if (entry.x != last.x || entry.y != last.y) *flags |= kMouseMove;
  if ((changed & kLeft) != 0) add(kLeft, swapped() ? kRightFlags : kLeftFlags);
  if ((changed & kMiddle) != 0) add(kMiddle, kMiddleFlags);
  if ((changed & kRight) != 0) add(kRight, swapped() ? kLeftFlags : kRightFlags);
  // Each entry with a wheel bit is one notch: the wheel is not compared with the entry before.
  if ((entry.buttonMask & (kWheelUp | kWheelDown)) == 0) return 0;
  *flags |= kMouseWheel;
  return (entry.buttonMask & kWheelDown) != 0 ? -kWheelDelta : kWheelDelta;
}

mouseInfo TranslateMouseEntry(const mouseBufferRingData& entry, std::int32_t width,
                              std::int32_t height, bool (*swapped)()) {
  mouseInfo message{};
  message.flags = kMouseAbsolute;
  message.dwData = TranslateMouseButtons(&message.flags, entry, swapped);
  message.dx = Scale(entry.x, width);
  message.dy = Scale(entry.y, height);
  return message;
}

std::uint32_t ProcessMouseEvents(void*) {
  auto* ring =
      reinterpret_cast<MouseRing*>(gKvm->MouseBufferVirtualAddress.load(std::memory_order_relaxed));
  if (ring == nullptr) return 1;
  const int width = platform::GetSystemMetrics(platform::kScreenWidth);
  const int height = platform::GetSystemMetrics(platform::kScreenHeight);
  if (width <= 1 || height <= 1) return 1;
  const auto send = [&](const mouseBufferRingData& entry) {
    const mouseInfo message = TranslateMouseEntry(entry, width, height, ButtonsAreSwapped);
    WriteToAgentPipe(kAgentMousePipe, &message, sizeof message);
    gKvm->gLastMouseRingData = entry;
  };
  RunPump(ring, gKvm->gMouseThread.StopFlag(), send);
  return 1;
}

}  // namespace stewardry
