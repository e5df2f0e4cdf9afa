// Indications: events of the firmware for which a management console has subscribed. The firmware
// has no connection of its own to the console's listener. It names the listener, one at a time, and
// delivers each event as finished text, which the service sends as one HTTP or HTTPS POST. The
// answer is not read. All of it runs on the reader thread; an unreachable listener blocks that for
// forty seconds at most.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

namespace stewardry {

// The payload of ORRIN_TAVRIN_CMD_INDICATION_SUBSCRIBE; little-endian. Its texts may lack their
// terminator.
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

// Handles command 0x0B. A payload that ends before its path is an unsubscribe; a shorter record
// replaces that part of the stored one; of a longer one the record's size counts.
void IndicationSubscribe(const std::uint8_t* payload, std::uint32_t length);

// Handles command 0x0C. An event of 4096 bytes or more is dropped with a log line, since half a
// document is useless.
void IndicationEvent(const std::uint8_t* payload, std::uint32_t length);

// Posts `body` up to its zero to the listener; of an HTTPS listener's certificate only the form is
// checked. A failed step ends the post with a line on standard output; there is no retry. Port 0 is
// the scheme's own. Logs a line and sends nothing if the host is no name and no address, the path
// has control characters, the port is above 65535, or the header exceeds 1024 bytes.
void PostIndication(const char* host, std::uint32_t port, const char* path, std::int32_t secure,
                    const char* body);

// Returns a wide copy of a text, each byte a unit (ISO 8859-1); null if `text` is null or memory is
// exhausted.
std::unique_ptr<char16_t[]> ToWideString(const char* text);

}  // namespace stewardry
