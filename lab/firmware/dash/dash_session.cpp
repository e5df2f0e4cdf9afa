#include "lab/firmware/dash/dash_session.h"

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/ssl.h>

#include <algorithm>
#include <cassert>
#include <optional>

#include "lab/firmware/core/frames.h"
#include "lab/firmware/core/text.h"
#include "lab/firmware/dash/http_request.h"
#include "lab/firmware/dash/http_response.h"

namespace orrin {
namespace {

// One TLS record.
constexpr std::size_t kReadSize = 16384;
// What a peer may send while an answer waits for room: one more whole request.
constexpr std::size_t kMaxCiphertextAhead = kMaxHttpBody + (std::size_t{1} << 20);

enum class Phase { kHandshake, kOpen, kClosed };

struct FreeSsl {
  void operator()(SSL* ssl) const { SSL_free(ssl); }
};

}  // namespace

struct DashState {
  DashState(PageFacts pageFacts, DashOutput& dashOutput) : facts(pageFacts), output(dashOutput) {}

  void Open(const TlsContext& context);
  void Receive(ByteView ciphertext);
  void Pump();
  void ContinueHandshake();
  bool ReadRequest();
  bool ReadPlaintext();
  void BeginAnswer();
  bool WriteResponse();
  bool WritePlaintext(std::string_view text);
  void FlushCiphertext();
  void SendFullFrames();
  void SendFrame(std::size_t size);
  std::size_t CiphertextPending() const { return BIO_ctrl_pending(SSL_get_wbio(ssl.get())); }
  void HandleNoResult(int sslResult);
  void Close(const std::string& words);

