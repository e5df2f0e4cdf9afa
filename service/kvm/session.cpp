// The KVM session.
#include "service/kvm/session.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <new>
#include <utility>

#include "platform/thread.h"
#include "platform/user_session.h"
#include "service/diagnostics/service_log.h"
#include "service/gateway/listeners.h"
#include "service/kvm/agent.h"
#include "service/kvm/keyboard_pump.h"
#include "service/kvm/mouse_pump.h"
#include "service/kvm/relay.h"
#include "service/kvm/session_threads.h"
#include "service/kvm/shared_region.h"
#include "service/mailbox/messages.h"

namespace stewardry {

namespace {

constexpr KvmSessionStatus kStatusYes = {"YES"};
constexpr KvmSessionStatus kStatusNo = {"NO"};

}  // namespace

std::atomic<std::uint8_t> gKvmEnabled{0};
std::atomic<std::uint32_t> gKvmTrustedIP{0};
std::atomic<std::uint32_t> gKvmTrustedPort{0};
std::atomic<std::uint16_t> gKvmSocketState{kKvmNoSession};
std::atomic<Sock> gKvmSocket{0};
SlotMark gKvmSlotMark;
SharedRecord<KvmSessionStatus> gKvmSessionStatus(kStatusNo);

namespace {

// Who is at work on the session (invariants 1 and 2). Acquire when the work is taken and release
// when it is given back: each worker sees what the one before has left.
enum class SessionWork : std::uint32_t {
  kNone,
  kBuilding,
  kBuildingEndAsked,
  kEnding,
};
std::atomic<SessionWork> gSessionWork{SessionWork::kNone};

using Clock = std::chrono::steady_clock;

// Until when a connection waits for its peer's name; the past once that was named. Written by the
// reader thread before it sets gKvmEnabled, and after it has stored the peer; read by the server
// threads. Sequentially consistent with both: who doesn't wait finds the peer, if there was one in
// time.
std::atomic<Clock::time_point> gPeerDueAt{Clock::time_point::min()};
constexpr std::uint64_t kPeerLookMicroseconds = 10'000;  // between two looks at it

// Whose session is up. Written by the server thread before gKvmSocketState says so, and read by the
// reader thread after that; relaxed.
std::atomic<std::uint32_t> gSessionPeer{0};

// False after the line that every refused knock writes.
bool DoorIsOpen() {
  if (gKvmEnabled.load(std::memory_order_seq_cst) == 1) return true;
  LogInfo("KVM disabled. Incoming SSH connection dropped.");
  return false;
}

bool IsTrusted(std::uint32_t peer) {
  const std::uint32_t trusted = gKvmTrustedIP.load(std::memory_order_seq_cst);
  return trusted == 0 || trusted == peer;
}

// True while a connection must not be accepted yet. Others are refused or accepted at once.
bool PeerIsAwaited() {
  return gKvmEnabled.load(std::memory_order_seq_cst) == 1 &&
         gKvmSocketState.load(std::memory_order_acquire) != kKvmSessionUp &&
         gKvmTrustedIP.load(std::memory_order_seq_cst) == 0 &&
         Clock::now() < gPeerDueAt.load(std::memory_order_seq_cst);
}

// The session's socket, or one that no call takes for a socket: the slot's 0 stands for none, but a
// platform may have a socket of that number.
Sock SessionSocket() {
  const Sock sock = gKvmSocket.load(std::memory_order_seq_cst);
  return sock != 0 ? sock : kInvalidSock;
}

// The agent goes by its own; one that is still there is ended. While the watch is left, the agent
// is that thread's.
void EndAgentProcess() {
  if (*gKvmAgentThread || !*gKvmAgentProcess) return;
  LogInfo("Terminate KVM_Agent");
  std::uint32_t exitCode = 0;
  (void)platform::GetExitCodeProcess(*gKvmAgentProcess, &exitCode);  // a failure leaves it alone
  if (exitCode == platform::kStillActive)
    (void)platform::TerminateProcess(*gKvmAgentProcess, 0);  // it may have gone just now
  gKvmAgentPid.store(0, std::memory_order_relaxed);
  gKvmAgentProcess->Reset();
}

// None of the three owns anything that another needs.
void EndSessionThreads() {
  TerminateKVMAgentThread();
  TerminateKeyboardThread();
  TerminateMouseThread();
}

bool ThreadsAreGone() { return !*gKvmAgentThread && !*gKeyboardThread && !*gMouseThread; }

// Gives the region back, unless a pump is left that reads it. The addresses go first: a later
// session to which the driver delivers no address must find none, and not the one that was given
// back.
void GiveRegionBack() {
  if (*gKeyboardThread || *gMouseThread) return;
  UninitializeKeyboardMousePointers();
  (void)DeAllocateKVM_KB_MB_Buffers();  // logs its own failure; the session is over either way
}

void EndHostSide() {
  StopKVMAgentWatch();
  TerminateAgentOverPipe();
  EndSessionThreads();
  if (gKeyboardMouseReady.load(std::memory_order_relaxed) != 0) GiveRegionBack();
  EndAgentProcess();
}

// Takes the host's side down again unless the session keeps it, also when the thread is ended while
// it comes up, and whichever step has failed: an agent without a session would fight the next one's
// for the pipes.
class HostSide {
 public:
  HostSide() = default;
  HostSide(const HostSide&) = delete;
  HostSide& operator=(const HostSide&) = delete;
  ~HostSide() {
    if (kept_) return;
    const platform::StayInThread stay;
    EndHostSide();
  }
  bool Keep() { return kept_ = true; }

