// HTTP requests through libcurl. A transfer is driven step by step, so that it can end as soon as
// the request is sent, and so that its waits notice the thread's end mark.
#include "platform/http.h"

#include <curl/curl.h>

#include <cassert>
#include <memory>
#include <string>
#include <string_view>

#include "platform/linux/runtime/gate.h"
#include "platform/linux/runtime/last_error.h"
#include "platform/linux/runtime/utf16.h"
#include "platform/linux/runtime/wait.h"

namespace platform {

namespace {

// The state behind each handle; the kind of a handle decides which of the members are used.
struct HttpState {
  std::string agent;
  long resolveMs = 0;  // no limit, as in WinHTTP
  long connectMs = 60'000;
  std::string host;
  std::uint16_t port = 0;
  std::string verb, path;
  bool isSecure = false;
  bool trustsAnyone = false;
  curl_slist* headers = nullptr;

  HttpState() = default;
  HttpState(const HttpState&) = delete;
  HttpState& operator=(const HttpState&) = delete;
  ~HttpState() { curl_slist_free_all(headers); }
};

HttpState& StateOf(RawHandle raw) {
  assert(raw != nullptr);
  return *static_cast<HttpState*>(raw);
}

// Returns the state of a handle below another, with a copy of that one's settings.
std::unique_ptr<HttpState> Inherit(RawHandle above) {
  const HttpState& from = StateOf(above);
  auto state = std::make_unique<HttpState>();
  state->agent = from.agent;
  state->resolveMs = from.resolveMs;
  state->connectMs = from.connectMs;
  state->host = from.host;
  state->port = from.port;
  return state;
}

struct CleanUpEasy {
  void operator()(CURL* easy) const { curl_easy_cleanup(easy); }
};
struct CleanUpMulti {
  void operator()(CURLM* multi) const { curl_multi_cleanup(multi); }
};
using Easy = std::unique_ptr<CURL, CleanUpEasy>;
using Multi = std::unique_ptr<CURLM, CleanUpMulti>;

struct ErrorRow {
  CURLcode code;
  std::uint32_t error;
};
constexpr ErrorRow kErrors[] = {
    {CURLE_URL_MALFORMAT, kErrorWinHttpInvalidUrl},
    {CURLE_COULDNT_RESOLVE_HOST, kErrorWinHttpNameNotResolved},
    {CURLE_COULDNT_RESOLVE_PROXY, kErrorWinHttpNameNotResolved},
    {CURLE_COULDNT_CONNECT, kErrorWinHttpCannotConnect},
    {CURLE_OPERATION_TIMEDOUT, kErrorWinHttpTimeout},
    {CURLE_SSL_CONNECT_ERROR, kErrorWinHttpSecureFailure},
    {CURLE_PEER_FAILED_VERIFICATION, kErrorWinHttpSecureFailure},
    {CURLE_OUT_OF_MEMORY, kErrorNotEnoughMemory},
};

std::uint32_t ErrorOf(CURLcode code) {
  for (const ErrorRow& row : kErrors)
    if (row.code == code) return row.error;
  return kErrorWinHttpConnectionError;
}

std::string UrlOf(const HttpState& state) {
  const bool isIpv6 = state.host.find(':') != std::string::npos && state.host.front() != '[';
  return (state.isSecure ? "https://" : "http://") +
         (isIpv6 ? "[" + state.host + "]" : state.host) + ":" + std::to_string(state.port) +
         state.path;
}

// The response isn't read; this drops what arrives before the request is sent.
std::size_t Discard(char*, std::size_t size, std::size_t count, void*) { return size * count; }

void SetUp(CURL* easy, const HttpState& state, const char* body, std::uint32_t size,
           std::uint32_t boundMs) {
  const long checked = state.trustsAnyone ? 0 : 1;
  curl_easy_setopt(easy, CURLOPT_URL, UrlOf(state).c_str());
  curl_easy_setopt(easy, CURLOPT_PROTOCOLS_STR, "http,https");
  curl_easy_setopt(easy, CURLOPT_PATH_AS_IS, 1L);
  curl_easy_setopt(easy, CURLOPT_CUSTOMREQUEST, state.verb.c_str());
  curl_easy_setopt(easy, CURLOPT_USERAGENT, state.agent.c_str());
  curl_easy_setopt(easy, CURLOPT_HTTP_VERSION, long{CURL_HTTP_VERSION_1_1});
  curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE_LARGE, curl_off_t{size});
  curl_easy_setopt(easy, CURLOPT_POSTFIELDS, body);
  curl_easy_setopt(easy, CURLOPT_HTTPHEADER, state.headers);
  curl_easy_setopt(easy, CURLOPT_SSL_VERIFYPEER, checked);
  curl_easy_setopt(easy, CURLOPT_SSL_VERIFYHOST, 2 * checked);
  curl_easy_setopt(easy, CURLOPT_CONNECTTIMEOUT_MS, state.resolveMs + state.connectMs);
  curl_easy_setopt(easy, CURLOPT_TIMEOUT_MS, long{boundMs});
  curl_easy_setopt(easy, CURLOPT_QUICK_EXIT, 1L);  // doesn't wait for a name look-up
  curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, Discard);
}

