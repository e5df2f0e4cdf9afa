#include "service/kvm/session.h"

#include <algorithm>
#include <cassert>
#include <cstring>

#include "platform/thread.h"
#include "platform/user_session.h"
#include "service/diagnostics/service_log.h"
#include "service/gateway/connection.h"
#include "service/gateway/listeners.h"
#include "service/kvm/agent.h"
#include "service/kvm/keyboard_pump.h"
#include "service/kvm/kvm_state.h"
#include "service/kvm/mouse_pump.h"
#include "service/kvm/relay.h"
#include "service/kvm/shared_region.h"
#include "service/mailbox/messages.h"

namespace stewardry {

platform::ProcessLifetime<KvmState> gKvm;

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::uint64_t kPeerCheckMicroseconds = 10'000;  // between two checks for the peer

// The payload of command 0x27.
struct KvmTrustedPeer {
  std::uint32_t address;
  std::uint32_t port;
};
static_assert(sizeof(KvmTrustedPeer) == 8);

// Runs `call` at the end of its scope, also when the thread is ended in one of its waits.
template <class Call>
class AtScopeEnd {
 public:
  explicit AtScopeEnd(Call call) : call_(call) {}
  AtScopeEnd(const AtScopeEnd&) = delete;
  AtScopeEnd& operator=(const AtScopeEnd&) = delete;
  ~AtScopeEnd() {
    const platform::StayInThread stay;
    call_();
  }

 private:
  const Call call_;
};

// The transitions of the phase, in the order of the table in session.h.

void BeginSetup() {
  SessionPhase seen = SessionPhase::kIdle;
  while (!gKvm->phase.compare_exchange_strong(seen, SessionPhase::kSetup, std::memory_order_acquire,
                                              std::memory_order_relaxed)) {
    platform::Sleep(1);  // a teardown takes a few exchanges with the firmware
    seen = SessionPhase::kIdle;
  }
}

// Returns true if an end was requested meanwhile, which the caller then carries out.
bool EndSetup() {
  const SessionPhase last = gKvm->phase.exchange(SessionPhase::kIdle, std::memory_order_acq_rel);
  assert(last == SessionPhase::kSetup || last == SessionPhase::kSetupEndRequested);
  return last == SessionPhase::kSetupEndRequested;
}

// Returns true if the caller is the one that ends the session.
bool BeginTeardown() {
  SessionPhase seen = gKvm->phase.load(std::memory_order_relaxed);
  SessionPhase next;
  do {
    if (seen == SessionPhase::kTeardown || seen == SessionPhase::kSetupEndRequested) return false;
    next = seen == SessionPhase::kIdle ? SessionPhase::kTeardown : SessionPhase::kSetupEndRequested;
  } while (!gKvm->phase.compare_exchange_weak(seen, next, std::memory_order_acq_rel,
                                              std::memory_order_relaxed));
  if (next == SessionPhase::kSetupEndRequested) return false;
  if (gKvm->gKvmSocketState.load(std::memory_order_acquire) == kKvmSessionFinished) {
    gKvm->phase.store(SessionPhase::kIdle, std::memory_order_release);
    return false;
  }
  gKvm->gKvmSocketState.store(kKvmSessionFinished, std::memory_order_release);
  return true;
}

void EndTeardown() {
  assert(gKvm->phase.load(std::memory_order_relaxed) == SessionPhase::kTeardown);
  gKvm->gKvmSocket.store(0, std::memory_order_seq_cst);
  gKvm->phase.store(SessionPhase::kIdle, std::memory_order_release);
}

// Off and Ready: the firmware's commands.

bool IsEnabled() { return gKvm->gKvmEnabled.load(std::memory_order_seq_cst) == 1; }

bool IsTrusted(std::uint32_t peer) {
  const std::uint32_t trusted = gKvm->gKvmTrustedIP.load(std::memory_order_seq_cst);
  return trusted == 0 || trusted == peer;
}

// The next session needs a new enable and a new peer. The peer is cleared first and all stores are
// sequentially consistent, so that no order of these stores and of those of a concurrent command
// leaves KVM on with the new peer cleared, which would accept any peer.
void RevokeAccess() {
  gKvm->gKvmTrustedIP.store(0, std::memory_order_seq_cst);
  gKvm->gKvmTrustedPort.store(0, std::memory_order_seq_cst);
  gKvm->gKvmEnabled.store(0, std::memory_order_seq_cst);
}

}  // namespace

void SetKVMEnabled(const std::uint8_t*, std::uint32_t) {
  gKvm->peerDueAt.store(Clock::now() + kPeerPatience, std::memory_order_seq_cst);
  gKvm->gKvmEnabled.store(1, std::memory_order_seq_cst);
  StartKVMServer();
  LogInfo("Setting KVM Enabled to %s", "true");
}

