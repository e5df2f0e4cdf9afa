// The firmware's end of one DASH connection: a TLS server over memory buffers with an HTTP/1.1
// server inside. Ciphertext comes from the mailbox and leaves in frames.
//
// Invariants:
// 1. A request is answered before the next one is read, so answers leave in the order of requests.
// 2. A power command leaves after everything that was answered before it and before the first byte
//    of its own reply. The host acts on the command when the next reply has been sent, so a byte of
//    an older answer behind the command would make it act too early.
// 3. A short answer is one frame: host and command act on whole replies only.
// 4. No more output is produced than DashOutput has room for. The rest waits for Pump.
#pragma once

#include <memory>
#include <string>

#include "lab/firmware/core/bytes.h"
#include "lab/firmware/dash/dash_pages.h"
#include "lab/firmware/dash/tls_context.h"

namespace orrin {

// Receives a session's output. Called within Receive and Pump only.
class DashOutput {
 public:
  virtual ~DashOutput() = default;
  // Sends at most kMaxPayload bytes of ciphertext to the peer.
  virtual void SendDashBytes(ByteView bytes) = 0;
  // Sends a CommandCode without payload, and what belongs to it.
  virtual void SendCommand(std::uint8_t code) = 0;
  // Returns true while more bulk output can be queued.
  virtual bool HasRoom() const = 0;
  // Adds a line to the trace.
  virtual void AddNote(const std::string& words) = 0;
};

struct DashState;

// One thread. The context, the facts and the output outlive the session.
class DashSession {
 public:
  DashSession(const TlsContext& context, PageFacts facts, DashOutput& output);
  ~DashSession();

  // Takes ciphertext from the peer, split at any boundary.
  void Receive(ByteView ciphertext);
  // Continues with output that waited for room.
  void Pump();
  // Returns true if an answer waits for room.
  bool IsWaitingForRoom() const;

 private:
  std::unique_ptr<DashState> state_;
};

}  // namespace orrin
