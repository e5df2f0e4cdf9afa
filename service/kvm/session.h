// The KVM session: who may connect to port 22 and when, what is brought up for a session and taken
// down after it, and what the firmware is told. A small state machine over process-wide variables.
// Commands of the firmware run on the reader thread, the listen callback on a KVM server thread,
// and FinishKVMSession on both and, after a user's logon, on a thread of its own.
//
// | state      | gKvmEnabled | gKvmSocketState |
// | Off        | 0           | 0 or 2          |
// | Ready      | 1           | 0 or 2          |
// | In session | 1           | 1               |
//
// Invariants:
// 1. One thread at a time builds a session or ends one; gSessionWork in session.cpp says who. So
//    the session's threads, agent, region and socket have one writer, and each sees what the one
//    before has left.
// 2. An end that is asked for while a session is being built isn't lost: the builder carries it out
//    as soon as it is done.
// 3. gKvmSocket is stored before state 1 and cleared before its end is over, and a socket is closed
//    only after gKvmSocket has let go of it and no write is under way on it. So neither a frame of
//    the firmware nor a half-close meets a socket number that has been given to somebody else.
// 4. A region isn't given back, and no session is built, while a thread that reads it is left. One
//    that can't be ended keeps its handle, which shows it; the next build tries again.
// 5. The firmware opens KVM with two commands, and in between anybody would be let in. So a viewer
//    waits for the second one, which names the peer, though no longer than kPeerPatience; and a
//    session that came up without it ends when it names somebody else.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>

#include "service/gateway/connection.h"
#include "service/mailbox/shared_record.h"
#include "sock/selector.h"

namespace stewardry {

constexpr std::uint16_t kKvmPort = 22;

// How long after command 0x26 a connection waits for command 0x27.
constexpr std::chrono::milliseconds kPeerPatience{500};

// 1: the firmware has enabled KVM. Set only by SetKVMEnabled, cleared only by FinishKVMSession;
// read by the server threads. Sequentially consistent with the trusted peer, see ShutDoor in
// session.cpp.
extern std::atomic<std::uint8_t> gKvmEnabled;

// The only peer that may connect. The two are filled as one record by SetKVMIPAndPort. Written by
// the reader thread, and at a session's end; read by the server threads. 0 whenever KVM is off.
struct KvmTrustedPeer {
  std::uint32_t address;  // in the byte order of sin_addr; 0 means any peer
  std::uint32_t port;     // stored, logged and cleared; a peer's port is not checked
};
static_assert(sizeof(KvmTrustedPeer) == 8);
extern std::atomic<std::uint32_t> gKvmTrustedIP;
extern std::atomic<std::uint32_t> gKvmTrustedPort;

// 0: no session yet in this process, 1: a session is up, 2: the last session has been finished.
// Release and acquire: who sees 1 finds the session's socket. Sequentially consistent against the
// trusted peer, see EnterSession in session.cpp.
extern std::atomic<std::uint16_t> gKvmSocketState;
constexpr std::uint16_t kKvmNoSession = 0;
constexpr std::uint16_t kKvmSessionUp = 1;
constexpr std::uint16_t kKvmSessionFinished = 2;

// The session's accepted socket; 0 when there is none. Sequentially consistent against
// gKvmSlotMark (invariant 3).
extern std::atomic<Sock> gKvmSocket;
// Held by the reader thread around each write to gKvmSocket.
extern SlotMark gKvmSlotMark;

// What the tray is shown: "YES" from the moment a connection has passed the checks, "NO" otherwise.
// One word, so a reader never sees half of a text.
struct KvmSessionStatus {
  char text[4];  // zero-terminated
};
extern SharedRecord<KvmSessionStatus> gKvmSessionStatus;

// Command 0x26: turns KVM on and sees to a listener on port 22. The payload isn't read. The reader
// thread.
void SetKVMEnabled(const std::uint8_t* payload, std::uint32_t length);

// Command 0x27: stores the first 8 bytes of the payload as the trusted peer: the address in the
// byte order of sin_addr, then the port, 32 bits little-endian. A shorter payload leaves the rest
// as it was. Stores nothing while KVM is off. A session whose viewer is another ends, for which the
// firmware is waited for without a time-out. The reader thread.
void SetKVMIPAndPort(const std::uint8_t* payload, std::uint32_t length);

// The selector callback of the listener on port 22: checks and accepts a viewer, brings its session
// up, tells the firmware and puts the connection under `selector`. Non-zero keeps the listener. It
// waits for the firmware without a time-out, but not for the name of a peer: until then a
// connection stays in the backlog, and it looks again when the handler's deadline comes. A KVM
// server thread.
std::uint8_t ListenKVMCallback(Selector* selector, Handler* handler, std::uint32_t mask,
                               std::uint64_t currentTimeUsec);

// Brings up the host's side of a session: the agent, the shared region, and the three threads. A
// failure is logged, and what had been started is taken down again. Called by ListenKVMCallback.
bool InitKVM();

// Ends the session that is up, or does what its end would do before the first one; nothing if the
// last one has been finished already. Of calls at the same time one does the work, and the others
// return at once. While a session is being built it only asks the builder to end it. Waits for the
// firmware without a time-out. Any thread that isn't one of the session's three.
void FinishKVMSession();

// Returns once `sock` is nobody's but the caller's, who may then close it: ends the session if the
// socket is the session's, and waits for the threads that are still at it. A KVM server thread.
void ReleaseKVMSocket(Sock sock);

}  // namespace stewardry
