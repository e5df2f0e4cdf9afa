// Indications: events of the firmware that a management console wants to hear of. The firmware has
// no way to the console's listener of its own, so it says where that is, one listener at a time,
// and hands over each event as finished text, which goes out as one HTTP or HTTPS POST. The answer
// isn't read. All of it runs on the reader thread, which a listener that can't be reached holds up
// for as long as the time-outs take, forty seconds at most.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>

namespace stewardry {

// The payload of ORRIN_TAVRIN_CMD_INDICATION_SUBSCRIBE; little-endian. Neither text need have an
// end.
struct IndicationSubscription {
  char host[1024];  // name or address of the listener
  char path[1024];  // the resource to post to; empty to unsubscribe
  std::uint32_t reserved;
  std::uint32_t port;    // TCP
  std::uint32_t secure;  // 0: HTTP, else HTTPS
};
static_assert(sizeof(IndicationSubscription) == 2060 &&
              offsetof(IndicationSubscription, path) == 1024 &&
              offsetof(IndicationSubscription, reserved) == 2048 &&
              offsetof(IndicationSubscription, port) == 2052 &&
              offsetof(IndicationSubscription, secure) == 2056);

// The last subscription, with both texts ended; an unsubscribe leaves it. The reader thread's own.
extern IndicationSubscription gIndicationSubscription;
// 1 while a subscription stands. It isn't kept over a restart. The reader thread's own; relaxed.
extern std::atomic<std::uint8_t> gIndicationSubscribed;

// Handlers of commands 0x0B and 0x0C. A subscription that ends before its path has begun is an
// unsubscribe, one that ends later replaces what it has of the store, and of a longer one the
// record's size is taken. An event of 4096 bytes and more is dropped with a log line: a document
// cut short is none.
void IndicationSubscribe(const std::uint8_t* payload, std::uint32_t length);
void IndicationEvent(const std::uint8_t* payload, std::uint32_t length);

// Posts `body` up to its zero to the listener, without a check of an HTTPS listener's certificate
// but for its form. A failed step ends it, with a line on standard output; nothing is tried twice.
// Port 0 is the scheme's own. Nothing is sent, and a line logged, for a host that is no name and no
// address, a path with control characters, a port above 65535, or a host so long that its header
// doesn't fit in 1024 bytes.
void PostIndication(const char* host, std::uint32_t port, const char* path, std::int32_t secure,
                    const char* body);

// A wide copy of a text, each byte a unit (ISO 8859-1); null for null or without memory.
std::unique_ptr<char16_t[]> ToWideString(const char* text);

}  // namespace stewardry
