// The identity of the firmware's HTTPS server: a P-256 key and a certificate that it signs itself,
// both created at start and never stored.
#pragma once

#include <memory>
#include <string>

struct ssl_ctx_st;

namespace orrin {

class TlsContext {
 public:
  // Creates the key, the certificate (subject CN=orrin) and a server context for TLS 1.2 and later.
  TlsContext();
  // Returns false if OpenSSL failed; Problem() returns the reason.
  bool IsGood() const { return problem_.empty(); }
  const std::string& Problem() const { return problem_; }
  // Returns null unless IsGood().
  ssl_ctx_st* Get() const { return context_.get(); }

 private:
  struct Free {
    void operator()(ssl_ctx_st* context) const;
  };
  std::unique_ptr<ssl_ctx_st, Free> context_;
  std::string problem_;
};

// Returns the oldest error in this thread's OpenSSL queue, in words. Empties the queue.
std::string TakeTlsError();

}  // namespace orrin