void SetKVMIPAndPort(const std::uint8_t* payload, std::uint32_t length) {
  assert(payload != nullptr);
  LogInfo("Setting KVM IP and port");
  if (!IsEnabled()) {
    LogInfo("KVM is disabled");
    return;
  }
  KvmTrustedPeer peer = {gKvm->gKvmTrustedIP.load(std::memory_order_seq_cst),
                         gKvm->gKvmTrustedPort.load(std::memory_order_seq_cst)};
  std::memcpy(&peer, payload, std::min<std::size_t>(length, sizeof peer));
  gKvm->gKvmTrustedIP.store(peer.address, std::memory_order_seq_cst);
  gKvm->gKvmTrustedPort.store(peer.port, std::memory_order_seq_cst);
  gKvm->peerDueAt.store(Clock::time_point::min(), std::memory_order_seq_cst);
  if (!IsEnabled()) RevokeAccess();  // the session has ended meanwhile, and its peer ends with it
  LogInfo("IP: 0x%x & Port: 0x%x", peer.address, peer.port);
  if (gKvm->gKvmSocketState.load(std::memory_order_seq_cst) == kKvmSessionUp &&
      !IsTrusted(gKvm->sessionPeer.load(std::memory_order_relaxed)))
    FinishKVMSession();
}

namespace {

// From Ready to In session: the accept of a viewer.

// Returns false, and logs it, while KVM is disabled.
bool CheckEnabled() {
  if (IsEnabled()) return true;
  LogInfo("KVM disabled. Incoming SSH connection dropped.");
  return false;
}

// Returns true while a connection must not be accepted yet.
bool IsPeerAwaited() {
  return IsEnabled() && gKvm->gKvmSocketState.load(std::memory_order_acquire) != kKvmSessionUp &&
         gKvm->gKvmTrustedIP.load(std::memory_order_seq_cst) == 0 &&
         Clock::now() < gKvm->peerDueAt.load(std::memory_order_seq_cst);
}

// Accepts one viewer: access checks, host side, announcement, handler. Returns false to give the
// listener up. Every way out that leaves the socket here closes it, also when the thread is ended
// in a wait. A session that was up by then ends: the firmware receives its close, as at any end.
bool AcceptViewer(Selector* selector, Sock listener) {
  BeginSetup();
  ConnectionSock sock(ReleaseKVMSocket);
  bool inSession = false;
  const AtScopeEnd endSetup([&] {
    if (sock && inSession) FinishKVMSession();  // only requests the end
    if (EndSetup()) FinishKVMSession();
  });
  if (!CheckEnabled()) return false;
  if (gKvm->gKvmSocketState.load(std::memory_order_acquire) == kKvmSessionUp) {
    LogInfo("New KVM connection dropped");
    return false;
  }
  LogInfo("New KVM starting here...");
  LogInfo("%s accept calling", "ListenKVMCallback");
  RemoteAddress peer;
  const Result accepted = sock.Accept(listener, &peer);
  if (accepted != RESULT_OK) return accepted == RESULT_WOULD_BLOCK;
  if (!IsTrusted(peer.address)) {
    sock.Close();
    LogInfo("KVM IP validation failed");
    return false;
  }
  gKvm->gKvmSessionStatus.Store(kKvmStatusYes);
  if (!InitKVM()) {
    gKvm->gKvmSessionStatus.Store(kKvmStatusNo);
    sock.Close();
    LogInfo("InitKVM failed");
    return false;
  }
  gKvm->sessionPeer.store(peer.address, std::memory_order_relaxed);
  gKvm->gKvmSocket.store(sock.Get(), std::memory_order_seq_cst);
  gKvm->gKvmSocketState.store(kKvmSessionUp, std::memory_order_seq_cst);
  inSession = true;
  // The state is stored before the trusted peer is loaded, and SetKVMIPAndPort stores that peer
  // before it loads the state, all sequentially consistent: one of the two sees the other.
  if (!IsTrusted(peer.address)) {
    LogInfo("KVM IP validation failed");
    return false;
  }
  if (!FirmwareIsReady()) return false;
  AnnounceConnection(kKvmRelay, peer);
  return AddConnection(selector, &sock, KVMCallback) != nullptr;
}

}  // namespace

