#include "service/actions/indications.h"

#include <algorithm>
#include <cassert>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <new>
#include <string_view>

#include "platform/error.h"
#include "platform/http.h"
#include "service/actions/actions_state.h"
#include "service/diagnostics/service_log.h"

namespace stewardry {

namespace {

constexpr std::size_t kMaxEvent = 4096;  // with its zero
constexpr std::size_t kMaxHeader = 1024;
constexpr int kTimeoutMs = 10'000;
// A time-out covers one step, or one packet in it: without a bound for the whole post, a listener
// that answers byte by byte would block the reader thread for ever.
constexpr std::uint32_t kPostBoundMs = 40'000;
constexpr std::uint32_t kMaxPort = 65535;
constexpr std::uint32_t kHttpPort = 80;
constexpr std::uint32_t kHttpsPort = 443;

bool IsControl(char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7F; }

// Accepts the characters of a name or an address, also of an IPv6 address in brackets with its
// zone. Names with letters beyond ASCII are resolved by the platform.
bool IsHostCharacter(char c) {
  constexpr std::string_view kSigns = ".-_:[]%";
  return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') ||
         static_cast<unsigned char>(c) >= 0x80 || kSigns.find(c) != std::string_view::npos;
}

// Appears in the foreground only; a service has no standard output.
void PrintError(const char* format) {
  std::printf(format, platform::LastError());
  std::fflush(stdout);
}

struct Header {
  char text[kMaxHeader];
};

// Returns false if the header was cut or fills its place to the last byte.
bool FormatHeader(Header* header, const char* host, std::uint32_t port, std::size_t bodySize) {
  *header = {};
  return FormatTo(header->text, sizeof header->text,
                  "Host: %s:%d\r\nContent-Type: application/soap+xml;charset=UTF-8\r\n"
                  "Accept: */*\r\nContent-Length: %zd\r\n",
                  host, port, bodySize) < sizeof header->text - 1;
}

// Returns the reason why nothing can be posted there, or null.
const char* FindFault(std::string_view host, std::uint32_t port, std::string_view path) {
  if (host.empty() || !std::all_of(host.begin(), host.end(), IsHostCharacter))
    return "the host is no name and no address";
  if (std::any_of(path.begin(), path.end(), IsControl)) return "control characters in the path";
  if (port > kMaxPort) return "the port is none";
  return nullptr;
}

void LogRefusal(const char* why) { LogError("Indication not posted: %s", why); }

// Sets the request's headers and options and sends it.
void SendPost(const platform::HttpRequest& request, const char16_t* header, const char* body) {
  const bool isAdded = platform::WinHttpAddRequestHeaders(request, header);
  if (!platform::WinHttpSetSecurityFlags(request, platform::kIgnoreUnknownCa |
                                                      platform::kIgnoreCertCnInvalid |
                                                      platform::kIgnoreCertDateInvalid))
    return PrintError("Error %u Options not set.\n");
  // Headers that have been added would be sent twice.
  if (!platform::WinHttpSendRequest(request, isAdded ? nullptr : header, body,
                                    static_cast<std::uint32_t>(std::strlen(body)), kPostBoundMs))
    PrintError("Error %u Request not sent.\n");
}

// Each handle is closed before the one from which it was created.
void PostWide(const char16_t* host, std::uint16_t port, const char16_t* path, bool secure,
              const char16_t* header, const char* body) {
  const platform::HttpSession session = platform::WinHttpOpen(u"WinHTTP Example/1.0");
  if (!session) return PrintError("Error %u Session not established.\n");
  // A failure leaves WinHTTP's default time-outs, which are of the same order.
  (void)platform::WinHttpSetTimeouts(session, kTimeoutMs, kTimeoutMs, kTimeoutMs, kTimeoutMs);
  const platform::HttpConnection connection = platform::WinHttpConnect(session, host, port);
  if (!connection) return PrintError("Error %u Connection not attempted.\n");
  const platform::HttpRequest request = platform::WinHttpOpenRequest(
      connection, u"POST", path, secure ? platform::kWinHttpFlagSecure : 0);
  if (!request) return PrintError("Error %u Request not opened.\n");
  SendPost(request, header, body);
}

}  // namespace

void IndicationSubscribe(const std::uint8_t* payload, std::uint32_t length) {
  LogInfo("Attempting Indication Subscribe");
  constexpr std::size_t kPath = offsetof(IndicationSubscription, path);
  if (length <= kPath || payload[kPath] == 0) {
    LogInfo("Send size is %lu, so unsubscribing", length);
    gActions->gIndicationSubscribed.store(0, std::memory_order_relaxed);
    return;
  }
  IndicationSubscription& store = gActions->gIndicationSubscription;
  std::memcpy(&store, payload, std::min<std::size_t>(length, sizeof store));
  store.host[std::size(store.host) - 1] = 0;
  store.path[std::size(store.path) - 1] = 0;
  LogInfo("Send size is %d, so subscribing to %s", length, PrintableText(store.host));
  gActions->gIndicationSubscribed.store(1, std::memory_order_relaxed);
}

void IndicationEvent(const std::uint8_t* payload, std::uint32_t length) {
  LogInfo("Attempting Indication Event");
  if (length >= kMaxEvent) return LogRefusal("the event is longer than 4095 bytes");
  char buffer[kMaxEvent] = {};
  std::memcpy(buffer, payload, length);
  if (gActions->gIndicationSubscribed.load(std::memory_order_relaxed) != 1)
    return LogInfo("Not Posting Indication Alert");
  LogInfo("Posting Indication Alert");
  const IndicationSubscription& store = gActions->gIndicationSubscription;
  PostIndication(store.host, store.port, store.path, static_cast<std::int32_t>(store.secure),
                 buffer);
}

void PostIndication(const char* host, std::uint32_t port, const char* path, std::int32_t secure,
                    const char* body) {
  assert(host != nullptr && path != nullptr && body != nullptr);
  if (const char* fault = FindFault(host, port, path); fault != nullptr) return LogRefusal(fault);
  if (port == 0) port = secure != 0 ? kHttpsPort : kHttpPort;
  Header header;
  if (!FormatHeader(&header, host, port, std::strlen(body)))
    return LogRefusal("the host is too long for a header");
  const auto wideHost = ToWideString(host), widePath = ToWideString(path),
             wideHeader = ToWideString(header.text);
  if (wideHost == nullptr || widePath == nullptr || wideHeader == nullptr)
    return LogRefusal("out of memory");
  PostWide(wideHost.get(), static_cast<std::uint16_t>(port), widePath.get(), secure != 0,
           wideHeader.get(), body);
}

std::unique_ptr<char16_t[]> ToWideString(const char* text) {
  if (text == nullptr) return nullptr;
  const std::size_t size = std::strlen(text) + 1;
  std::unique_ptr<char16_t[]> wide(new (std::nothrow) char16_t[size]);
  if (wide != nullptr)
    std::transform(text, text + size, wide.get(),
                   [](char c) { return static_cast<char16_t>(static_cast<unsigned char>(c)); });
  return wide;
}

}  // namespace stewardry
