// Users of the firmware's HTTP server, who prove themselves by Digest (RFC 7616: SHA-256 or MD5,
// qop auth) or Basic (RFC 7617). Without users everybody may do everything.
//
// A nonce is signed, so that a peer without a password fills no table: only nonces of answered
// requests are kept, each with its highest count, which refuses a request that is sent again.
#pragma once

#include <array>
#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "lab/firmware/dash/http_request.h"

namespace orrin {

enum class Role : std::uint8_t { kOperator, kAdministrator };  // an operator may only read

using HttpClock = std::chrono::steady_clock;

inline constexpr std::chrono::minutes kNonceLife{5};
inline constexpr std::size_t kMostNonces = 1024;

// One thread.
class HttpUsers {
 public:
  HttpUsers();

  // Adds a user, or replaces the one of that name.
  void Add(const std::string& name, std::string_view password, Role role);
  // Returns false if there is no such user.
  bool Remove(const std::string& name) { return users_.erase(name) > 0; }

  struct Verdict {
    std::optional<Role> role;  // nothing: refuse with 401 and the challenges
    bool isStale = false;      // the password is right, but the nonce cannot be used any more
  };
  // Says whose request it is. Requires the target as it was sent.
  Verdict Identify(const HttpRequest& request, HttpClock::time_point now);
  // Returns the values of the WWW-Authenticate fields of a refusal.
  std::vector<std::string> Challenges(bool isStale, HttpClock::time_point now);

 private:
  // What a Digest answer is checked with, for each of the algorithms, in hexadecimal.
  struct User {
    std::array<std::string, 2> secrets;
    Role role;
  };
  using Fields = std::map<std::string, std::string>;

  Verdict CheckDigest(const Fields& fields, const HttpRequest& request, HttpClock::time_point now);
  Verdict CheckBasic(std::string_view credentials) const;
  std::string MakeNonce(HttpClock::time_point now) const;
  std::string Signature(const std::string& text) const;
  bool IsFresh(const std::string& nonce, HttpClock::time_point now) const;
  bool UseNonce(const std::string& nonce, std::uint32_t count);
  void RenewKey();

  std::map<std::string, User> users_;
  std::array<unsigned char, 32> key_{};
  std::map<std::string, std::uint32_t> used_;  // nonces and their highest counts
};

}  // namespace orrin
