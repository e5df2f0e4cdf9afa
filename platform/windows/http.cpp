#include "platform/http.h"

#include <cassert>
#include <memory>
#include <string>
#include <utility>

#include "platform/windows/runtime/windows_api.h"
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

// The data of a request. WinHTTP reads it until the request's handle has been closed, also if the
// sending thread was terminated, so the last callback of the handle deletes it.
struct Sending {
  std::wstring headers;
  std::string body;
  HANDLE done = ::CreateEventA(nullptr, TRUE, FALSE, nullptr);
  // Written by a thread of WinHTTP before it sets `done`; read after the wait for it.
  DWORD error = ERROR_SUCCESS;

  Sending() = default;
  Sending(const Sending&) = delete;
  Sending& operator=(const Sending&) = delete;
  ~Sending() {
    if (done != nullptr) ::CloseHandle(done);
  }
};

void CALLBACK Notify(HINTERNET, DWORD_PTR context, DWORD status, void* information, DWORD) {
  auto* sending = reinterpret_cast<Sending*>(context);
  if (sending == nullptr) return;
  if (status == WINHTTP_CALLBACK_STATUS_HANDLE_CLOSING) {
    const std::unique_ptr<Sending> last(sending);  // the last callback of a handle
    return;
  }
  if (status == WINHTTP_CALLBACK_STATUS_REQUEST_ERROR)
    sending->error = static_cast<const WINHTTP_ASYNC_RESULT*>(information)->dwError;
  ::SetEvent(sending->done);  // the callback's flags are those of a sent or a failed request
}

// Transfers `sending` to the request. Returns false on failure, with the last error.
bool Attach(HINTERNET request, std::unique_ptr<Sending> sending) {
  constexpr DWORD kWanted = WINHTTP_CALLBACK_FLAG_SENDREQUEST_COMPLETE |
                            WINHTTP_CALLBACK_FLAG_REQUEST_ERROR |
                            WINHTTP_CALLBACK_STATUS_HANDLE_CLOSING;  // its own flag
  auto context = reinterpret_cast<DWORD_PTR>(sending.get());
  if (::WinHttpSetStatusCallback(request, Notify, kWanted, 0) == WINHTTP_INVALID_STATUS_CALLBACK ||
      !::WinHttpSetOption(request, WINHTTP_OPTION_CONTEXT_VALUE, &context, sizeof context))
    return false;
  (void)sending.release();  // Notify deletes it
  return true;
}

}  // namespace

void WinHttpCloseHandle(RawHandle raw) { ::WinHttpCloseHandle(raw); }

HttpSession WinHttpOpen(const char16_t* agent) {
  return HttpSession(::WinHttpOpen(Wide(agent), WINHTTP_ACCESS_TYPE_DEFAULT_PROXY,
                                   WINHTTP_NO_PROXY_NAME, WINHTTP_NO_PROXY_BYPASS,
                                   WINHTTP_FLAG_ASYNC));
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

bool WinHttpSendRequest(const HttpRequest& request, const char16_t* headers, const char* body,
                        std::uint32_t size, std::uint32_t boundMs) {
  assert(body != nullptr);
  auto made = std::make_unique<Sending>();
  if (made->done == nullptr) return false;
  if (headers != nullptr) made->headers = Wide(headers);
  const wchar_t* more = headers != nullptr ? made->headers.c_str() : WINHTTP_NO_ADDITIONAL_HEADERS;
  made->body.assign(body, size);
  Sending* sending = made.get();
  if (!Attach(request.Raw(), std::move(made))) return false;
  if (!::WinHttpSendRequest(request.Raw(), more, headers != nullptr ? kZeroTerminated : 0,
                            sending->body.data(), size, size, reinterpret_cast<DWORD_PTR>(sending)))
    return false;
  const bool isDone = ::WaitForSingleObject(sending->done, boundMs) == WAIT_OBJECT_0;
  const DWORD error = isDone ? sending->error : ERROR_WINHTTP_TIMEOUT;
  ::SetLastError(error);
  return error == ERROR_SUCCESS;
}

}  // namespace platform
