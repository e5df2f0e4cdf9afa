// The messages that the service sends to a KVM agent, in words. The lab depends on nothing of the
// service, so the layouts are repeated here.
#pragma once

#include <cstdint>
#include <span>
#include <string>

namespace lab_agent {

using Message = std::span<const std::uint8_t>;

// Describes a key: virtual key, scan code, flags, extra info, 32 bits each, little-endian; the
// arguments of a keybd_event call. "key 0x41 scan 0x1E press", "key 0x2E scan 0x53 extended
// release".
std::string DescribeKey(Message message);

// Describes a pointer event: flags, x, y, wheel amount; the arguments of a mouse_event call.
// "mouse 32784,120 move left-down", "mouse 0,0 wheel -120".
std::string DescribeMouse(Message message);

// Returns true for the order to exit.
bool IsTerminate(Message message);

}  // namespace lab_agent
