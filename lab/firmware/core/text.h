// Text in and out of the simulator: fields of records, numbers and hexadecimal typed at the prompt,
// JSON and XML quoting. Text of a record is made printable here, so that a hostile host can break
// neither a trace line nor a JSON document.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "lab/firmware/core/bytes.h"

namespace orrin {

// Formats like printf. Any thread.
[[gnu::format(printf, 1, 2)]] std::string Format(const char* format, ...);

// Converts a field of 16-bit text, up to its first zero or its end, to UTF-8. Replaces half a
// surrogate pair by U+FFFD and a control character by a dot.
std::string Utf8Field(std::span<const char16_t> field);
// Returns a field of ASCII text, up to its first zero or its end. Replaces bytes outside 0x20 to
// 0x7E by dots.
std::string AsciiField(std::span<const char> field);
// Does the same for at most `bound` bytes of a text without terminator.
std::string Printable(std::string_view text, std::size_t bound);

// Returns four address bytes in network order as dotted decimal.
std::string DottedAddress(const std::uint8_t (&address)[4]);
// Returns six bytes as 00:11:22:33:44:55.
std::string HardwareAddress(const std::uint8_t (&address)[6]);
// Converts a sin_port value, zero-extended to 32 bits, to the port number in host order.
std::uint16_t PortFromNetwork(std::uint32_t sinPort);

// Parses a decimal or 0x number of at most `bound`. Returns nothing for any other text.
std::optional<std::uint64_t> ParseNumber(std::string_view text, std::uint64_t bound);
// Parses pairs of hexadecimal digits, blanks between pairs allowed. Returns nothing for other text.
std::optional<Bytes> BytesFromHex(std::string_view text);
// Returns lower-case digit pairs with a blank between them.
std::string HexFromBytes(ByteView bytes);

// Removes the first blank-separated word from `text` and returns it.
std::string_view TakeWord(std::string_view* text);
std::string_view Trimmed(std::string_view text);
std::string LowerCase(std::string_view text);
bool SameIgnoringCase(std::string_view left, std::string_view right);

// Returns a JSON string with its quotes (RFC 8259, section 7). `text` is UTF-8.
std::string JsonText(std::string_view text);
// Escapes the character data of an XML element with the five predefined entities. A control
// character that XML cannot hold becomes a dot.
std::string XmlText(std::string_view text);

}  // namespace orrin
