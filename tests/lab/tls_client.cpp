#include "tests/lab/tls_client.h"

#include <openssl/bio.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>

namespace labtest {

void TlsClient::FreeContext::operator()(ssl_ctx_st* context) const { SSL_CTX_free(context); }
void TlsClient::FreeSsl::operator()(ssl_st* ssl) const { SSL_free(ssl); }

TlsClient::TlsClient() : context_(SSL_CTX_new(TLS_client_method())), ssl_(SSL_new(context_.get())) {
  SSL_set_bio(ssl_.get(), BIO_new(BIO_s_mem()), BIO_new(BIO_s_mem()));
  SSL_set_connect_state(ssl_.get());
  Advance();
}

void TlsClient::Receive(orrin::ByteView bytes) {
  BIO_write(SSL_get_rbio(ssl_.get()), bytes.data(), static_cast<int>(bytes.size()));
  Advance();
}

void TlsClient::Say(std::string_view text) {
  waiting_.append(text);
  Advance();
}

orrin::Bytes TlsClient::TakeOutput() {
  BIO* out = SSL_get_wbio(ssl_.get());
  orrin::Bytes bytes(BIO_ctrl_pending(out));
  if (!bytes.empty()) BIO_read(out, bytes.data(), static_cast<int>(bytes.size()));
  return bytes;
}

std::string TlsClient::ServerName() const {
  std::unique_ptr<X509, decltype(&X509_free)> certificate(SSL_get1_peer_certificate(ssl_.get()),
                                                          X509_free);
  char name[64] = "";
  if (certificate) {
    X509_NAME_get_text_by_NID(X509_get_subject_name(certificate.get()), NID_commonName, name,
                              sizeof(name));
  }
  return name;
}

void TlsClient::Advance() {
  if (SSL_do_handshake(ssl_.get()) != 1) return;
  if (!waiting_.empty()) {
    SSL_write(ssl_.get(), waiting_.data(), static_cast<int>(waiting_.size()));
    waiting_.clear();
  }
  char bytes[16384];
  int count = 0;
  while ((count = SSL_read(ssl_.get(), bytes, sizeof(bytes))) > 0) {
    heard_.append(bytes, static_cast<std::size_t>(count));
  }
  closed_ = closed_ || SSL_get_error(ssl_.get(), count) == SSL_ERROR_ZERO_RETURN;
}

}  // namespace labtest
