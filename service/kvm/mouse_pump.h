// The mouse pump: the thread that empties the ring of pointer states into the agent. A state says
// how things are, a mouse event what has changed; so each entry is compared with the one before.
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

// The last entry that was sent. It outlives the session: a button that was down at the end of one
// goes up with the first entry of the next that has it up. The mouse pump's thread alone touches
// it, and sessions follow one another.
extern mouseBufferRingData gLastMouseRingData;

// Adds to *flags what has changed from gLastMouseRingData to `entry`, and gives the wheel amount.
// `swapped()` tells whether the host has the left and right buttons swapped; it is asked only when
// one of them has changed.
std::int32_t TranslateMouseButtons(std::uint32_t* flags, const mouseBufferRingData& entry,
                                   bool (*swapped)());

// The message of one entry on a screen of that size, both above 1. The arithmetic is the 32-bit one
// of the message: a coordinate beyond any screen wraps, and harms nothing but the pointer's place.
mouseInfo TranslateMouseEntry(const mouseBufferRingData& entry, std::int32_t width,
                              std::int32_t height, bool (*swapped)());

// A session's thread: polls the mouse ring and sends one message for each entry until
// gStopMouseThread is set. Gives 1, at once if there is no ring or the screen has no size. The
// parameter is not used.
std::uint32_t ProcessMouseEvents(void* parameter);

}  // namespace stewardry