// Returns a resource as the request line has it: WinHTTP escapes blanks. A # would end it in a URL.
std::string Escaped(const std::string& path) {
  std::string escaped;
  for (const char c : path)
    escaped += c == ' ' ? std::string("%20") : c == '#' ? std::string("%23") : std::string(1, c);
  return escaped;
}

// Returns whether the connection has taken the whole request. Requests to a proxy on the way don't
// count.
bool IsSent(CURL* easy, std::uint32_t size) {
  long head = 0;
  curl_off_t sent = 0, connectedAt = 0;
  curl_easy_getinfo(easy, CURLINFO_REQUEST_SIZE, &head);
  curl_easy_getinfo(easy, CURLINFO_SIZE_UPLOAD_T, &sent);
  curl_easy_getinfo(easy, CURLINFO_PRETRANSFER_TIME_T, &connectedAt);
  return head > 0 && connectedAt > 0 && sent >= curl_off_t{size};
}

// Blocks until the connection makes progress. Leaves the thread if it was terminated.
void AwaitMore(CURLM* multi) {
  constexpr int kTurnMs = 1000;  // libcurl shortens it to its own next deadline
  const int mark = EndDescriptor();
  curl_waitfd extra{mark, CURL_WAIT_POLLIN, 0};
  curl_multi_poll(multi, &extra, mark < 0 ? 0 : 1, kTurnMs, nullptr);
  LeaveIfEnded();
}

// Returns the result of a transfer that ended before the request was sent.
CURLcode ResultOf(CURLM* multi) {
  int left = 0;
  const CURLMsg* message = curl_multi_info_read(multi, &left);
  return message == nullptr ? CURLE_SEND_ERROR : message->data.result;
}

CURLcode Drive(CURLM* multi, CURL* easy, std::uint32_t size) {
  for (int running = 1;;) {
    if (curl_multi_perform(multi, &running) != CURLM_OK) return CURLE_FAILED_INIT;
    if (IsSent(easy, size)) return CURLE_OK;
    if (running == 0) return ResultOf(multi);
    AwaitMore(multi);
  }
}

// Owns a transfer's place in its driver; it must end before either.
class Attached {
 public:
  Attached(CURLM* multi, CURL* easy) : multi_(multi), easy_(easy) {
    isAttached_ = curl_multi_add_handle(multi, easy) == CURLM_OK;
  }
  Attached(const Attached&) = delete;
  Attached& operator=(const Attached&) = delete;
  ~Attached() {
    if (isAttached_) curl_multi_remove_handle(multi_, easy_);
  }
  explicit operator bool() const { return isAttached_; }

 private:
  CURLM* multi_;
  CURL* easy_;
  bool isAttached_;
};

CURLcode Send(const HttpState& state, const char* body, std::uint32_t size, std::uint32_t boundMs) {
  const Multi multi(curl_multi_init());
  const Easy easy(curl_easy_init());
  if (!multi || !easy) return CURLE_OUT_OF_MEMORY;
  SetUp(easy.get(), state, body, size, boundMs);
  const Attached attached(multi.get(), easy.get());
  return attached ? Drive(multi.get(), easy.get(), size) : CURLE_FAILED_INIT;
}

// Returns the name of a header line, with its colon.
std::string_view NameOf(std::string_view line) { return line.substr(0, line.find(':') + 1); }

bool HasHeader(const curl_slist* headers, std::string_view name) {
  for (; headers != nullptr; headers = headers->next)
    if (NameOf(headers->data) == name) return true;
  return false;
}

