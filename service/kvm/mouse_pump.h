// The mouse pump: the thread that passes the pointer states of the ring to the agent. A mouse event
// holds only changes, so each entry is compared with the one before.
#pragma once

#include <cstdint>

#include "service/kvm/shared_region.h"

namespace stewardry {

// The message to the agent, the four values of a mouse_event call; little-endian.
struct mouseInfo {
  std::uint32_t flags;  // platform::MouseEventFlag
  std::uint32_t dx;     // 0 to 65535 over the screen's width
  std::uint32_t dy;     // 0 to 65535 over its height
  std::int32_t dwData;  // wheel: platform::kWheelDelta up, its negative down, 0 none
};
static_assert(sizeof(mouseInfo) == 16);

// Adds to *flags what has changed from gLastMouseRingData to `entry`, and returns the wheel amount.
// `swapped()` returns whether the host has the left and right buttons swapped; it is called only
// when one of them has changed.
std::int32_t TranslateMouseButtons(std::uint32_t* flags, const mouseBufferRingData& entry,
                                   bool (*swapped)());

// Returns the message of one entry on a screen of that size. Requires both above 1. The arithmetic
// has 32 bits, as the message: a coordinate beyond any screen wraps, and only misplaces the
// pointer.
mouseInfo TranslateMouseEntry(const mouseBufferRingData& entry, std::int32_t width,
                              std::int32_t height, bool (*swapped)());

// A session's thread: polls the mouse ring and sends one message for each entry until gMouseThread
// is asked to stop. Returns 1, at once if there is no ring or the screen has no size. The parameter
// is not used.
std::uint32_t ProcessMouseEvents(void* parameter);

}  // namespace stewardry
