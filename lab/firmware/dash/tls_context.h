// The identity of the firmware's HTTPS server: a P-256 key and a certificate that it signs itself,
// both made at start and never stored.
#pragma once

#include <memory>
#include <string>

struct ssl_ctx_st;

namespace orrin {

class TlsContext {
 public:
  // Makes the key, the certificate (subject CN=orrin) and a server context for TLS 1.2 and up.
  TlsContext();
  // False when OpenSSL refused; Problem() says why.
  bool IsGood() const { return problem_.empty(); }
  const std::string& Problem() const { return problem_; }
  // Null unless good.
  ssl_ctx_st* Get() const { return context_.get(); }

 private:
  struct Free {
    void operator()(ssl_ctx_st* context) const;
  };
  std::unique_ptr<ssl_ctx_st, Free> context_;
  std::string problem_;
};

// The oldest reason in OpenSSL's queue of this thread, in words; empties the queue.
std::string TakeTlsError();

}  // namespace orrin