 private:
  bool kept_ = false;
};

bool StartThread(platform::Thread* slot, platform::ThreadEntry entry, const char* failureLine) {
  *slot = platform::CreateThread(entry, nullptr);
  if (!*slot) LogInfo("%s", failureLine);
  return static_cast<bool>(*slot);
}

// The door shuts: the next session needs a new enable and a new peer. The peer goes first and all
// three are sequentially consistent, so that no order of these stores and of those of a command
// that comes meanwhile leaves KVM on with the new peer wiped out, which would let anybody in.
void ShutDoor() {
  gKvmTrustedIP.store(0, std::memory_order_seq_cst);
  gKvmTrustedPort.store(0, std::memory_order_seq_cst);
  gKvmEnabled.store(0, std::memory_order_seq_cst);
}

// The end of a session, step by step. The door is shut before the firmware hears of the end: its
// answer to that may be the enable of the next session, which this end must not undo.
void EndSession() {
  LogInfo("Finish KVM Session");
  StopKVMAgentWatch();
  TerminateAgentOverPipe();
  gKvmSessionStatus.Store(kStatusNo);
  EndSessionThreads();
  GiveRegionBack();
  HalfClose(SessionSocket());
  gKvmSocket.store(0, std::memory_order_seq_cst);
  ShutDoor();
  SendCloseSocketcmd(kKvmPort);
  EndAgentProcess();
}

// The work of an end, from the moment that a caller has got it. A thread that is ended within it
// leaves the work and the socket free.
class Ending {
 public:
  Ending() : got_(Take()) {}
  Ending(const Ending&) = delete;
  Ending& operator=(const Ending&) = delete;
  ~Ending() {
    if (!got_) return;
    gKvmSocket.store(0, std::memory_order_seq_cst);
    gSessionWork.store(SessionWork::kNone, std::memory_order_release);
  }
  // True if this is the one caller that ends the session.
  bool Got() const { return got_; }

 private:
  static bool Take() {
    SessionWork seen = gSessionWork.load(std::memory_order_relaxed);
    SessionWork next;
    do {
      if (seen == SessionWork::kEnding || seen == SessionWork::kBuildingEndAsked) return false;
      next = seen == SessionWork::kNone ? SessionWork::kEnding : SessionWork::kBuildingEndAsked;
    } while (!gSessionWork.compare_exchange_weak(seen, next, std::memory_order_acq_rel,
                                                 std::memory_order_relaxed));
    if (next == SessionWork::kBuildingEndAsked) return false;
    if (gKvmSocketState.load(std::memory_order_acquire) != kKvmSessionFinished) {
      gKvmSocketState.store(kKvmSessionFinished, std::memory_order_release);
      return true;
    }
    gSessionWork.store(SessionWork::kNone, std::memory_order_release);
    return false;
  }

