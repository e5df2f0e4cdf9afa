// HTTP and HTTPS requests whose responses are not read. Text is UTF-16. One thread at a time uses a
// session and what was made from it; a handle must be closed before the one it was made from. On
// Linux libcurl sends the requests.
#pragma once

#include <cstdint>

#include "platform/handle.h"

namespace platform {

// Numbers of winhttp.h.
enum : std::uint32_t {
  kErrorWinHttpTimeout = 12002,
  kErrorWinHttpInvalidUrl = 12005,
  kErrorWinHttpNameNotResolved = 12007,
  kErrorWinHttpCannotConnect = 12029,
  kErrorWinHttpConnectionError = 12030,
  kErrorWinHttpSecureFailure = 12175,
};

// WINHTTP_FLAG_SECURE: HTTPS.
inline constexpr std::uint32_t kWinHttpFlagSecure = 0x800000;
// SECURITY_FLAG_IGNORE_UNKNOWN_CA, _CERT_CN_INVALID and _CERT_DATE_INVALID.
inline constexpr std::uint32_t kIgnoreUnknownCa = 0x100;
inline constexpr std::uint32_t kIgnoreCertCnInvalid = 0x1000;
inline constexpr std::uint32_t kIgnoreCertDateInvalid = 0x2000;

void WinHttpCloseHandle(RawHandle raw);
using HttpSession = Owned<struct HttpSessionTag, WinHttpCloseHandle>;
using HttpConnection = Owned<struct HttpConnectionTag, WinHttpCloseHandle>;
using HttpRequest = Owned<struct HttpRequestTag, WinHttpCloseHandle>;

// Opens an asynchronous session with the default proxy of the system, on Linux of the environment:
// only an asynchronous request may be closed while it is sent.
HttpSession WinHttpOpen(const char16_t* agent);

// Sets the time-outs in milliseconds; 0 is no limit.
bool WinHttpSetTimeouts(const HttpSession& session, int resolve, int connect, int send,
                        int receive);

// Stores the host, a name or an address, and the TCP port. Sends nothing.
HttpConnection WinHttpConnect(const HttpSession& session, const char16_t* host, std::uint16_t port);

// Creates a request with the default version and accept types; `flags` is 0 or kWinHttpFlagSecure.
HttpRequest WinHttpOpenRequest(const HttpConnection& connection, const char16_t* verb,
                               const char16_t* path, std::uint32_t flags);

// Adds headers, lines that end in CR LF; skips a header that the request has already
// (WINHTTP_ADDREQ_FLAG_ADD_IF_NEW).
bool WinHttpAddRequestHeaders(const HttpRequest& request, const char16_t* headers);

// Sets which faults of the server's certificate are ignored (WINHTTP_OPTION_SECURITY_FLAGS).
bool WinHttpSetSecurityFlags(const HttpRequest& request, std::uint32_t flags);

// Connects and sends the headers and the whole body of `size` bytes. `headers` are further headers,
// or null. Blocks until all of it has been passed to the connection, for at most `boundMs`; then it
// returns false with kErrorWinHttpTimeout, and the request can only be closed. Once per request.
bool WinHttpSendRequest(const HttpRequest& request, const char16_t* headers, const char* body,
                        std::uint32_t size, std::uint32_t boundMs);

}  // namespace platform
