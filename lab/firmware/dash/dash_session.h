// One DASH connection as the firmware has it: a TLS server over memory buffers with an HTTP/1.1
// server inside. The mailbox brings ciphertext in, ciphertext leaves in frames.
//
// Invariants:
// 1. A request is answered before the next one is read, so answers leave in the order of requests.
// 2. A power command leaves after everything that was answered before it and before the first byte
//    of its own reply: the host acts on the command when the next reply has gone out, so a byte of
//    an older answer behind the command would make it act too early.
// 3. A short answer is one frame: host and command act on whole replies only.
// 4. No more output is made than DashOutput has room for; the rest waits for Pump.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "lab/firmware/core/bytes.h"
#include "lab/firmware/dash/dash_pages.h"
#include "lab/firmware/dash/http_request.h"
#include "lab/firmware/dash/http_response.h"
#include "lab/firmware/dash/tls_context.h"

struct ssl_st;

namespace orrin {

// Where a session's output goes. Called within Receive and Pump only.
class DashOutput {
 public:
  virtual ~DashOutput() = default;
  // At most kMaxPayload bytes of ciphertext for the peer.
  virtual void SendDashBytes(ByteView bytes) = 0;
  // A command of the vocabulary, without payload.
  virtual void SendCommand(std::uint8_t code) = 0;
  // Whether more bulk output is welcome now.
  virtual bool HasRoom() const = 0;
  // Something worth a line in the trace.
  virtual void Say(const std::string& words) = 0;
};

// One thread. The context, the facts and the output outlive the session.
class DashSession {
 public:
  DashSession(const TlsContext& context, PageFacts facts, DashOutput& output);
  ~DashSession();

  // Ciphertext from the peer, any number of bytes at any boundary.
  void Receive(ByteView ciphertext);
  // Goes on with what waited for room.
  void Pump();
  // Whether Pump has something to go on with.
  bool IsWaitingForRoom() const { return response_.has_value(); }

 private:
  enum class Phase { kHandshake, kOpen, kClosed };
  struct FreeSsl {
    void operator()(ssl_st* ssl) const;
  };

  void ContinueHandshake();
  bool ReadRequest();
  bool TakePlaintext();
  void BeginAnswer();
  void BeginResponse(HttpResponse response, bool close, bool bare);
  bool WriteResponse();
  bool WritePlaintext(std::string_view text);
  void FinishResponse();
  void FlushCiphertext();
  void SendFullFrames();
  void SendFrame(std::size_t size);
  std::size_t CiphertextPending() const;
  bool GoesOn(int sslResult);
  void Close(const std::string& words);

  const PageFacts facts_;
  DashOutput& output_;
  std::unique_ptr<ssl_st, FreeSsl> ssl_;
  Phase phase_ = Phase::kHandshake;
  bool saidIgnoring_ = false;
  HttpRequestReader reader_;
  std::string plaintext_;  // read from TLS, not yet given to the reader
  std::optional<ResponseStream> response_;
  Bytes frame_;
};

}  // namespace orrin
