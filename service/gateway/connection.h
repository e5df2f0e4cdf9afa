// The steps that the DASH and the KVM relay have in common. Each relay decides their order.
#pragma once

#include <cstdint>
#include <memory>

#include "service/inventory/status_report.h"
#include "service/mailbox/control_codes.h"
#include "sock/selector.h"
#include "sock/unique_sock.h"

namespace stewardry {

struct packet;  // service/mailbox/messages.h

// The port, log lines and message in which the two relays differ. Fixed log texts; their wording
// must not change.
struct RelayKind {
  std::uint16_t port;
  const char* arrivedLine;
  const char* forwardingLine;
  const char* returnedLine;
  const char* readFailedLine;
  std::uint32_t (*write)(packet* data);  // sends one read to the firmware
};

// Owns a connection's socket, to which another thread may write while a slot holds it. Closes the
// socket on every way out, also when the thread is ended in a wait.
class ConnectionSock {
 public:
  // Takes `sock` out of its slot if the slot holds it. Returns once no other thread uses it. Null
  // for a listener, which no slot holds.
  using LeaveSlot = void (*)(Sock sock);

  explicit ConnectionSock(LeaveSlot leaveSlot, Sock sock = kInvalidSock)
      : sock_(sock), leaveSlot_(leaveSlot) {}
  ConnectionSock(const ConnectionSock&) = delete;
  ConnectionSock& operator=(const ConnectionSock&) = delete;
  ~ConnectionSock() { Close(); }

  // Accepts a peer, with keep-alive: a peer that vanishes without a close must not hold its place.
  // Returns RESULT_OK; RESULT_WOULD_BLOCK if the peer has gone, which costs the listener nothing;
  // RESULT_FAILED after a logged line. A server thread.
  Result Accept(Sock listener, RemoteAddress* peer);
  explicit operator bool() const { return static_cast<bool>(sock_); }
  Sock Get() const { return sock_.Get(); }
  void Close();

 private:
  friend Handler* AddConnection(Selector* selector, ConnectionSock* sock,
                                SelectorCallback callback);
  UniqueSock sock_;
  LeaveSlot leaveSlot_;
};

// Owns a handler that its selector has released, and its socket.
class ClosingHandler {
 public:
  explicit ClosingHandler(Handler* handler, ConnectionSock::LeaveSlot leaveSlot = nullptr)
      : handler_(handler), sock_(leaveSlot, handler->sock) {}
  void CloseSocket() { sock_.Close(); }

 private:
  std::unique_ptr<Handler> handler_;
  ConnectionSock sock_;
};

// Adds a handler for *sock to the selector. From the add on both belong to the selector, even if
// the thread is ended in the callback's first call. Returns the handler; null if that fails, and
// *sock owns the socket still. The selector's thread.
Handler* AddHandler(Selector* selector, UniqueSock* sock, std::uint32_t eventMask,
                    SelectorCallback callback);

// Makes the socket non-blocking and adds a handler that reads from it, as AddHandler does. Returns
// null after a logged failure.
Handler* AddConnection(Selector* selector, ConnectionSock* sock, SelectorCallback callback);

// Returns true if the firmware answers. Repeats the status report first to a firmware that has been
// down, and returns false if `mark`, where given, has ended that report. Waits for the firmware
// without a time-out; a server thread.
bool FirmwareIsReady(const ReportMark* mark = nullptr);

// Sends the peer's address to the firmware. Must precede the first byte of the connection. Waits
// for the firmware without a time-out; a server thread.
void AnnounceConnection(const RelayKind& relay, const RemoteAddress& peer);

// Half-closes the sending side. Logs a failure. Any thread.
void HalfClose(Sock sock);

// What one read leaves in memory. Page-aligned: a copy that begins a few bytes into a page is many
// times slower on common processors.
struct alignas(4096) ReceiveBuffer {
  std::uint8_t bytes[kMaxFrameSize];
};

enum class ReadOutcome { kNothing, kForwarded, kEnded };

// Reads once into the buffer and sends the bytes to the firmware, whose result is ignored. *size
// receives their number. kEnded means that the peer has closed or, after a logged line, that the
// read failed. A server thread.
ReadOutcome ForwardOneRead(const RelayKind& relay, Sock sock, ReceiveBuffer* buffer,
                           std::uint32_t* size);

}  // namespace stewardry