std::uint8_t ListenKVMCallback(Selector* selector, Handler* handler, std::uint32_t mask,
                               std::uint64_t currentTimeUsec) {
  if ((mask & (SELECTOR_REMOVE | SELECTOR_DESTROY)) != 0) {
    { const ClosingHandler closing(handler); }
    LeaveKVMPort();
    return 1;
  }
  // The deadline means a connection that was reported before: not every system repeats the report.
  if ((mask & (SELECTOR_READ | SELECTOR_TIMEOUT)) == 0) return CheckEnabled() ? 1 : 0;
  if (IsPeerAwaited()) {
    handler->eventMask = SELECTOR_EXCEPTION;  // or it would be reported without a pause
    handler->timeoutAt = currentTimeUsec + kPeerCheckMicroseconds;
    return 1;
  }
  handler->eventMask = SELECTOR_READ | SELECTOR_EXCEPTION;
  handler->timeoutAt = 0;
  return AcceptViewer(selector, handler->sock) ? 1 : 0;
}

namespace {

// The host's side of a session.

bool ThreadsExist() {
  return gKvm->gKvmAgentThread.Exists() || gKvm->gKeyboardThread.Exists() ||
         gKvm->gMouseThread.Exists();
}

// Asks the agent to exit. Its watch stops first: it would take the exit for a crash and start
// another agent.
void StopAgent() {
  gKvm->gKvmAgentThread.AskToStop();
  TerminateAgentOverPipe();
}

// None of the three owns anything that another needs.
void EndSessionThreads() {
  TerminateKVMAgentThread();
  TerminateKeyboardThread();
  TerminateMouseThread();
}

// Gives the region back, unless a pump exists that reads it. The addresses are cleared first: a
// later session to which the driver delivers no address must not find the old one.
void GiveRegionBack() {
  if (gKvm->gKeyboardThread.Exists() || gKvm->gMouseThread.Exists()) return;
  UninitializeKeyboardMousePointers();
  (void)DeAllocateKVM_KB_MB_Buffers();  // logs its own failure; the session is over either way
}

// Terminates an agent that has not exited on request. A watch that exists still uses the handle.
void EndAgentProcess() {
  if (gKvm->gKvmAgentThread.Exists() || !gKvm->gKvmAgentProcess) return;
  LogInfo("Terminate KVM_Agent");
  std::uint32_t exitCode = 0;
  (void)platform::GetExitCodeProcess(gKvm->gKvmAgentProcess, &exitCode);  // a failure leaves 0
  if (exitCode == platform::kStillActive)
    (void)platform::TerminateProcess(gKvm->gKvmAgentProcess, 0);  // it may have exited just now
  gKvm->gKvmAgentPid.store(0, std::memory_order_relaxed);
  gKvm->gKvmAgentProcess.Reset();
}

void EndHostSide() {
  StopAgent();
  EndSessionThreads();
  if (gKvm->gKeyboardMouseReady.load(std::memory_order_relaxed) != 0) GiveRegionBack();
  EndAgentProcess();
}

}  // namespace

bool InitKVM() {
  assert(gKvm->phase.load(std::memory_order_relaxed) != SessionPhase::kIdle);
  if (ThreadsExist()) EndHostSide();  // what the last teardown could not end
  if (ThreadsExist()) return false;
  if (!LaunchKVMAgent()) {
    LogInfo("Launch KVM_Agent failed");
    return false;
  }
  // An agent without a session would compete with the next session's agent for the pipes.
  bool complete = false;
  const AtScopeEnd takeDown([&] {
    if (!complete) EndHostSide();
  });
  LogInfo("Attempting InitializeKeyboardMousePointers");
  if (!InitializeKeyboardMousePointers()) {
    LogInfo("InitializeKeyboardMousePointers failed");
    return false;
  }
  LogInfo("InitializeKeyboardMousePointers successful");
  complete = gKvm->gKvmAgentThread.Start(WatchKVMAgent) &&
             gKvm->gKeyboardThread.Start(ProcessKeyboardEvents) &&
             gKvm->gMouseThread.Start(ProcessMouseEvents);
  return complete;
}

// From any state to Off. Access is revoked before the firmware receives the close: its answer may
// be the enable of the next session, which this teardown must not undo.
void FinishKVMSession() {
  if (!BeginTeardown()) return;
  const AtScopeEnd endTeardown(EndTeardown);
  LogInfo("Finish KVM Session");
  StopAgent();
  gKvm->gKvmSessionStatus.Store(kKvmStatusNo);
  EndSessionThreads();
  GiveRegionBack();
  HalfClose(gKvm->SessionSock());
  gKvm->gKvmSocket.store(0, std::memory_order_seq_cst);
  RevokeAccess();
  SendCloseSocketcmd(kKvmPort);
  EndAgentProcess();
}

void ReleaseKVMSocket(Sock sock) {
  assert(sock != 0);  // the value of a free slot
  if (gKvm->gKvmSocket.load(std::memory_order_seq_cst) == sock) FinishKVMSession();
  while (gKvm->gKvmSocket.load(std::memory_order_seq_cst) == sock) platform::Sleep(1);
  gKvm->gKvmSlotMark.AwaitEndOfUse();
}

}  // namespace stewardry
