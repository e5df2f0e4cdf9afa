// The KVM relay: passes the session's bytes between the viewer's socket and the firmware,
// unchanged. The two directions share only the socket: viewer to firmware runs on a KVM server
// thread, firmware to viewer on the reader thread. Each ends the whole session when its side has
// closed.
#pragma once

#include <cstdint>

#include "service/gateway/connection.h"
#include "sock/selector.h"

namespace stewardry {

// The port, log lines and message of a KVM connection.
extern const RelayKind kKvmRelay;

// The selector callback of the session's connection. Returns non-zero to keep it. A KVM server
// thread.
std::uint8_t KVMCallback(Selector* selector, Handler* handler, std::uint32_t mask,
                         std::uint64_t currentTimeUsec);

// Writes `length` bytes from the firmware, at most 131070, to the session's viewer. Repeats a send
// that moves nothing 100 times, 100 ms apart, and ends the session when all have failed. Drops what
// a partial send leaves, with "Fail" in its log line. The payload stays the caller's. The reader
// thread, which it may block for 10 seconds.
void WriteKVMRXdata(const std::uint8_t* payload, std::uint32_t length);

}  // namespace stewardry
