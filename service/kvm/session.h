// The KVM session: which peer may connect to port 22 and when, what a session starts and ends on
// the host, and what the firmware is sent. Commands of the firmware run on the reader thread, the
// listen callback on a KVM server thread, and FinishKVMSession on both.
//
// | state      | gKvmEnabled | gKvmSocketState |
// | Off        | 0           | 0 or 2          |
// | Ready      | 1           | 0 or 2          |
// | In session | 1           | 1               |
//
// It changes in phases (KvmState::phase):
//
// | phase              | event         | next phase         | the event's thread               |
// | kIdle              | connection    | kSetup             | sets the session up              |
// | kIdle              | end           | kTeardown          | ends the session, unless state 2 |
// | kSetup             | end           | kSetupEndRequested | leaves the end to the set-up     |
// | kSetup             | set-up done   | kIdle              |                                  |
// | kSetupEndRequested | set-up done   | kIdle, kTeardown   | ends the session                 |
// | kTeardown          | teardown done | kIdle              |                                  |
// | kTeardown, kSetupEndRequested | end | unchanged         | returns: another thread ends it  |
//
// Invariants:
// 1. One thread at a time sets a session up or tears it down; KvmState::phase decides which. So the
//    session's threads, agent, region and socket have one writer, and each writer sees what the one
//    before it has stored.
// 2. An end that is requested during set-up is not lost: the set-up carries it out when it is done.
// 3. gKvmSocket is stored before state 1 and cleared before the teardown is over. A socket is
//    closed only after gKvmSocket has another value and no write on it is under way. So neither a
//    frame of the firmware nor a half-close reaches a socket number that has been reused.
// 4. A region is not given back, and no session is set up, while a thread that reads it exists. A
//    thread that cannot be ended keeps its handle, which marks it; the next set-up tries again.
// 5. The firmware opens KVM with two commands, and in between any peer would be accepted. So a
//    viewer waits for the second command, which names the peer, at most for kPeerPatience. A
//    session that began without it ends when it names another peer.
#pragma once

#include <chrono>
#include <cstdint>

#include "sock/selector.h"

namespace stewardry {

// How long after command 0x26 a connection waits for command 0x27.
constexpr std::chrono::milliseconds kPeerPatience{500};

// Command 0x26: enables KVM and makes sure that port 22 has a listener. Ignores the payload. The
// reader thread.
void SetKVMEnabled(const std::uint8_t* payload, std::uint32_t length);

// Command 0x27: stores the first 8 bytes of the payload as the trusted peer: the address in the
// byte order of sin_addr, then the port, 32 bits little-endian. A shorter payload leaves the rest
// unchanged. Stores nothing while KVM is off. Ends a session of another viewer, and waits for the
// firmware without a time-out for it. The reader thread.
void SetKVMIPAndPort(const std::uint8_t* payload, std::uint32_t length);

// The selector callback of the listener on port 22: checks and accepts a viewer, sets up its
// session, announces it to the firmware and adds the connection to `selector`. Returns non-zero to
// keep the listener. Waits for the firmware without a time-out, but not for the trusted peer: until
// that is stored a connection stays in the backlog, and the handler's deadline repeats the check. A
// KVM server thread.
std::uint8_t ListenKVMCallback(Selector* selector, Handler* handler, std::uint32_t mask,
                               std::uint64_t currentTimeUsec);

// Starts the host's side of a session: the agent, the shared region, and the three threads. Returns
// false after a logged failure, and takes down what it had started. Called in set-up.
bool InitKVM();

// Ends the session that is up, or clears access before the first session. Does nothing if the last
// session has been finished. One of several concurrent calls does the work; the others return at
// once. During set-up it only requests the end. Waits for the firmware without a time-out. Any
// thread except the session's three.
void FinishKVMSession();

// Returns once only the caller uses `sock` and may close it: ends the session if the socket is the
// session's, and waits for the threads that use it. A KVM server thread.
void ReleaseKVMSocket(Sock sock);

}  // namespace stewardry
