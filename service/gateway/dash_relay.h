// The DASH relay: one HTTPS connection's bytes between its socket and the firmware, untouched.
// There is one connection at a time; a new one replaces it. The listen and connection callbacks run
// on the server thread, WriteDASHRXdata on the reader thread.
//
// Invariants:
// 1. The server thread alone writes the connection slot, and alone closes and frees what is in it.
// 2. At open the socket is stored before the state, at close the state before the socket: who sees
//    state 1 finds a socket.
// 3. A socket is closed only after the slot is clear and no write of the reader thread is under
//    way on it, so the writer never meets a socket number that has been given to somebody else.
#pragma once

#include <atomic>
#include <cstdint>

#include "sock/selector.h"

namespace stewardry {

// 0 before the first connection, 1 open, 2 closed. Stored with release after the socket, loaded
// with acquire before it; sequentially consistent against the writer's mark (invariant 3).
extern std::atomic<std::uint16_t> gHttpsSocketState;
// The current connection's socket, 0 when there is none.
extern std::atomic<Sock> gHttpsSocket;
// The current connection's handler; the server thread only.
extern Handler* gHttpsHandler;

// The selector callback of the listener on port 664. Non-zero keeps the listener.
std::uint8_t ListenHTTPSCallback(Selector* sel, Handler* handler, std::uint32_t mask,
                                 std::uint64_t currentTimeUsec);

// The selector callback of the connection. Non-zero keeps it.
std::uint8_t HTTPSCallback(Selector* sel, Handler* handler, std::uint32_t mask,
                           std::uint64_t currentTimeUsec);

// Writes `length` bytes from the firmware to the current connection, once, then acts on a pending
// power option. What the socket doesn't take is lost, with a log line. The reader thread.
void WriteDASHRXdata(const std::uint8_t* data, std::uint32_t length);

}  // namespace stewardry
