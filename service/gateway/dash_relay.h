// The DASH relay: passes the bytes of one HTTPS connection between its socket and the firmware,
// unchanged. There is one connection at a time; a new one replaces it. The listen and connection
// callbacks run on the server thread, WriteDASHRXdata on the reader thread.
//
// Invariants of the slot (DashSlot in gateway_state.h):
// 1. Only the server thread writes the slot. Only it closes and frees what the slot holds.
// 2. At open the socket is stored before the state, at close the state before the socket: a thread
//    that loads state 1 finds a socket.
// 3. A socket is closed only after the slot is clear and the reader thread has no write on it under
//    way. So the writer never meets a socket number that has been reused for another connection.
#pragma once

#include <cstdint>

#include "sock/selector.h"

namespace stewardry {

// The selector callback of the listener on port 664. Returns non-zero to keep the listener.
std::uint8_t ListenHTTPSCallback(Selector* sel, Handler* handler, std::uint32_t mask,
                                 std::uint64_t currentTimeUsec);

// The selector callback of the connection. Returns non-zero to keep it.
std::uint8_t HTTPSCallback(Selector* sel, Handler* handler, std::uint32_t mask,
                           std::uint64_t currentTimeUsec);

// Writes `length` bytes from the firmware to the current connection, once, then carries out a
// pending power option. Logs and drops what the socket does not take. The reader thread.
void WriteDASHRXdata(const std::uint8_t* data, std::uint32_t length);

}  // namespace stewardry
