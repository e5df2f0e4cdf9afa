// One HTTP or HTTPS request to a host, as far as the service goes with it: the request is sent and
// the answer isn't read. Text is UTF-16; the operations return when they are done, on any thread,
// one thread for a handle and what was made from it. A handle must go before the one it was made
// from. On Linux libcurl does the work: the lab's service reaches real listeners.
#pragma once

#include <cstdint>

#include "platform/handle.h"

namespace platform {

// Winhttp.h numbers that a failure may give.
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

// WinHttpOpen with the default proxy of the system (on Linux: of the environment). Windows runs the
// requests of the session in the background, and WinHttpSendRequest waits for them: only such a one
// may be closed while it runs.
HttpSession WinHttpOpen(const char16_t* agent);

// WinHttpSetTimeouts, in milliseconds.
bool WinHttpSetTimeouts(const HttpSession& session, int resolve, int connect, int send,
                        int receive);

// WinHttpConnect: notes the host, a name or an address, and the TCP port. Nothing is sent yet.
HttpConnection WinHttpConnect(const HttpSession& session, const char16_t* host, std::uint16_t port);

// WinHttpOpenRequest with default version, no referrer and default accept types; `flags` is 0 or
// kWinHttpFlagSecure.
HttpRequest WinHttpOpenRequest(const HttpConnection& connection, const char16_t* verb,
                               const char16_t* path, std::uint32_t flags);

// WinHttpAddRequestHeaders with WINHTTP_ADDREQ_FLAG_ADD_IF_NEW: lines that end in CR LF; a header
// that the request has already is left out.
bool WinHttpAddRequestHeaders(const HttpRequest& request, const char16_t* headers);

// WinHttpSetOption with WINHTTP_OPTION_SECURITY_FLAGS: what of the listener's certificate isn't
// looked at.
bool WinHttpSetSecurityFlags(const HttpRequest& request, std::uint32_t flags);

// WinHttpSendRequest: connects and sends the headers and `size` bytes of body, which is the whole
// of it. `headers` are more than were added before; null for none. True when everything has been
// given to the connection. Over after `boundMs` in any case: then false with kErrorWinHttpTimeout,
// and the request can only be closed. Once for a request.
bool WinHttpSendRequest(const HttpRequest& request, const char16_t* headers, const char* body,
                        std::uint32_t size, std::uint32_t boundMs);

}  // namespace platform