  const bool got_;
};

// The work of one accept, with its socket until the handler has it. On every way out that leaves
// the socket here, also when the thread is ended in one of its waits, the socket is closed; a
// session that was up by then is ended, so that nothing half-built stays: the firmware hears of the
// close as it would at any other end, and expects to enable KVM anew.
class Building {
 public:
  Building() {
    SessionWork none = SessionWork::kNone;
    // An end under way takes a few exchanges with the firmware; what it leaves decides.
    while (!gSessionWork.compare_exchange_weak(
        none, SessionWork::kBuilding, std::memory_order_acquire, std::memory_order_relaxed)) {
      if (none != SessionWork::kNone) platform::Sleep(1);
      none = SessionWork::kNone;
    }
  }
  Building(const Building&) = delete;
  Building& operator=(const Building&) = delete;
  ~Building() {
    const platform::StayInThread stay;
    if (sock_ != kInvalidSock && up_) FinishKVMSession();  // asks for it
    const SessionWork before = gSessionWork.exchange(SessionWork::kNone, std::memory_order_acq_rel);
    if (before == SessionWork::kBuildingEndAsked) FinishKVMSession();
    Close();
  }

  Result Accept(Sock listener, RemoteAddress* peer) { return AcceptPeer(listener, &sock_, peer); }
  Sock Get() const { return sock_; }
  // From here on it is a session. False if its peer has turned out to be the wrong one meanwhile.
  // The state is stored before the trusted peer is looked at, and the reader thread stores that
  // peer before it looks at the state, all sequentially consistent: one of the two sees the other.
  bool EnterSession(std::uint32_t peer) {
    gSessionPeer.store(peer, std::memory_order_relaxed);
    gKvmSocket.store(sock_, std::memory_order_seq_cst);
    gKvmSocketState.store(kKvmSessionUp, std::memory_order_seq_cst);
    up_ = true;
    return IsTrusted(peer);
  }
  Sock Disown() { return std::exchange(sock_, kInvalidSock); }
  void Own(Sock sock) { sock_ = sock; }
  void Close() {
    if (sock_ == kInvalidSock) return;
    ReleaseKVMSocket(sock_);
    (void)Sock_Close(Disown());  // nobody serves it
  }