bool AddHeader(curl_slist** headers, const std::string& line) {
  if (HasHeader(*headers, NameOf(line))) return true;
  curl_slist* longer = curl_slist_append(*headers, line.c_str());
  if (longer == nullptr) return Fail(kErrorNotEnoughMemory);
  *headers = longer;
  return true;
}

bool AddHeaders(curl_slist** headers, const std::string& text) {
  for (std::size_t at = 0, end; (end = text.find("\r\n", at)) != std::string::npos; at = end + 2)
    if (!AddHeader(headers, text.substr(at, end - at))) return false;
  return true;
}

}  // namespace

void WinHttpCloseHandle(RawHandle raw) {
  gate::Note("WinHttpCloseHandle");
  delete static_cast<HttpState*>(raw);
}

HttpSession WinHttpOpen(const char16_t* agent) {
  const std::string name = Utf16ToUtf8(agent);
  if (gate::Fails("WinHttpOpen", "%s", name.c_str())) return HttpSession();
  static const CURLcode started = curl_global_init(CURL_GLOBAL_DEFAULT);
  if (started != CURLE_OK) return Fail(kErrorNotEnoughMemory, HttpSession());
  auto state = std::make_unique<HttpState>();
  state->agent = name;
  return HttpSession(state.release());
}

// The limit for sending is part of the bound of WinHttpSendRequest.
bool WinHttpSetTimeouts(const HttpSession& session, int resolve, int connect, int send,
                        int receive) {
  if (gate::Fails("WinHttpSetTimeouts", "%d,%d,%d,%d", resolve, connect, send, receive))
    return false;
  HttpState& state = StateOf(session.Raw());
  state.resolveMs = resolve;
  state.connectMs = connect;
  return true;
}

HttpConnection WinHttpConnect(const HttpSession& session, const char16_t* host,
                              std::uint16_t port) {
  const std::string name = Utf16ToUtf8(host);
  if (gate::Fails("WinHttpConnect", "%s,%u", name.c_str(), port)) return HttpConnection();
  if (name.empty()) return Fail(kErrorWinHttpInvalidUrl, HttpConnection());
  auto state = Inherit(session.Raw());
  state->host = name;
  state->port = port;
  return HttpConnection(state.release());
}

HttpRequest WinHttpOpenRequest(const HttpConnection& connection, const char16_t* verb,
                               const char16_t* path, std::uint32_t flags) {
  const std::string resource = Utf16ToUtf8(path);
  if (gate::Fails("WinHttpOpenRequest", "%s,%s,0x%x", Utf16ToUtf8(verb).c_str(), resource.c_str(),
                  flags))
    return HttpRequest();
  auto state = Inherit(connection.Raw());
  state->verb = Utf16ToUtf8(verb);
  state->path = Escaped(resource.starts_with('/') ? resource : "/" + resource);
  state->isSecure = (flags & kWinHttpFlagSecure) != 0;
  return HttpRequest(state.release());
}

bool WinHttpAddRequestHeaders(const HttpRequest& request, const char16_t* headers) {
  const std::string text = Utf16ToUtf8(headers);
  if (gate::Fails("WinHttpAddRequestHeaders", "%s", text.c_str())) return false;
  return AddHeaders(&StateOf(request.Raw()).headers, text);
}

bool WinHttpSetSecurityFlags(const HttpRequest& request, std::uint32_t flags) {
  if (gate::Fails("WinHttpSetOption", "31,0x%x", flags)) return false;
  constexpr std::uint32_t kAll = kIgnoreUnknownCa | kIgnoreCertCnInvalid | kIgnoreCertDateInvalid;
  StateOf(request.Raw()).trustsAnyone =
      (flags & kAll) == kAll;  // libcurl can't ignore a part of it
  return true;
}

bool WinHttpSendRequest(const HttpRequest& request, const char16_t* headers, const char* body,
                        std::uint32_t size, std::uint32_t boundMs) {
  const std::string more = headers != nullptr ? Utf16ToUtf8(headers) : std::string();
  if (gate::Fails("WinHttpSendRequest", "%u,%u%s", size, boundMs, more.empty() ? "" : ",headers"))
    return false;
  HttpState& state = StateOf(request.Raw());
  // Without the empty Expect libcurl would wait for the listener's consent before a long body.
  if (!AddHeaders(&state.headers, more) || !AddHeader(&state.headers, "Expect:")) return false;
  const CURLcode code = Send(state, body, size, boundMs);
  return code == CURLE_OK || Fail(ErrorOf(code));
}

}  // namespace platform
