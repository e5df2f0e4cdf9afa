#include "lab/firmware/dash/tls_context.h"

#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/rand.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>

#include <cstring>

namespace orrin {
namespace {

constexpr long kDay = 24L * 60 * 60;
constexpr long kLifetime = 365 * kDay;

struct FreeKey {
  void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
};
struct FreeCertificate {
  void operator()(X509* certificate) const { X509_free(certificate); }
};
struct FreeExtension {
  void operator()(X509_EXTENSION* extension) const { X509_EXTENSION_free(extension); }
};
using Key = std::unique_ptr<EVP_PKEY, FreeKey>;
using Certificate = std::unique_ptr<X509, FreeCertificate>;

bool AddExtension(X509* certificate, int nid, const char* value) {
  X509V3_CTX context;
  X509V3_set_ctx_nodb(&context);
  X509V3_set_ctx(&context, certificate, certificate, nullptr, nullptr, 0);
  const std::unique_ptr<X509_EXTENSION, FreeExtension> extension(
      X509V3_EXT_conf_nid(nullptr, &context, nid, value));
  return extension != nullptr && X509_add_ext(certificate, extension.get(), -1) == 1;
}

bool SetName(X509* certificate) {
  X509_NAME* name = X509_get_subject_name(certificate);
  const auto* text = reinterpret_cast<const unsigned char*>("orrin");
  return X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC, text, -1, -1, 0) == 1 &&
         X509_set_issuer_name(certificate, name) == 1;
}

Certificate MakeCertificate(EVP_PKEY* key) {
  Certificate certificate(X509_new());
  std::uint32_t serial = 0;
  if (!certificate || RAND_bytes(reinterpret_cast<unsigned char*>(&serial), sizeof serial) != 1) {
    return nullptr;
  }
  X509* raw = certificate.get();
  // The day before covers a client whose clock is behind.
  const bool made = X509_set_version(raw, X509_VERSION_3) == 1 &&
                    ASN1_INTEGER_set_uint64(X509_get_serialNumber(raw), serial) == 1 &&
                    X509_gmtime_adj(X509_getm_notBefore(raw), -kDay) != nullptr &&
                    X509_gmtime_adj(X509_getm_notAfter(raw), kLifetime) != nullptr &&
                    X509_set_pubkey(raw, key) == 1 && SetName(raw) &&
                    AddExtension(raw, NID_subject_alt_name, "DNS:orrin,DNS:localhost") &&
                    X509_sign(raw, key, EVP_sha256()) > 0;
  return made ? std::move(certificate) : nullptr;
}

// Selects HTTP/1.1 by ALPN. A peer that does not offer it gets no protocol selected.
int SelectProtocol(SSL*, const unsigned char** out, unsigned char* outLength,
                   const unsigned char* in, unsigned int inLength, void*) {
  static constexpr unsigned char kHttp11[] = "\x08http/1.1";
  unsigned char* selected = nullptr;
  const int result =
      SSL_select_next_proto(&selected, outLength, kHttp11, sizeof kHttp11 - 1, in, inLength);
  *out = selected;
  return result == OPENSSL_NPN_NEGOTIATED ? SSL_TLSEXT_ERR_OK : SSL_TLSEXT_ERR_NOACK;
}

}  // namespace

void TlsContext::Free::operator()(ssl_ctx_st* context) const { SSL_CTX_free(context); }

TlsContext::TlsContext() : context_(SSL_CTX_new(TLS_server_method())) {
  const Key key(EVP_EC_gen("P-256"));
  const Certificate certificate = key ? MakeCertificate(key.get()) : nullptr;
  SSL_CTX* raw = context_.get();
  const bool made = raw != nullptr && certificate != nullptr &&
                    SSL_CTX_use_certificate(raw, certificate.get()) == 1 &&
                    SSL_CTX_use_PrivateKey(raw, key.get()) == 1 &&
                    SSL_CTX_set_min_proto_version(raw, TLS1_2_VERSION) == 1;
  if (!made) {
    problem_ = TakeTlsError();
    context_.reset();
    return;
  }
  SSL_CTX_set_options(raw, SSL_OP_NO_RENEGOTIATION);
  SSL_CTX_set_mode(raw, SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
  SSL_CTX_set_alpn_select_cb(raw, SelectProtocol, nullptr);
}

std::string TakeTlsError() {
  char words[256] = "no reason given";
  const unsigned long code = ERR_get_error();
  if (code != 0) {
    const char* reason = ERR_reason_error_string(code);
    if (reason != nullptr) {
      std::strncpy(words, reason, sizeof words - 1);
    } else {
      ERR_error_string_n(code, words, sizeof words);
    }
  }
  ERR_clear_error();
  return words;
}

}  // namespace orrin
