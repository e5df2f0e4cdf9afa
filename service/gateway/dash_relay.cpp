// The DASH relay.
#include "service/gateway/dash_relay.h"

#include <memory>
#include <new>
#include <utility>

#include "platform/thread.h"
#include "service/actions/power_actions.h"
#include "service/diagnostics/service_log.h"
#include "service/gateway/connection.h"
#include "service/gateway/listeners.h"
#include "service/mailbox/messages.h"

namespace stewardry {

std::atomic<std::uint16_t> gHttpsSocketState{0};
std::atomic<Sock> gHttpsSocket{0};
Handler* gHttpsHandler = nullptr;

namespace {

constexpr std::uint16_t kOpen = 1;
constexpr std::uint16_t kClosed = 2;

// Around the reader thread's write (invariant 3).
SlotMark gHttpsSlotMark;

const RelayKind kDashRelay = {kHttpsPort,
                              "New HTTPS DASH request arrived at Tavrin",
                              "Forwarding HTTPS DASH request to Mailbox driver",
                              "Response returned for HTTPS DASH Request from Mailbox driver",
                              "Sockread failed or client closed the connection for HTTPS callback",
                              WriteDASHPacket};

void OpenSlot(Sock sock) {
  gHttpsSocket.store(sock, std::memory_order_relaxed);
  gHttpsSocketState.store(kOpen, std::memory_order_seq_cst);
}

// Clears the slot and lets a write that is under way finish; it doesn't block.
void ClearSlot() {
  gHttpsSocketState.store(kClosed, std::memory_order_seq_cst);
  gHttpsHandler = nullptr;
  gHttpsSlotMark.AwaitEndOfUse();
  gHttpsSocket.store(0, std::memory_order_relaxed);
}

// A handler that its selector has let go of: closed and freed on every way out, also when the
// thread is ended in one of its waits. A slot that still holds it, as after the destruction of a
// selector, is cleared: nothing may act on a released connection.
class LettingGo {
 public:
  explicit LettingGo(Handler* handler) : handler_(handler) {}
  LettingGo(const LettingGo&) = delete;
  LettingGo& operator=(const LettingGo&) = delete;
  ~LettingGo() {
    const platform::StayInThread stay;
    if (gHttpsHandler == handler_.get()) ClearSlot();
    (void)Sock_Close(handler_->sock);  // nothing is left to do with it
  }

 private:
  std::unique_ptr<Handler> handler_;
};

// An accepted socket until its handler is the selector's. On every other way out, also when the
// thread is ended in one of its waits, it leaves the slot and is closed.
class AcceptedSocket {
 public:
  AcceptedSocket() = default;
  AcceptedSocket(const AcceptedSocket&) = delete;
  AcceptedSocket& operator=(const AcceptedSocket&) = delete;
  ~AcceptedSocket() { Close(); }

  Result Accept(Sock listener, RemoteAddress* peer) { return AcceptPeer(listener, &sock_, peer); }
  Sock Get() const { return sock_; }
  void EnterSlot() {
    OpenSlot(sock_);
    inSlot_ = true;
  }
  Sock Disown() { return std::exchange(sock_, kInvalidSock); }
  void Own(Sock sock) { sock_ = sock; }
  void Close() {
    if (sock_ == kInvalidSock) return;
    const platform::StayInThread stay;
    if (inSlot_) ClearSlot();
    (void)Sock_Close(Disown());  // nobody serves it
  }

