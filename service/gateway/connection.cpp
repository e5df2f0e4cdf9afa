#include "service/gateway/connection.h"

#include <cassert>
#include <new>

#include "platform/socket.h"
#include "platform/thread.h"
#include "service/diagnostics/service_log.h"
#include "service/inventory/ip_config.h"
#include "service/inventory/reports.h"
#include "service/mailbox/messages.h"
#include "service/mailbox/records.h"

namespace stewardry {

// A peer that has gone is no failure of the listener, which would cost a rebind: twenty peers that
// connect and reset would otherwise end the process.
Result ConnectionSock::Accept(Sock listener, RemoteAddress* peer) {
  assert(!sock_);
  Sock sock = kInvalidSock;
  const Result result = Sock_Accept(listener, &sock, peer);
  if (result == RESULT_FAILED) LogInfo("Sock_Accept failed");
  if (result != RESULT_OK) return result;
  sock_.Reset(sock);
  (void)Sock_KeepAlive(sock, true);  // without it a vanished peer only stays longer
  return RESULT_OK;
}

void ConnectionSock::Close() {
  if (!sock_) return;
  const platform::StayInThread stay;
  if (leaveSlot_ != nullptr) leaveSlot_(sock_.Get());
  sock_.Reset();
}

Handler* AddHandler(Selector* selector, UniqueSock* sock, std::uint32_t eventMask,
                    SelectorCallback callback) {
  assert(selector != nullptr && *sock && callback != nullptr);
  std::unique_ptr<Handler> handler(new (std::nothrow) Handler{});
  if (handler == nullptr) return nullptr;
  handler->sock = sock->Release();
  handler->eventMask = eventMask;
  handler->callback = callback;
  Handler* added = handler.release();
  if (Selector_AddHandler(selector, added) == RESULT_OK) return added;
  handler.reset(added);
  sock->Reset(added->sock);
  return nullptr;
}

// An answer or a picture is several frames, and each is one write. Without TCP_NODELAY the tail of
// each would wait until the peer has acknowledged the bytes before it, up to 40 ms on a network. A
// connection that refuses the option is only slow.
Handler* AddConnection(Selector* selector, ConnectionSock* sock, SelectorCallback callback) {
  (void)Sock_SetNoDelay(sock->Get(), true);
  if (Sock_SetBlocking(sock->Get(), false) != RESULT_OK) {
    LogInfo("Sock_SetBlocking failed");
    return nullptr;
  }
  Handler* added = AddHandler(selector, &sock->sock_, SELECTOR_READ, callback);
  if (added == nullptr) LogInfo("Selector_AddHandler failed");
  return added;
}

bool FirmwareIsReady(const ReportMark* mark) {
  std::uint8_t OrrinStatus = kOrrinNoAnswer;
  GetOrrinStatus(&OrrinStatus);
  if (OrrinStatus == kOrrinNoAnswer) {
    LogInfo("ORRIN Status return failed");
    return false;
  }
  if (OrrinStatus == kOrrinDown) ResendSystemInfo(mark);
  return mark == nullptr || mark->Holds();
}

void AnnounceConnection(const RelayKind& relay, const RemoteAddress& peer) {
  gReports->gIPInfo.Update([&](IPInfo& info) {
    info.localPort = relay.port;
    info.remoteAddress = peer.address;
    info.remotePort = peer.port;
    info.endMarker = kEndMarker;
  });
  LogInfo("%s", relay.arrivedLine);
  LogInfo("Remote address 0x%x", peer.address);
  LogInfo("Remote port 0x%x", std::uint32_t{peer.port});
  LogInfo("%s", relay.forwardingLine);
  const IPInfo info = gReports->gIPInfo.Load();
  SendIPCompleteInfomartion(&info);
  LogInfo("%s", relay.returnedLine);
}

void HalfClose(Sock sock) {
  if (Sock_ShutdownSend(sock) != RESULT_OK)
    LogInfo("shutdown error %d", platform::WSAGetLastError());
}

ReadOutcome ForwardOneRead(const RelayKind& relay, Sock sock, ReceiveBuffer* buffer,
                           std::uint32_t* size) {
  assert(relay.write != nullptr && buffer != nullptr && size != nullptr);
  std::uint64_t numberOfBytesSentByClient = 0;
  const Result result =
      Sock_Read(sock, buffer->bytes, sizeof buffer->bytes, &numberOfBytesSentByClient);
  *size = static_cast<std::uint32_t>(numberOfBytesSentByClient);
  if (result == RESULT_WOULD_BLOCK) return ReadOutcome::kNothing;
  if (result != RESULT_OK) LogInfo("%s", relay.readFailedLine);
  if (numberOfBytesSentByClient == 0) return ReadOutcome::kEnded;
  packet data{sock, buffer->bytes, *size, nullptr, 0};
  LogInfo(" read size %d", data.sendSize);
  (void)relay.write(&data);  // the bytes of a failed request are lost; the connection goes on
  return ReadOutcome::kForwarded;
}

}  // namespace stewardry