  const PageFacts facts;
  DashOutput& output;
  std::unique_ptr<SSL, FreeSsl> ssl;  // null only after a failed Open
  Phase phase = Phase::kHandshake;
  bool reportedIgnoring = false;
  HttpRequestReader reader;
  std::string plaintext;  // read from TLS and not yet by the reader
  std::optional<ResponseStream> response;
  Bytes frame;
};

void DashState::Open(const TlsContext& context) {
  ssl.reset(SSL_new(context.Get()));
  BIO* in = BIO_new(BIO_s_mem());
  BIO* out = BIO_new(BIO_s_mem());
  if (ssl == nullptr || in == nullptr || out == nullptr) {
    BIO_free(in);
    BIO_free(out);
    ssl.reset();
    return Close("no memory for a TLS session");
  }
  SSL_set_bio(ssl.get(), in, out);
  SSL_set_accept_state(ssl.get());
}

void DashState::Receive(ByteView ciphertext) {
  if (phase == Phase::kClosed) {
    if (!reportedIgnoring) output.AddNote("DASH: the session is over, further bytes are ignored");
    reportedIgnoring = true;
    return;
  }
  BIO* in = SSL_get_rbio(ssl.get());
  if (BIO_ctrl_pending(in) + ciphertext.size() > kMaxCiphertextAhead) {
    return Close("the peer sends more requests and does not read its answer");
  }
  const int size = static_cast<int>(ciphertext.size());
  if (size > 0 && BIO_write(in, ciphertext.data(), size) != size) return Close("out of memory");
  Pump();
}

void DashState::Pump() {
  if (phase == Phase::kHandshake) ContinueHandshake();
  while (phase == Phase::kOpen) {
    if (response && !WriteResponse()) break;
    if (!response && phase == Phase::kOpen && !ReadRequest()) break;
  }
  // While an answer waits for room its last, short piece waits too, to leave in a full frame.
  if (!response) FlushCiphertext();
}

void DashState::ContinueHandshake() {
  ERR_clear_error();
  const int result = SSL_accept(ssl.get());
  if (result != 1) return HandleNoResult(result);
  phase = Phase::kOpen;
  output.AddNote(Format("DASH: TLS session open, %s, %s", SSL_get_version(ssl.get()),
                        SSL_get_cipher_name(ssl.get())));
}

// Returns false until a whole request has been received.
bool DashState::ReadRequest() {
  while (!reader.IsComplete() && reader.Failure() == 0) {
    if (plaintext.empty() && !ReadPlaintext()) return false;
    const std::size_t used = reader.Feed(plaintext);
    plaintext.erase(0, used);
    if (reader.TakeContinueRequest() && !WritePlaintext("HTTP/1.1 100 Continue\r\n\r\n"))
      return false;
  }
  BeginAnswer();
  return true;
}

bool DashState::ReadPlaintext() {
  plaintext.resize(kReadSize);
  ERR_clear_error();
  const int count = SSL_read(ssl.get(), plaintext.data(), static_cast<int>(kReadSize));
  plaintext.resize(count > 0 ? static_cast<std::size_t>(count) : 0);
  if (count <= 0) HandleNoResult(count);
  return count > 0;
}

void DashState::BeginAnswer() {
  assert(!response);
  if (reader.Failure() != 0) {
    output.AddNote(Format("DASH: request refused with %d", reader.Failure()));
    response.emplace(Refusal(reader.Failure()), true, false);
    return;
  }
  HttpRequest& request = reader.Request();
  const bool close = !request.keepAlive;
  const bool bare = request.method == "HEAD";
  std::string line = "DASH: " + Printable(request.method + " " + request.target, 200) +
                     Format(", body %zu bytes", request.body.size());
  HttpResponse answer = AnswerPage(request, facts);
  output.AddNote(line + Format(": %d", answer.status) + answer.note);
  if (answer.command) {
    FlushCiphertext();  // invariant 2
    output.SendCommand(*answer.command);
  }
  response.emplace(std::move(answer), close, bare);
}

// Returns false while the rest has no room.
bool DashState::WriteResponse() {
  assert(response);
  while (output.HasRoom()) {
    const std::string_view piece = response->Next();
    if (piece.empty()) {
      const bool close = response->ClosesAfter();
      response.reset();
      reader.Reset();
      if (close) Close("connection closed after the answer");
      return true;
    }
    if (!WritePlaintext(piece)) return false;
    SendFullFrames();
  }
  return false;
}

// A memory buffer accepts every write, so an incomplete one means that the session is broken.
bool DashState::WritePlaintext(std::string_view text) {
  while (!text.empty()) {
    ERR_clear_error();
    const int count = SSL_write(ssl.get(), text.data(), static_cast<int>(text.size()));
    if (count <= 0) {
      Close("write failed: " + TakeTlsError());
      return false;
    }
    text.remove_prefix(static_cast<std::size_t>(count));
  }
  return true;
}

void DashState::FlushCiphertext() {
  if (ssl == nullptr) return;
  SendFullFrames();
  if (CiphertextPending() > 0) SendFrame(CiphertextPending());
}

void DashState::SendFullFrames() {
  while (CiphertextPending() >= kMaxPayload) SendFrame(kMaxPayload);
}

void DashState::SendFrame(std::size_t size) {
  assert(size > 0 && size <= kMaxPayload);
  frame.resize(size);
  const int count = BIO_read(SSL_get_wbio(ssl.get()), frame.data(), static_cast<int>(frame.size()));
  if (count > 0) output.SendDashBytes(ByteView(frame).first(static_cast<std::size_t>(count)));
}

// An SSL call without result either waits for more bytes or ends the session.
void DashState::HandleNoResult(int sslResult) {
  switch (SSL_get_error(ssl.get(), sslResult)) {
    case SSL_ERROR_WANT_READ:
    case SSL_ERROR_WANT_WRITE:
      return;
    case SSL_ERROR_ZERO_RETURN:
      return Close(reader.IsPartial() ? "the peer closed within a request" : "the peer closed");
    default:
      return Close("TLS failed: " + TakeTlsError());
  }
}

void DashState::Close(const std::string& words) {
  assert(phase != Phase::kClosed);
  // Queues close_notify. After a failed handshake OpenSSL refuses it and sends its alert alone. A
  // peer that has sent its own gets none: it reads no more, and a frame names no connection, so
  // late bytes could reach the next one.
  const bool hasPeerClosed =
      ssl != nullptr && (SSL_get_shutdown(ssl.get()) & SSL_RECEIVED_SHUTDOWN) != 0;
  if (phase == Phase::kOpen && !hasPeerClosed) (void)SSL_shutdown(ssl.get());
  ERR_clear_error();
  FlushCiphertext();
  phase = Phase::kClosed;
  response.reset();
  plaintext.clear();
  reader.Reset();
  output.AddNote("DASH: " + words);
}

DashSession::DashSession(const TlsContext& context, PageFacts facts, DashOutput& output)
    : state_(std::make_unique<DashState>(facts, output)) {
  state_->Open(context);
}

DashSession::~DashSession() = default;
void DashSession::Receive(ByteView ciphertext) { state_->Receive(ciphertext); }
void DashSession::Pump() { state_->Pump(); }
bool DashSession::IsWaitingForRoom() const { return state_->response.has_value(); }

}  // namespace orrin
