#include "service/gateway/dash_relay.h"

#include <cassert>

#include "service/actions/power_actions.h"
#include "service/diagnostics/service_log.h"
#include "service/gateway/connection.h"
#include "service/gateway/gateway_state.h"
#include "service/gateway/listeners.h"
#include "service/mailbox/messages.h"

namespace stewardry {

namespace {

const RelayKind kDashRelay = {kHttpsPort,
                              "New HTTPS DASH request arrived at Tavrin",
                              "Forwarding HTTPS DASH request to Mailbox driver",
                              "Response returned for HTTPS DASH Request from Mailbox driver",
                              "Sockread failed or client closed the connection for HTTPS callback",
                              WriteDASHPacket};

void OpenSlot(Sock sock) {
  DashSlot& slot = gGateway->dash;
  assert(slot.gHttpsSocketState.load(std::memory_order_relaxed) != kHttpsOpen);
  slot.gHttpsSocket.store(sock, std::memory_order_relaxed);
  slot.gHttpsSocketState.store(kHttpsOpen, std::memory_order_seq_cst);
}

// Clears the slot and waits for the end of a write that is under way, which does not block.
void ClearSlot() {
  DashSlot& slot = gGateway->dash;
  slot.gHttpsSocketState.store(kHttpsClosed, std::memory_order_seq_cst);
  slot.gHttpsHandler = nullptr;
  slot.gHttpsSlotMark.AwaitEndOfUse();
  slot.gHttpsSocket.store(0, std::memory_order_relaxed);
}

// A slot may still hold the socket, as after the destruction of a selector. It is cleared first:
// nothing may use a released connection.
void LeaveSlot(Sock sock) {
  assert(sock != 0);
  if (gGateway->dash.gHttpsSocket.load(std::memory_order_relaxed) == sock) ClearSlot();
}

// Closes the older connection after a new peer has been accepted.
void ReplaceConnection(Selector* sel) {
  const DashSlot& slot = gGateway->dash;
  Handler* old = slot.gHttpsHandler;
  if (slot.gHttpsSocketState.load(std::memory_order_relaxed) != kHttpsOpen || old == nullptr)
    return;
  HalfClose(old->sock);
  Selector_DetachHandler(sel, old);
  { const ClosingHandler closing(old, LeaveSlot); }
  LogInfo("After sock close");
  LogInfo("After freeing the memory");
  SendCloseSocketcmd(kHttpsPort);
}

// Accepts one connection. Returns false to give the listener up. Every failure closes the accepted
// socket. A firmware that knows of the connection also receives its end, so that neither side waits
// for the other.
bool AcceptConnection(Selector* sel, Sock listener) {
  LogInfo("%s accept calling", "ListenHTTPSCallback");
  ConnectionSock sock(LeaveSlot);
  RemoteAddress peer;
  const Result result = sock.Accept(listener, &peer);
  if (result != RESULT_OK) return result == RESULT_WOULD_BLOCK;
  ReplaceConnection(sel);
  const ReportMark mark = ServerMark();
  if (!FirmwareIsReady(&mark)) return false;
  OpenSlot(sock.Get());
  AnnounceConnection(kDashRelay, peer);
  gGateway->dash.gHttpsHandler = AddConnection(sel, &sock, HTTPSCallback);
  if (gGateway->dash.gHttpsHandler != nullptr) return true;
  sock.Close();
  SendCloseSocketcmd(kHttpsPort);
  return false;
}

// Ends a connection that the peer has closed. The selector then removes the handler, which closes
// the socket.
std::uint8_t CloseSequence(const Handler* handler) {
  LogInfo("Client closed the connection so returned false");
  LogInfo("socket address %I64x", handler->sock);
  LogInfo("HTTPS callback shutdown called");
  HalfClose(handler->sock);
  ClearSlot();
  SendCloseSocketcmd(kHttpsPort);
  return 0;
}

ReadOutcome ForwardToFirmware(Sock sock) {
  ReceiveBuffer receivebuffer;
  std::uint32_t size;
  return ForwardOneRead(kDashRelay, sock, &receivebuffer, &size);
}

}  // namespace

std::uint8_t ListenHTTPSCallback(Selector* sel, Handler* handler, std::uint32_t mask,
                                 std::uint64_t) {
  if ((mask & (SELECTOR_REMOVE | SELECTOR_DESTROY)) != 0) {
    const ClosingHandler closing(handler);
    return 1;
  }
  if (!IsProvisioned()) {
    LogInfo("Provisioning not done. Incoming HTTPS connection dropped.");
    return 0;
  }
  if ((mask & SELECTOR_READ) != 0) return AcceptConnection(sel, handler->sock) ? 1 : 0;
  return 1;
}

std::uint8_t HTTPSCallback(Selector*, Handler* handler, std::uint32_t mask, std::uint64_t) {
  if ((mask & SELECTOR_READ) != 0) {
    const ReadOutcome outcome = ForwardToFirmware(handler->sock);
    if (outcome == ReadOutcome::kNothing) return 1;
    if (outcome == ReadOutcome::kEnded) return CloseSequence(handler);
  }
  if ((mask & SELECTOR_WRITE) != 0) {
    LogInfo("Unexpected write event in HTTPS callback");
    return 0;
  }
  if ((mask & (SELECTOR_REMOVE | SELECTOR_DESTROY)) != 0) {
    const ClosingHandler closing(handler, LeaveSlot);
    if (ServerStops()) return 1;  // a thread ended from outside would write no line either
    if ((mask & SELECTOR_REMOVE) != 0) LogInfo("Selector remove called for HTTPS callback");
  } else if ((mask & SELECTOR_READ_CLOSE) != 0) {
    LogInfo("SELECTOR_READ_CLOSE called");
    return CloseSequence(handler);
  }
  LogInfo("Exiting HTTPS Callback");
  return 1;
}

void WriteDASHRXdata(const std::uint8_t* data, std::uint32_t length) {
  assert(data != nullptr);
  DashSlot& slot = gGateway->dash;
  std::uint64_t written = 0;
  Result result;
  {
    const SlotMark::Use use(&slot.gHttpsSlotMark);
    if (slot.gHttpsSocketState.load(std::memory_order_seq_cst) != kHttpsOpen) {
      LogInfo("Socket is closed");
      return;
    }
    result = Sock_Write(slot.gHttpsSocket.load(std::memory_order_relaxed), data, length, &written);
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
