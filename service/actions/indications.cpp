// The subscription, its events, and the post.
#include "service/actions/indications.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <new>
#include <string_view>

#include "platform/error.h"
#include "platform/http.h"
#include "service/diagnostics/service_log.h"

namespace stewardry {

IndicationSubscription gIndicationSubscription;
std::atomic<std::uint8_t> gIndicationSubscribed{0};

namespace {

constexpr std::size_t kMaxEvent = 4096;  // with its zero
constexpr std::size_t kMaxHeader = 1024;
constexpr int kTimeoutMs = 10'000;
// A time-out is one of a step, or of one packet in it: a listener that answers byte by byte would
// hold the reader thread for as long as it likes.
constexpr std::uint32_t kPostBoundMs = 40'000;
constexpr std::uint32_t kMaxPort = 65535;
constexpr std::uint32_t kHttpPort = 80;
constexpr std::uint32_t kHttpsPort = 443;

bool IsControl(char c) { return static_cast<unsigned char>(c) < 0x20 || c == 0x7F; }

// What a name or an address is written with; in brackets an IPv6 address may stand, with its zone.
// Names in other letters than ASCII's are the platform's to look up.
bool IsOfHost(char c) {
  constexpr std::string_view kSigns = ".-_:[]%";
  return (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') ||
         static_cast<unsigned char>(c) >= 0x80 || kSigns.find(c) != std::string_view::npos;
}

// Nobody sees this of a service; in the foreground it appears at once.
void PrintError(const char* format) {
  std::printf(format, platform::LastError());
  std::fflush(stdout);
}

struct Header {
  char text[kMaxHeader];
};

// False for one that was cut, or that fills its place to the last byte.
bool FormatHeader(Header* header, const char* host, std::uint32_t port, std::size_t bodySize) {
  *header = {};
  return FormatTo(header->text, sizeof header->text,
                  "Host: %s:%d\r\nContent-Type: application/soap+xml;charset=UTF-8\r\n"
                  "Accept: */*\r\nContent-Length: %zd\r\n",
                  host, port, bodySize) < sizeof header->text - 1;
}

// Why there can be no post to that place; null if there can.
const char* FindFault(std::string_view host, std::uint32_t port, std::string_view path) {
  if (host.empty() || !std::all_of(host.begin(), host.end(), IsOfHost))
    return "the host is no name and no address";
  if (std::any_of(path.begin(), path.end(), IsControl)) return "control characters in the path";
  if (port > kMaxPort) return "the port is none";
  return nullptr;
}

void LogRefusal(const char* why) { LogError("Indication not posted: %s", why); }

// The request is there; what is left is its headers, its options and itself.
void SendPost(const platform::HttpRequest& request, const char16_t* header, const char* body) {
  const bool isAdded = platform::WinHttpAddRequestHeaders(request, header);
  if (!platform::WinHttpSetSecurityFlags(request, platform::kIgnoreUnknownCa |
                                                      platform::kIgnoreCertCnInvalid |
                                                      platform::kIgnoreCertDateInvalid))
    return PrintError("Error %u Options not set.\n");
  // Headers that are there already would go out twice.
  if (!platform::WinHttpSendRequest(request, isAdded ? nullptr : header, body,
                                    static_cast<std::uint32_t>(std::strlen(body)), kPostBoundMs))
    PrintError("Error %u Request not sent.\n");
}

// Each handle goes before the one it was made from.
void PostWide(const char16_t* host, std::uint16_t port, const char16_t* path, bool secure,
              const char16_t* header, const char* body) {
  const platform::HttpSession session = platform::WinHttpOpen(u"WinHTTP Example/1.0");
  if (!session) return PrintError("Error %u Session not established.\n");
  // A failure leaves WinHTTP's own time-outs, which are of the same order.
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
    gIndicationSubscribed.store(0, std::memory_order_relaxed);
    return;
  }
  IndicationSubscription& store = gIndicationSubscription;
  std::memcpy(&store, payload, std::min<std::size_t>(length, sizeof store));
  store.host[std::size(store.host) - 1] = 0;
  store.path[std::size(store.path) - 1] = 0;
  LogInfo("Send size is %d, so subscribing to %s", length, PrintableText(store.host));
  gIndicationSubscribed.store(1, std::memory_order_relaxed);
}

void IndicationEvent(const std::uint8_t* payload, std::uint32_t length) {
  LogInfo("Attempting Indication Event");
  if (length >= kMaxEvent) return LogRefusal("the event is longer than 4095 bytes");
  char buffer[kMaxEvent] = {};
  std::memcpy(buffer, payload, length);
  if (gIndicationSubscribed.load(std::memory_order_relaxed) != 1)
    return LogInfo("Not Posting Indication Alert");
  LogInfo("Posting Indication Alert");
  const IndicationSubscription& store = gIndicationSubscription;
  PostIndication(store.host, store.port, store.path, static_cast<std::int32_t>(store.secure),
                 buffer);
}

void PostIndication(const char* host, std::uint32_t port, const char* path, std::int32_t secure,
                    const char* body) {
  if (const char* fault = FindFault(host, port, path)) return LogRefusal(fault);
  if (port == 0) port = secure != 0 ? kHttpsPort : kHttpPort;
  Header header;
  if (!FormatHeader(&header, host, port, std::strlen(body)))
    return LogRefusal("the host is too long for a header");
  const auto wideHost = ToWideString(host), widePath = ToWideString(path),
             wideHeader = ToWideString(header.text);
  if (!wideHost || !widePath || !wideHeader) return LogRefusal("out of memory");
  PostWide(wideHost.get(), static_cast<std::uint16_t>(port), widePath.get(), secure != 0,
           wideHeader.get(), body);
}

std::unique_ptr<char16_t[]> ToWideString(const char* text) {
  if (text == nullptr) return nullptr;
  const std::size_t size = std::strlen(text) + 1;
  std::unique_ptr<char16_t[]> wide(new (std::nothrow) char16_t[size]);
  if (wide)
    std::transform(text, text + size, wide.get(),
                   [](char c) { return static_cast<char16_t>(static_cast<unsigned char>(c)); });
  return wide;
}

}  // namespace stewardry
