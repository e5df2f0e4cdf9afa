// The KVM relay: the session's bytes between the viewer's socket and the firmware, untouched. The
// two directions run on two threads and share only the socket: viewer to firmware on a KVM server
// thread, firmware to viewer on the reader thread. Either ends the whole session when its side has
// gone.
#pragma once

#include <atomic>
#include <cstdint>

#include "service/gateway/connection.h"
#include "sock/selector.h"

namespace stewardry {

// Finished sends, and the sum of the sizes asked for, modulo 2^32, over all sessions of the
// process. Written by the reader thread alone; relaxed, each is only counted up and shown.
extern std::atomic<std::uint32_t> gKvmSendIndex;
extern std::atomic<std::uint32_t> gKvmOverallSize;

// The port, the words and the message of a KVM connection.
extern const RelayKind kKvmRelay;

// The selector callback of the session's connection. Non-zero keeps it. A KVM server thread.
std::uint8_t KVMCallback(Selector* selector, Handler* handler, std::uint32_t mask,
                         std::uint64_t currentTimeUsec);

// Writes `length` bytes from the firmware, at most 131070, to the session's viewer. A send that
// moves nothing is tried again 100 times, 100 ms apart, and the session ends when all have failed;
// what a send that moves a part leaves is lost, with "Fail" in its log line. The payload is the
// caller's. The reader thread, which it may hold up for 10 seconds.
void WriteKVMRXdata(const std::uint8_t* payload, std::uint32_t length);

}  // namespace stewardry