 private:
  Sock sock_ = kInvalidSock;
  bool up_ = false;
};

// Hands the socket to a handler of the selector. From the add on the handler is the selector's,
// even if the thread is ended within the add's first call.
bool StartConnection(Selector* selector, Building* building) {
  if (Sock_SetBlocking(building->Get(), false) != RESULT_OK) {
    LogInfo("Sock_SetBlocking failed");
    return false;
  }
  // A picture comes in several frames, and the tail of each would wait for the viewer to
  // acknowledge what is before it. A failure only leaves it slow.
  (void)Sock_SetNoDelay(building->Get(), true);
  std::unique_ptr<Handler> handler(new (std::nothrow) Handler{});
  if (handler) {
    handler->sock = building->Disown();
    handler->eventMask = SELECTOR_READ;
    handler->callback = KVMCallback;
    Handler* added = handler.release();
    if (Selector_AddHandler(selector, added) == RESULT_OK) return true;
    handler.reset(added);
    building->Own(added->sock);
  }
  LogInfo("Selector_AddHandler failed");
  return false;
}

// Serves one knock, from the look at the door to the handler.
bool AcceptViewer(Selector* selector, Sock listener) {
  Building building;
  if (!DoorIsOpen()) return false;
  if (gKvmSocketState.load(std::memory_order_acquire) == kKvmSessionUp) {
    LogInfo("New KVM connection dropped");
    return false;
  }
  LogInfo("New KVM starting here...");
  LogInfo("%s accept calling", "ListenKVMCallback");
  RemoteAddress peer;
  const Result accepted = building.Accept(listener, &peer);
  if (accepted != RESULT_OK) return accepted == RESULT_WOULD_BLOCK;
  if (!IsTrusted(peer.address)) {
    building.Close();
    LogInfo("KVM IP validation failed");
    return false;
  }
  gKvmSessionStatus.Store(kStatusYes);
  if (!InitKVM()) {
    gKvmSessionStatus.Store(kStatusNo);
    building.Close();
    LogInfo("InitKVM failed");
    return false;
  }
  if (!building.EnterSession(peer.address)) {
    LogInfo("KVM IP validation failed");
    return false;
  }
  if (!FirmwareIsReady()) return false;
  AnnounceConnection(kKvmRelay, peer);
  return StartConnection(selector, &building);
}

}  // namespace

void SetKVMEnabled(const std::uint8_t*, std::uint32_t) {
  gPeerDueAt.store(Clock::now() + kPeerPatience, std::memory_order_seq_cst);
  gKvmEnabled.store(1, std::memory_order_seq_cst);
  StartKVMServer();
  LogInfo("Setting KVM Enabled to %s", "true");
}

void SetKVMIPAndPort(const std::uint8_t* payload, std::uint32_t length) {
  LogInfo("Setting KVM IP and port");
  if (gKvmEnabled.load(std::memory_order_seq_cst) != 1) {
    LogInfo("KVM is disabled");
    return;
  }
  KvmTrustedPeer peer = {gKvmTrustedIP.load(std::memory_order_seq_cst),
                         gKvmTrustedPort.load(std::memory_order_seq_cst)};
  std::memcpy(&peer, payload, std::min<std::size_t>(length, sizeof peer));
  gKvmTrustedIP.store(peer.address, std::memory_order_seq_cst);
  gKvmTrustedPort.store(peer.port, std::memory_order_seq_cst);
  gPeerDueAt.store(Clock::time_point::min(), std::memory_order_seq_cst);
  // A session that has ended meanwhile has shut the door, and its peer goes with it.
  if (gKvmEnabled.load(std::memory_order_seq_cst) != 1) ShutDoor();
  LogInfo("IP: 0x%x & Port: 0x%x", peer.address, peer.port);
  if (gKvmSocketState.load(std::memory_order_seq_cst) == kKvmSessionUp &&
      !IsTrusted(gSessionPeer.load(std::memory_order_relaxed)))
    FinishKVMSession();
}

std::uint8_t ListenKVMCallback(Selector* selector, Handler* handler, std::uint32_t mask,
                               std::uint64_t currentTimeUsec) {
  if ((mask & (SELECTOR_REMOVE | SELECTOR_DESTROY)) != 0) {
    const std::unique_ptr<Handler> owned(handler);
    (void)Sock_Close(handler->sock);  // nothing is left to do with it
    LeaveKVMPort();
    return 1;
  }
  // The deadline stands for a connection already reported: not every system reports it again.
  if ((mask & (SELECTOR_READ | SELECTOR_TIMEOUT)) == 0) return DoorIsOpen() ? 1 : 0;
  if (PeerIsAwaited()) {
    handler->eventMask = SELECTOR_EXCEPTION;  // or it would be reported without a pause
    handler->timeoutAt = currentTimeUsec + kPeerLookMicroseconds;
    return 1;
  }
  handler->eventMask = SELECTOR_READ | SELECTOR_EXCEPTION;
  handler->timeoutAt = 0;
  return AcceptViewer(selector, handler->sock) ? 1 : 0;
}

bool InitKVM() {
  if (!ThreadsAreGone()) EndHostSide();  // what the last session couldn't end
  if (!ThreadsAreGone()) return false;
  if (!LaunchKVMAgent()) {
    LogInfo("Launch KVM_Agent failed");
    return false;
  }
  HostSide hostSide;
  LogInfo("Attempting InitializeKeyboardMousePointers");
  if (!InitializeKeyboardMousePointers()) {
    LogInfo("InitializeKeyboardMousePointers failed");
    return false;
  }
  LogInfo("InitializeKeyboardMousePointers successful");
  return StartThread(&*gKvmAgentThread, WatchKVMAgent, "KVM Agent thread failed") &&
         StartThread(&*gKeyboardThread, ProcessKeyboardEvents, "Keyboard thread failed") &&
         StartThread(&*gMouseThread, ProcessMouseEvents, "Mouse thread failed") && hostSide.Keep();
}

void FinishKVMSession() {
  const Ending ending;
  if (ending.Got()) EndSession();
}

void ReleaseKVMSocket(Sock sock) {
  if (gKvmSocket.load(std::memory_order_seq_cst) == sock) FinishKVMSession();
  while (gKvmSocket.load(std::memory_order_seq_cst) == sock) platform::Sleep(1);
  gKvmSlotMark.AwaitEndOfUse();
}

}  // namespace stewardry
