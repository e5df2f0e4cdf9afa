// HTTP requests through WinHTTP.
#include "platform/http.h"

#include "platform/windows/windows_api.h"
// This needs windows.h.
#include <winhttp.h>

namespace platform {

namespace {

static_assert(kErrorWinHttpTimeout == ERROR_WINHTTP_TIMEOUT);
static_assert(kErrorWinHttpInvalidUrl == ERROR_WINHTTP_INVALID_URL);
static_assert(kErrorWinHttpNameNotResolved == ERROR_WINHTTP_NAME_NOT_RESOLVED);
static_assert(kErrorWinHttpCannotConnect == ERROR_WINHTTP_CANNOT_CONNECT);
static_assert(kErrorWinHttpConnectionError == ERROR_WINHTTP_CONNECTION_ERROR);
static_assert(kErrorWinHttpSecureFailure == ERROR_WINHTTP_SECURE_FAILURE);
static_assert(kWinHttpFlagSecure == WINHTTP_FLAG_SECURE);
static_assert(kIgnoreUnknownCa == SECURITY_FLAG_IGNORE_UNKNOWN_CA);
static_assert(kIgnoreCertCnInvalid == SECURITY_FLAG_IGNORE_CERT_CN_INVALID);
static_assert(kIgnoreCertDateInvalid == SECURITY_FLAG_IGNORE_CERT_DATE_INVALID);

constexpr DWORD kZeroTerminated = static_cast<DWORD>(-1);

const wchar_t* Wide(const char16_t* text) { return reinterpret_cast<const wchar_t*>(text); }

}  // namespace

void WinHttpCloseHandle(RawHandle raw) { ::WinHttpCloseHandle(raw); }

HttpSession WinHttpOpen(const char16_t* agent) {
  return HttpSession(::WinHttpOpen(Wide(agent), WINHTTP_ACCESS_TYPE_DEFAULT_PROXY,
                                   WINHTTP_NO_PROXY_NAME, WINHTTP_NO_PROXY_BYPASS, 0));
}

bool WinHttpSetTimeouts(const HttpSession& session, int resolve, int connect, int send,
                        int receive) {
  return ::WinHttpSetTimeouts(session.Raw(), resolve, connect, send, receive) != FALSE;
}

HttpConnection WinHttpConnect(const HttpSession& session, const char16_t* host,
                              std::uint16_t port) {
  return HttpConnection(::WinHttpConnect(session.Raw(), Wide(host), port, 0));
}

HttpRequest WinHttpOpenRequest(const HttpConnection& connection, const char16_t* verb,
                               const char16_t* path, std::uint32_t flags) {
  return HttpRequest(::WinHttpOpenRequest(connection.Raw(), Wide(verb), Wide(path), nullptr,
                                          WINHTTP_NO_REFERER, WINHTTP_DEFAULT_ACCEPT_TYPES, flags));
}

bool WinHttpAddRequestHeaders(const HttpRequest& request, const char16_t* headers) {
  return ::WinHttpAddRequestHeaders(request.Raw(), Wide(headers), kZeroTerminated,
                                    WINHTTP_ADDREQ_FLAG_ADD_IF_NEW) != FALSE;
}

bool WinHttpSetSecurityFlags(const HttpRequest& request, std::uint32_t flags) {
  DWORD value = flags;
  return ::WinHttpSetOption(request.Raw(), WINHTTP_OPTION_SECURITY_FLAGS, &value, sizeof value) !=
         FALSE;
}

// The request has the headers already. Given once more they would be added, not compared: whether
// they then go out twice is left to the version of WinHTTP, so they aren't given.
bool WinHttpSendRequest(const HttpRequest& request, const char16_t*, const char* body,
                        std::uint32_t size) {
  return ::WinHttpSendRequest(request.Raw(), WINHTTP_NO_ADDITIONAL_HEADERS, 0,
                              const_cast<char*>(body), size, size, 0) != FALSE;
}

}  // namespace platform
