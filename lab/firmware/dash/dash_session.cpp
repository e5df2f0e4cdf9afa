#include "lab/firmware/dash/dash_session.h"

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/ssl.h>

#include <algorithm>

#include "lab/firmware/core/frames.h"
#include "lab/firmware/core/text.h"

namespace orrin {
namespace {

// One TLS record.
constexpr std::size_t kReadSize = 16384;
// What a peer may send ahead while an answer waits for room: one whole request more.
constexpr std::size_t kMaxCiphertextAhead = kMaxHttpBody + (std::size_t{1} << 20);

}  // namespace

void DashSession::FreeSsl::operator()(ssl_st* ssl) const { SSL_free(ssl); }

DashSession::DashSession(const TlsContext& context, PageFacts facts, DashOutput& output)
    : facts_(facts), output_(output), ssl_(SSL_new(context.Get())) {
  BIO* in = BIO_new(BIO_s_mem());
  BIO* out = BIO_new(BIO_s_mem());
  if (!ssl_ || !in || !out) {
    BIO_free(in);
    BIO_free(out);
    ssl_.reset();
    Close("no memory for a TLS session");
    return;
  }
  SSL_set_bio(ssl_.get(), in, out);
  SSL_set_accept_state(ssl_.get());
}

DashSession::~DashSession() = default;

void DashSession::Receive(ByteView ciphertext) {
  if (phase_ == Phase::kClosed) {
    if (!saidIgnoring_) output_.Say("DASH: the session is over, further bytes are ignored");
    saidIgnoring_ = true;
    return;
  }
  BIO* in = SSL_get_rbio(ssl_.get());
  if (BIO_ctrl_pending(in) + ciphertext.size() > kMaxCiphertextAhead) {
    return Close("the peer sends on without taking its answer");
  }
  const int size = static_cast<int>(ciphertext.size());
  if (size > 0 && BIO_write(in, ciphertext.data(), size) != size) return Close("out of memory");
  Pump();
}

void DashSession::Pump() {
  if (phase_ == Phase::kHandshake) ContinueHandshake();
  while (phase_ == Phase::kOpen) {
    if (response_ && !WriteResponse()) break;
    if (!response_ && phase_ == Phase::kOpen && !ReadRequest()) break;
  }
  // While an answer waits for room its last, short piece waits too, to leave in a full frame.
  if (!response_) FlushCiphertext();
}

void DashSession::ContinueHandshake() {
  ERR_clear_error();
  const int result = SSL_accept(ssl_.get());
  if (result != 1) {
    (void)GoesOn(result);  // more bytes are awaited, or the session has been closed
    return;
  }
  phase_ = Phase::kOpen;
  output_.Say(Format("DASH: TLS session open, %s, %s", SSL_get_version(ssl_.get()),
                     SSL_get_cipher_name(ssl_.get())));
}

// False when the peer's bytes don't hold a whole request yet, or none will come.
bool DashSession::ReadRequest() {
  while (!reader_.IsComplete() && reader_.Failure() == 0) {
    if (plaintext_.empty() && !TakePlaintext()) return false;
    const std::size_t taken = reader_.Feed(plaintext_);
    plaintext_.erase(0, taken);
    if (reader_.TakeContinueWish() && !WritePlaintext("HTTP/1.1 100 Continue\r\n\r\n"))
      return false;
  }
  BeginAnswer();
  return true;
}

bool DashSession::TakePlaintext() {
  plaintext_.resize(kReadSize);
  ERR_clear_error();
  const int count = SSL_read(ssl_.get(), plaintext_.data(), static_cast<int>(kReadSize));
  plaintext_.resize(count > 0 ? static_cast<std::size_t>(count) : 0);
  return count > 0 || GoesOn(count);
}

void DashSession::BeginAnswer() {
  if (reader_.Failure() != 0) {
    output_.Say(Format("DASH: request refused with %d", reader_.Failure()));
    return BeginResponse(Refusal(reader_.Failure()), true, false);
  }
  HttpRequest& request = reader_.Request();
  const bool close = !request.keepAlive;
  const bool bare = request.method == "HEAD";
  std::string line = "DASH: " + Printable(request.method + " " + request.target, 200) +
                     Format(", body %zu bytes", request.body.size());
  HttpResponse response = AnswerPage(request, facts_);
  output_.Say(line + Format(": %d", response.status));
  if (response.command) {
    FlushCiphertext();
    output_.SendCommand(*response.command);
  }
  BeginResponse(std::move(response), close, bare);
}

void DashSession::BeginResponse(HttpResponse response, bool close, bool bare) {
  response_.emplace(std::move(response), close, bare);
}

// False while the rest has no room.
bool DashSession::WriteResponse() {
  while (output_.HasRoom()) {
    const std::string_view piece = response_->Next();
    if (piece.empty()) {
      FinishResponse();
      return true;
    }
    if (!WritePlaintext(piece)) return false;
    SendFullFrames();
  }
  return false;
}

// Memory takes everything, so a write that isn't whole is a broken session.
bool DashSession::WritePlaintext(std::string_view text) {
  while (!text.empty()) {
    ERR_clear_error();
    const int count = SSL_write(ssl_.get(), text.data(), static_cast<int>(text.size()));
    if (count <= 0) {
      Close("write failed: " + TakeTlsError());
      return false;
    }
    text.remove_prefix(static_cast<std::size_t>(count));
  }
  return true;
}

void DashSession::FinishResponse() {
  const bool close = response_->ClosesAfter();
  response_.reset();
  reader_.Reset();
  if (close) Close("connection closed after the answer");
}

void DashSession::FlushCiphertext() {
  if (!ssl_) return;
  SendFullFrames();
  if (CiphertextPending() > 0) SendFrame(CiphertextPending());
}

void DashSession::SendFullFrames() {
  while (CiphertextPending() >= kMaxPayload) SendFrame(kMaxPayload);
}

void DashSession::SendFrame(std::size_t size) {
  frame_.resize(size);
  const int count =
      BIO_read(SSL_get_wbio(ssl_.get()), frame_.data(), static_cast<int>(frame_.size()));
  if (count > 0) output_.SendDashBytes(ByteView(frame_).first(static_cast<std::size_t>(count)));
}

std::size_t DashSession::CiphertextPending() const {
  return BIO_ctrl_pending(SSL_get_wbio(ssl_.get()));
}

// Always false: an SSL call that gave nothing either waits for more bytes or ends the session.
bool DashSession::GoesOn(int sslResult) {
  switch (SSL_get_error(ssl_.get(), sslResult)) {
    case SSL_ERROR_WANT_READ:
    case SSL_ERROR_WANT_WRITE:
      return false;
    case SSL_ERROR_ZERO_RETURN:
      Close(reader_.IsPartial() ? "the peer closed within a request" : "the peer closed");
      return false;
    default:
      Close("TLS failed: " + TakeTlsError());
      return false;
  }
}

void DashSession::Close(const std::string& words) {
  // Queues close_notify; after a failed handshake OpenSSL refuses it, and its alert goes out alone.
  if (phase_ == Phase::kOpen) (void)SSL_shutdown(ssl_.get());
  ERR_clear_error();
  FlushCiphertext();
  phase_ = Phase::kClosed;
  response_.reset();
  plaintext_.clear();
  reader_.Reset();
  output_.Say("DASH: " + words);
}

}  // namespace orrin
