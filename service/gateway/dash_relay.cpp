// The DASH relay.
#include "service/gateway/dash_relay.h"

#include <memory>
#include <new>
#include <utility>

#include "platform/socket.h"
#include "platform/thread.h"
#include "service/actions/power_actions.h"
#include "service/diagnostics/service_log.h"
#include "service/gateway/listeners.h"
#include "service/inventory/ip_config.h"
#include "service/inventory/records.h"
#include "service/inventory/status_report.h"
#include "service/mailbox/messages.h"

namespace stewardry {

std::atomic<std::uint16_t> gHttpsSocketState{0};
std::atomic<Sock> gHttpsSocket{0};
Handler* gHttpsHandler = nullptr;

namespace {

constexpr std::uint16_t kOpen = 1;
constexpr std::uint16_t kClosed = 2;
constexpr std::uint32_t kReadSize = 131072;  // the mailbox's frame limit

// Set by the reader thread around its write. Sequentially consistent on both sides: either the
// writer sees the slot closed, or the closer sees the writer and waits for it.
std::atomic<bool> gHttpsWriting{false};

class WritingMark {
 public:
  WritingMark() { gHttpsWriting.store(true, std::memory_order_seq_cst); }
  WritingMark(const WritingMark&) = delete;
  WritingMark& operator=(const WritingMark&) = delete;
  ~WritingMark() { gHttpsWriting.store(false, std::memory_order_release); }
};

void OpenSlot(Sock sock) {
  gHttpsSocket.store(sock, std::memory_order_relaxed);
  gHttpsSocketState.store(kOpen, std::memory_order_seq_cst);
}

// Clears the slot and lets a write that is under way finish; it doesn't block.
void ClearSlot() {
  gHttpsSocketState.store(kClosed, std::memory_order_seq_cst);
  gHttpsHandler = nullptr;
  while (gHttpsWriting.load(std::memory_order_seq_cst)) platform::Sleep(0);
  gHttpsSocket.store(0, std::memory_order_relaxed);
}

void HalfClose(Sock sock) {
  if (Sock_ShutdownSend(sock) != RESULT_OK)
    LogInfo("shutdown error %d", platform::WSAGetLastError());
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

  Result Accept(Sock listener, RemoteAddress* peer) { return Sock_Accept(listener, &sock_, peer); }
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

// True if the firmware is there. One that has been down is told everything again first.
bool FirmwareIsReady() {
  std::uint8_t OrrinStatus = kOrrinNoAnswer;
  GetOrrinStatus(&OrrinStatus);
  if (OrrinStatus == kOrrinNoAnswer) {
    LogInfo("ORRIN Status return failed");
    return false;
  }
  if (OrrinStatus == kOrrinDown) ResendSystemInfo();
  return true;
}

// Tells the firmware of the peer, before the first byte of its connection can reach it.
void AnnounceConnection(const RemoteAddress& peer) {
  gIPInfo.Update([&](IPInfo& info) {
    info.localPort = kHttpsPort;
    info.remoteAddress = peer.address;
    info.remotePort = peer.port;
    info.endMarker = kEndMarker;
  });
  LogInfo("New HTTPS DASH request arrived at Tavrin");
  LogInfo("Remote address 0x%x", peer.address);
  LogInfo("Remote port 0x%x", std::uint32_t{peer.port});
  LogInfo("Forwarding HTTPS DASH request to Mailbox driver");
  const IPInfo info = gIPInfo.Load();
  SendIPCompleteInfomartion(&info);
  LogInfo("Response returned for HTTPS DASH Request from Mailbox driver");
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

// Serves one knock. On every failed way out the accepted socket is closed, and a firmware that was
// told of the connection is told of its end, so that neither waits for the other.
bool AcceptConnection(Selector* sel, Handler* listener) {
  LogInfo("%s accept calling", "ListenHTTPSCallback");
  AcceptedSocket accepted;
  RemoteAddress peer;
  if (accepted.Accept(listener->sock, &peer) != RESULT_OK) {
    LogInfo("Sock_Accept failed");
    return false;
  }
  ReplaceConnection(sel);
  if (!FirmwareIsReady()) return false;
  accepted.EnterSlot();
  AnnounceConnection(peer);
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

enum class ReadOutcome { kNothing, kForwarded, kEnded };

// Reads once and hands the bytes to the firmware. The receive buffer is page-aligned: a copy that
// begins a few bytes into a page is many times slower on common processors.
ReadOutcome ForwardOneRead(Handler* handler) {
  alignas(4096) std::uint8_t receivebuffer[kReadSize];
  std::uint64_t numberOfBytesSentByClient = 0;
  const Result result =
      Sock_Read(handler->sock, receivebuffer, sizeof receivebuffer, &numberOfBytesSentByClient);
  if (result == RESULT_WOULD_BLOCK) return ReadOutcome::kNothing;
  if (result != RESULT_OK)
    LogInfo("Sockread failed or client closed the connection for HTTPS callback");
  if (numberOfBytesSentByClient == 0) return ReadOutcome::kEnded;
  packet data{handler->sock, receivebuffer, static_cast<std::uint32_t>(numberOfBytesSentByClient),
              nullptr, 0};
  LogInfo(" read size %d", data.sendSize);
  WriteDASHPacket(&data);
  return ReadOutcome::kForwarded;
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
    const ReadOutcome outcome = ForwardOneRead(handler);
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
    WritingMark mark;
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
