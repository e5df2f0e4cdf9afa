// A TLS client over memory: what a viewer at the far end of the relay would say.
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "lab/firmware/bytes.h"

struct ssl_st;
struct ssl_ctx_st;

namespace labtest {

class TlsClient {
 public:
  TlsClient();
  // Ciphertext from the server.
  void Receive(orrin::ByteView bytes);
  // Plaintext for the server; before the handshake is over it waits.
  void Say(std::string_view text);
  // Ciphertext for the server, empty when there is none.
  orrin::Bytes TakeOutput();
  // All plaintext so far.
  const std::string& Heard() const { return heard_; }
  bool WasClosed() const { return closed_; }
  std::string ServerName() const;  // the certificate's common name

 private:
  void Advance();

  struct FreeContext {
    void operator()(ssl_ctx_st* context) const;
  };
  struct FreeSsl {
    void operator()(ssl_st* ssl) const;
  };
  std::unique_ptr<ssl_ctx_st, FreeContext> context_;
  std::unique_ptr<ssl_st, FreeSsl> ssl_;
  std::string waiting_;
  std::string heard_;
  bool closed_ = false;
};

}  // namespace labtest
