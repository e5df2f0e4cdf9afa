// The reader: the thread on which every firmware command arrives. It keeps ten reads outstanding
// on the device, dispatches each finished one, and arms its slot again.
#pragma once

#include <cstdint>

namespace stewardry {

// Bytes of one frame at most; one read is one frame.
constexpr std::uint32_t kFrameSize = 131072;

// The reader thread's entry; the parameter is not used. Ends, for good, when the device can't be
// opened or read, after a log line, or when it is asked to stop. Result 0.
std::uint32_t intThreadFunction(void* parameter);

// Asks the reader to leave and wakes it. It does so without another frame or line, once the handler
// that it is in, if any, has returned. For the rest of the process; the control handler's thread.
void AskReaderToStop();

}  // namespace stewardry
