// The state of KVM: one record of the process, for the one possible session.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>

#include "platform/handle.h"
#include "platform/user_session.h"
#include "service/kvm/session_threads.h"
#include "service/kvm/shared_region.h"
#include "service/mailbox/shared_record.h"
#include "service/mailbox/slot_mark.h"
#include "sock/sock.h"

namespace stewardry {

// What the tray shows. One word, so a reader never sees half of a text.
struct KvmSessionStatus {
  char text[4];  // zero-terminated
};
constexpr KvmSessionStatus kKvmStatusYes = {"YES"};
constexpr KvmSessionStatus kKvmStatusNo = {"NO"};

// The values of gKvmSocketState.
constexpr std::uint16_t kKvmNoSession = 0;  // none yet in this process
constexpr std::uint16_t kKvmSessionUp = 1;
constexpr std::uint16_t kKvmSessionFinished = 2;

// What is being done to the session; session.h has the transitions.
enum class SessionPhase : std::uint32_t { kIdle, kSetup, kSetupEndRequested, kTeardown };

struct KvmState {
  // Access. Written by the reader thread and by a session's teardown, read by the server
  // threads. Sequentially consistent with each other and with gKvmSocketState: RevokeAccess and
  // AcceptViewer in session.cpp depend on it.
  std::atomic<std::uint8_t> gKvmEnabled{0};       // 1: the firmware has enabled KVM
  std::atomic<std::uint32_t> gKvmTrustedIP{0};    // byte order of sin_addr; 0: any peer
  std::atomic<std::uint32_t> gKvmTrustedPort{0};  // stored, logged and cleared, never checked
  // Until when a connection waits for the trusted peer; in the past once that is stored. Written by
  // the reader thread before it sets gKvmEnabled and after it has stored the peer.
  std::atomic<std::chrono::steady_clock::time_point> peerDueAt{
      std::chrono::steady_clock::time_point::min()};

  // The session. Written by the one thread that its phase allows: set-up on a server thread,
  // teardown on any. Read by all. The phase is entered with acquire and left with release.
  std::atomic<SessionPhase> phase{SessionPhase::kIdle};
  // Release and acquire: a thread that loads kKvmSessionUp finds the session's socket.
  std::atomic<std::uint16_t> gKvmSocketState{kKvmNoSession};
  // The accepted socket; 0 when there is none. Sequentially consistent against gKvmSlotMark.
  std::atomic<Sock> gKvmSocket{0};
  // The viewer's address. Stored before gKvmSocketState, loaded after it; relaxed.
  std::atomic<std::uint32_t> sessionPeer{0};
  // kKvmStatusYes from the moment that a connection has passed the checks.
  SharedRecord<KvmSessionStatus> gKvmSessionStatus{kKvmStatusNo};
  SessionThread gKvmAgentThread{"KVM Agent"};
  SessionThread gKeyboardThread{"Keyboard"};
  SessionThread gMouseThread{"Mouse"};
  // Where each ring lies in this process; 0 without a region. Written while no pump runs; the pumps
  // load them once, at their start. Relaxed: the start of a thread orders them.
  std::atomic<std::uint64_t> KeyBoardBufferVirtualAddress{0};
  std::atomic<std::uint64_t> MouseBufferVirtualAddress{0};
  std::atomic<std::uint8_t> gKeyboardMouseReady{0};  // 1 once the region was requested; relaxed
  std::atomic<std::uint8_t> gKeyboardTailReset{0};   // 1 after the first session; relaxed

  // The agent last started; null if none was. One thread at a time uses it: the session's set-up,
  // then the watch thread, then, once that has ended, the teardown.
  platform::Process gKvmAgentProcess;
  // Its id. A failed launch leaves it. The teardown clears it: the system may give the number to
  // another process once gKvmAgentProcess is closed. The pumps read it too; relaxed.
  std::atomic<std::uint32_t> gKvmAgentPid{0};

  // Held by the reader thread around each write to gKvmSocket.
  SlotMark gKvmSlotMark;
  // Finished sends, and the sum of the sizes asked for, modulo 2^32, over all sessions. Only the
  // reader thread uses them; relaxed.
  std::atomic<std::uint32_t> gKvmSendIndex{0};
  std::atomic<std::uint32_t> gKvmOverallSize{0};

  // The last dead key that no character has used, 0 if none. Outlives the session: the first
  // character of the next session uses it. Only the keyboard thread uses it; relaxed.
  std::atomic<std::uint32_t> gPendingDeadKey{0};

  // The last entry that was sent. Outlives the session: a button that was down at its end goes up
  // with the first entry of the next session that has it up. Only the mouse thread uses it.
  mouseBufferRingData gLastMouseRingData{};

  // Returns the session's socket, or the invalid one if there is none: the 0 of gKvmSocket may be a
  // socket of the platform.
  Sock SessionSock() const {
    const Sock sock = gKvmSocket.load(std::memory_order_seq_cst);
    return sock != 0 ? sock : kInvalidSock;
  }
};
extern platform::ProcessLifetime<KvmState> gKvm;

}  // namespace stewardry