 private:
  Sock sock_ = kInvalidSock;
  bool inSlot_ = false;
};

// The older connection goes when a new peer has been accepted.
void ReplaceConnection(Selector* sel) {
  Handler* old = gHttpsHandler;
  if (gHttpsSocketState.load(std::memory_order_relaxed) != kOpen || old == nullptr) return;
  HalfClose(old->sock);
  Selector_DetachHandler(sel, old);
  { const LettingGo gone(old); }
  LogInfo("After sock close");
  LogInfo("After freeing the memory");
  SendCloseSocketcmd(kHttpsPort);
}

// Hands the socket to a handler of the selector. From the add on the handler is the selector's,
// even if the thread is ended within the add's first call.
bool StartConnection(Selector* sel, AcceptedSocket* accepted) {
  if (Sock_SetBlocking(accepted->Get(), false) != RESULT_OK) {
    LogInfo("Sock_SetBlocking failed");
    return false;
  }
  auto* handler = new (std::nothrow) Handler{};
  if (handler != nullptr) {
    handler->sock = accepted->Disown();
    handler->eventMask = SELECTOR_READ;
    handler->callback = HTTPSCallback;
    gHttpsHandler = handler;
    if (Selector_AddHandler(sel, handler) == RESULT_OK) return true;
    accepted->Own(handler->sock);
    delete handler;
  }
  LogInfo("Selector_AddHandler failed");
  return false;
}

// Accepts one connection; false gives the listener up. On every failed way out the accepted socket
// is closed, and a firmware that was told of the connection is told of its end, so that neither
// waits for the other.
bool AcceptConnection(Selector* sel, Handler* listener) {
  LogInfo("%s accept calling", "ListenHTTPSCallback");
  AcceptedSocket accepted;
  RemoteAddress peer;
  const Result result = accepted.Accept(listener->sock, &peer);
  if (result != RESULT_OK) return result == RESULT_WOULD_BLOCK;
  ReplaceConnection(sel);
  const ReportMark mark = ServerMark();
  if (!FirmwareIsReady(&mark)) return false;
  accepted.EnterSlot();
  AnnounceConnection(kDashRelay, peer);
  if (StartConnection(sel, &accepted)) return true;
  accepted.Close();
  SendCloseSocketcmd(kHttpsPort);
  return false;
}

// The end that the peer has brought about. The selector then removes the handler, which closes the
// socket.
std::uint8_t CloseSequence(Handler* handler) {
  LogInfo("HTTPS callback shutdown called");
  HalfClose(handler->sock);
  ClearSlot();
  SendCloseSocketcmd(kHttpsPort);
  return 0;
}

ReadOutcome ForwardToFirmware(Handler* handler) {
  ReceiveBuffer receivebuffer;
  std::uint32_t size;
  return ForwardOneRead(kDashRelay, handler->sock, &receivebuffer, &size);
}

void LogClosedByClient(const Handler* handler) {
  LogInfo("Client closed the connection so returned false");
  LogInfo("socket address %I64x", handler->sock);
}

}  // namespace

std::uint8_t ListenHTTPSCallback(Selector* sel, Handler* handler, std::uint32_t mask,
                                 std::uint64_t) {
  if ((mask & (SELECTOR_REMOVE | SELECTOR_DESTROY)) != 0) {
    const LettingGo gone(handler);
    return 1;
  }
  if (!IsProvisioned()) {
    LogInfo("Provisioning not done. Incoming HTTPS connection dropped.");
    return 0;
  }
  if ((mask & SELECTOR_READ) != 0) return AcceptConnection(sel, handler) ? 1 : 0;
  return 1;
}

std::uint8_t HTTPSCallback(Selector*, Handler* handler, std::uint32_t mask, std::uint64_t) {
  if ((mask & SELECTOR_READ) != 0) {
    const ReadOutcome outcome = ForwardToFirmware(handler);
    if (outcome == ReadOutcome::kNothing) return 1;
    if (outcome == ReadOutcome::kEnded) {
      LogClosedByClient(handler);
      return CloseSequence(handler);
    }
  }
  if ((mask & SELECTOR_WRITE) != 0) {
    LogInfo("Unexpected write event in HTTPS callback");
    return 0;
  }
  if ((mask & (SELECTOR_REMOVE | SELECTOR_DESTROY)) != 0) {
    const LettingGo gone(handler);
    if (ServerStops()) return 1;  // a thread that was ended would say nothing either
    if ((mask & SELECTOR_REMOVE) != 0) LogInfo("Selector remove called for HTTPS callback");
  } else if ((mask & SELECTOR_READ_CLOSE) != 0) {
    LogInfo("SELECTOR_READ_CLOSE called");
    LogClosedByClient(handler);
    return CloseSequence(handler);
  }
  LogInfo("Exiting HTTPS Callback");
  return 1;
}

void WriteDASHRXdata(const std::uint8_t* data, std::uint32_t length) {
  std::uint64_t written = 0;
  Result result;
  {
    const SlotMark::Use use(&gHttpsSlotMark);
    if (gHttpsSocketState.load(std::memory_order_seq_cst) != kOpen) {
      LogInfo("Socket is closed");
      return;
    }
    result = Sock_Write(gHttpsSocket.load(std::memory_order_relaxed), data, length, &written);
  }
  if (result == RESULT_WOULD_BLOCK) {
    LogInfo("Sockwrite Failed in %s because of block", "WriteDASHRXdata");
    return;
  }
  if (result != RESULT_OK) {
    LogInfo("SockWrite Failed in %s", "WriteDASHRXdata");
    return;
  }
  if (ActOnPowerOption()) LogInfo(" Size written is %lu,requested %d", written, length);
}

}  // namespace stewardry
