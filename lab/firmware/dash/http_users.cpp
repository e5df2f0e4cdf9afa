#include "lab/firmware/dash/http_users.h"

#include <openssl/crypto.h>
#include <openssl/evp.h>
#include <openssl/hmac.h>
#include <openssl/rand.h>

#include <algorithm>
#include <cinttypes>
#include <cstdlib>

#include "cim/text/base64.h"
#include "lab/firmware/core/text.h"

namespace orrin {
namespace {

constexpr char kRealm[] = "orrin";
constexpr std::size_t kNonceHead = 32;  // hexadecimal digits: the time and random bytes
constexpr std::size_t kSignature = 32;  // hexadecimal digits

struct Algorithm {
  const char* name;
  const EVP_MD* (*digest)();
};
// The strongest first (RFC 7616, section 3.7).
constexpr std::array<Algorithm, 2> kAlgorithms = {{{"SHA-256", EVP_sha256}, {"MD5", EVP_md5}}};

std::string Hex(const unsigned char* bytes, std::size_t count) {
  std::string text;
  for (std::size_t i = 0; i < count; ++i) text += Format("%02x", bytes[i]);
  return text;
}

std::string Hash(const Algorithm& algorithm, const std::string& text) {
  unsigned char bytes[EVP_MAX_MD_SIZE];
  unsigned int size = 0;
  const bool isMade =
      EVP_Digest(text.data(), text.size(), bytes, &size, algorithm.digest(), nullptr) == 1;
  return isMade ? Hex(bytes, size) : "";
}

// Takes as long for texts that differ early as for those that differ late.
bool IsSame(const std::string& a, const std::string& b) {
  return a.size() == b.size() && !a.empty() && CRYPTO_memcmp(a.data(), b.data(), a.size()) == 0;
}

// Reads `name=value, name="value"`. Returns nothing for any other text and for a name that stands
// twice.
std::optional<std::map<std::string, std::string>> ReadFields(std::string_view text) {
  std::map<std::string, std::string> fields;
  while (!(text = Trimmed(text)).empty()) {
    const std::size_t equals = text.find('=');
    if (equals == std::string_view::npos) return std::nullopt;
    const std::string name = LowerCase(Trimmed(text.substr(0, equals)));
    text = Trimmed(text.substr(equals + 1));
    std::string value;
    if (text.starts_with('"')) {
      std::size_t at = 1;
      for (; at < text.size() && text[at] != '"'; ++at) {
        if (text[at] == '\\' && at + 1 < text.size()) ++at;
        value += text[at];
      }
      if (at == text.size()) return std::nullopt;
      text.remove_prefix(at + 1);
    } else {
      const std::size_t end = std::min(text.find(','), text.size());
      value = Trimmed(text.substr(0, end));
      text.remove_prefix(end);
    }
    if (!fields.emplace(name, value).second) return std::nullopt;
    text = Trimmed(text);
    if (!text.empty() && !text.starts_with(',')) return std::nullopt;
    if (!text.empty()) text.remove_prefix(1);
  }
  return fields;
}

int Append(const std::uint8_t* bytes, std::size_t count, void* text) {
  static_cast<std::string*>(text)->append(bytes, bytes + count);
  return 0;
}

}  // namespace

HttpUsers::HttpUsers() { RenewKey(); }

void HttpUsers::RenewKey() {
  // A key that others know would let them make nonces; TLS could not work either.
  if (RAND_bytes(key_.data(), static_cast<int>(key_.size())) != 1) std::abort();
  used_.clear();
}

void HttpUsers::Add(const std::string& name, std::string_view password, Role role) {
  User user{{}, role};
  for (std::size_t i = 0; i < kAlgorithms.size(); ++i)
    user.secrets[i] = Hash(kAlgorithms[i], name + ":" + kRealm + ":" + std::string(password));
  users_[name] = user;
}

HttpUsers::Verdict HttpUsers::Identify(const HttpRequest& request, HttpClock::time_point now) {
  if (users_.empty()) return {Role::kAdministrator};
  const std::string* const field = request.Field("authorization");
  if (field == nullptr) return {};
  std::string_view credentials = *field;
  const std::string_view scheme = TakeWord(&credentials);
  if (SameIgnoringCase(scheme, "Basic")) return CheckBasic(credentials);
  if (!SameIgnoringCase(scheme, "Digest")) return {};
  const auto fields = ReadFields(credentials);
  return fields ? CheckDigest(*fields, request, now) : Verdict{};
}

HttpUsers::Verdict HttpUsers::CheckBasic(std::string_view credentials) const {
  std::string text;
  const auto* bytes = reinterpret_cast<const std::uint8_t*>(credentials.data());
  if (stewardry::cim::Base64Dec(bytes, credentials.size(), Append, &text) < 0) return {};
  const std::size_t colon = text.find(':');
  const auto user = users_.find(text.substr(0, colon));
  if (colon == std::string::npos || user == users_.end()) return {};
  const std::string secret =
      Hash(kAlgorithms[0], user->first + ":" + kRealm + ":" + text.substr(colon + 1));
  return IsSame(secret, user->second.secrets[0]) ? Verdict{user->second.role} : Verdict{};
}

HttpUsers::Verdict HttpUsers::CheckDigest(const Fields& fields, const HttpRequest& request,
                                          HttpClock::time_point now) {
  const auto field = [&fields](const char* name) {
    const auto found = fields.find(name);
    return found == fields.end() ? std::string() : found->second;
  };
  const std::string nonce = field("nonce"), countText = field("nc"), name = field("algorithm");
  const auto user = users_.find(field("username"));
  const auto count =
      countText.size() == 8 ? ParseNumber("0x" + countText, UINT32_MAX) : std::nullopt;
  std::size_t index = 0;
  // Without a name it is MD5, the last.
  while (index + 1 < kAlgorithms.size() && !SameIgnoringCase(name, kAlgorithms[index].name))
    ++index;
  const Algorithm& algorithm = kAlgorithms[index];
  const bool isKnown = name.empty() || SameIgnoringCase(name, algorithm.name);
  if (user == users_.end() || !count || !isKnown || field("qop") != "auth" ||
      field("realm") != kRealm || field("uri") != request.target)
    return {};
  const std::string expected =
      Hash(algorithm, user->second.secrets[index] + ":" + nonce + ":" + countText + ":" +
                          field("cnonce") +
                          ":auth:" + Hash(algorithm, request.method + ":" + request.target));
  if (!IsSame(expected, LowerCase(field("response")))) return {};
  if (!IsFresh(nonce, now) || !UseNonce(nonce, static_cast<std::uint32_t>(*count)))
    return {std::nullopt, true};
  return {user->second.role};
}

std::string HttpUsers::Signature(const std::string& text) const {
  unsigned char bytes[EVP_MAX_MD_SIZE];
  unsigned int size = 0;
  (void)HMAC(EVP_sha256(), key_.data(), static_cast<int>(key_.size()),
             reinterpret_cast<const unsigned char*>(text.data()), text.size(), bytes, &size);
  return Hex(bytes, size).substr(0, kSignature);
}

std::string HttpUsers::MakeNonce(HttpClock::time_point now) const {
  unsigned char random[8] = {};
  (void)RAND_bytes(random, sizeof random);  // the signature is what keeps others from making one
  const auto time = static_cast<std::uint64_t>(now.time_since_epoch().count());
  const std::string head = Format("%016" PRIx64, time) + Hex(random, sizeof random);
  return head + Signature(head);
}

bool HttpUsers::IsFresh(const std::string& nonce, HttpClock::time_point now) const {
  if (nonce.size() != kNonceHead + kSignature) return false;
  const std::string head = nonce.substr(0, kNonceHead);
  if (!IsSame(Signature(head), nonce.substr(kNonceHead))) return false;
  const auto time = ParseNumber("0x" + head.substr(0, 16), INT64_MAX);
  return time && now - HttpClock::time_point(HttpClock::duration(*time)) < kNonceLife;
}

// With a new key, all nonces given so far are stale: none is forgotten that could be sent again.
bool HttpUsers::UseNonce(const std::string& nonce, std::uint32_t count) {
  if (used_.size() == kMostNonces && !used_.contains(nonce)) {
    RenewKey();
    return false;
  }
  std::uint32_t& highest = used_[nonce];
  if (count <= highest) return false;
  highest = count;
  return true;
}

std::vector<std::string> HttpUsers::Challenges(bool isStale, HttpClock::time_point now) {
  std::vector<std::string> challenges;
  for (const Algorithm& algorithm : kAlgorithms)
    challenges.push_back(std::string("Digest realm=\"") + kRealm +
                         "\", qop=\"auth\", algorithm=" + algorithm.name + ", nonce=\"" +
                         MakeNonce(now) + "\", charset=UTF-8" + (isStale ? ", stale=true" : ""));
  challenges.push_back(std::string("Basic realm=\"") + kRealm + "\", charset=\"UTF-8\"");
  return challenges;
}

}  // namespace orrin
