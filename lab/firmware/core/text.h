// Text in and out of the simulator: fields of records, numbers and hexadecimal typed at the prompt,
// JSON and XML quoting. Everything that a record brought is printable after it has passed here, so
// that a hostile host can break neither a trace line nor a JSON document.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "lab/firmware/core/bytes.h"

namespace orrin {

// printf into a string. Any thread.
[[gnu::format(printf, 1, 2)]] std::string Format(const char* format, ...);

// A field of 16-bit text, up to its first zero or its end, as UTF-8. Half a surrogate pair becomes
// U+FFFD, a control character a dot.
std::string Utf8Field(std::span<const char16_t> field);
// A field of ASCII text, up to its first zero or its end. Bytes outside 0x20 to 0x7E become dots.
std::string AsciiField(std::span<const char> field);
// The same for text of any length that has no terminator; at most `bound` bytes of it.
std::string Printable(std::string_view text, std::size_t bound);

// Four address bytes in network order as dotted decimal.
std::string DottedAddress(const std::uint8_t (&address)[4]);
// Six bytes as 00:11:22:33:44:55.
std::string HardwareAddress(const std::uint8_t (&address)[6]);
// A sin_port value, zero-extended to 32 bits, as the port number in host order.
std::uint16_t PortFromNetwork(std::uint32_t sinPort);

// A decimal or 0x number of at most `bound`; nothing when the text isn't wholly one.
std::optional<std::uint64_t> Number(std::string_view text, std::uint64_t bound);
// Pairs of hexadecimal digits, blanks between pairs allowed; nothing when it isn't wholly that.
std::optional<Bytes> BytesFromHex(std::string_view text);
// Lower-case digit pairs with a blank between them.
std::string HexFromBytes(ByteView bytes);

// Takes the first blank-separated word off `text`.
std::string_view TakeWord(std::string_view* text);
std::string_view Trimmed(std::string_view text);
std::string LowerCase(std::string_view text);
bool SameIgnoringCase(std::string_view left, std::string_view right);

// A JSON string with its quotes (RFC 8259, section 7). `text` is UTF-8.
std::string JsonText(std::string_view text);
// Character data of an XML element: the five predefined entities.
std::string XmlText(std::string_view text);

}  // namespace orrin
