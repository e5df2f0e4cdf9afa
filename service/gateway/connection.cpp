// The steps that both relays take.
#include "service/gateway/connection.h"

#include "platform/socket.h"
#include "service/diagnostics/service_log.h"
#include "service/inventory/ip_config.h"
#include "service/mailbox/messages.h"
#include "service/mailbox/records.h"

namespace stewardry {

// A peer that has gone isn't the listener's failure, which would cost a rebind: else
// twenty peers that connect and reset would end the process.
Result AcceptPeer(Sock listener, Sock* sock, RemoteAddress* peer) {
  const Result result = Sock_Accept(listener, sock, peer);
  if (result == RESULT_FAILED) LogInfo("Sock_Accept failed");
  if (result == RESULT_OK) (void)Sock_KeepAlive(*sock, true);  // it only stays longer without
  return result;
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
  gIPInfo.Update([&](IPInfo& info) {
    info.localPort = relay.port;
    info.remoteAddress = peer.address;
    info.remotePort = peer.port;
    info.endMarker = kEndMarker;
  });
  LogInfo("%s", relay.arrivedLine);
  LogInfo("Remote address 0x%x", peer.address);
  LogInfo("Remote port 0x%x", std::uint32_t{peer.port});
  LogInfo("%s", relay.forwardingLine);
  const IPInfo info = gIPInfo.Load();
  SendIPCompleteInfomartion(&info);
  LogInfo("%s", relay.returnedLine);
}

void HalfClose(Sock sock) {
  if (Sock_ShutdownSend(sock) != RESULT_OK)
    LogInfo("shutdown error %d", platform::WSAGetLastError());
}

ReadOutcome ForwardOneRead(const RelayKind& relay, Sock sock, ReceiveBuffer* buffer,
                           std::uint32_t* size) {
  std::uint64_t numberOfBytesSentByClient = 0;
  const Result result =
      Sock_Read(sock, buffer->bytes, sizeof buffer->bytes, &numberOfBytesSentByClient);
  *size = static_cast<std::uint32_t>(numberOfBytesSentByClient);
  if (result == RESULT_WOULD_BLOCK) return ReadOutcome::kNothing;
  if (result != RESULT_OK) LogInfo("%s", relay.readFailedLine);
  if (numberOfBytesSentByClient == 0) return ReadOutcome::kEnded;
  packet data{sock, buffer->bytes, *size, nullptr, 0};
  LogInfo(" read size %d", data.sendSize);
  (void)relay.write(&data);  // the bytes of a failed request are gone; the connection goes on
  return ReadOutcome::kForwarded;
}

}  // namespace stewardry
