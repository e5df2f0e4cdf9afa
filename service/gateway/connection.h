// What the DASH and the KVM relay do alike with a connection: look whether the firmware is there,
// tell it of the peer, pass a read on, half-close, and keep a write of one thread apart from the
// close of another. The steps that differ, and their order, are each relay's own.
#pragma once

#include <cstdint>

#include "service/inventory/status_report.h"
#include "service/mailbox/slot_mark.h"
#include "sock/sock.h"

namespace stewardry {

struct packet;  // service/mailbox/messages.h

constexpr std::uint32_t kReadSize = 131072;  // bytes; the mailbox's frame limit

// The words, the port and the message in which the two relays differ.
struct RelayKind {
  std::uint16_t port;
  const char* arrivedLine;
  const char* forwardingLine;
  const char* returnedLine;
  const char* readFailedLine;
  std::uint32_t (*write)(packet* data);  // hands one read to the firmware
};

// Accepts a peer, and has the system look after it from time to time, so that one that vanishes
// without a word doesn't keep its place. RESULT_OK; RESULT_WOULD_BLOCK if that peer has gone,
// and the listener is as good as before; after a logged line RESULT_FAILED. The server thread.
Result AcceptPeer(Sock listener, Sock* sock, RemoteAddress* peer);

// True if the firmware answers. One that says that it has been down is told everything again first;
// false if `mark`, where given, has ended that report. Waits for the firmware without a time-out; a
// server thread.
bool FirmwareIsReady(const ReportMark* mark = nullptr);

// Tells the firmware of the peer, before the first byte of its connection can reach it. Waits for
// the firmware without a time-out; a server thread.
void AnnounceConnection(const RelayKind& relay, const RemoteAddress& peer);

// Half-closes the sending side; a failure is logged. Any thread.
void HalfClose(Sock sock);

// What one read leaves in memory. Page-aligned: a copy that begins a few bytes into a page is many
// times slower on common processors.
struct alignas(4096) ReceiveBuffer {
  std::uint8_t bytes[kReadSize];
};

enum class ReadOutcome { kNothing, kForwarded, kEnded };

// Reads once into the buffer and hands the bytes to the firmware; what comes of that isn't looked
// at. *size gets their number. kEnded stands for the peer's close and, after a logged line, for a
// read that failed. A server thread.
ReadOutcome ForwardOneRead(const RelayKind& relay, Sock sock, ReceiveBuffer* buffer,
                           std::uint32_t* size);

}  // namespace stewardry
