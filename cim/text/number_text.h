// Numbers as decimal text, without a format. The digits are built backwards from the end of the
// caller's buffer and end with a zero: the result is the address of the first one, not the buffer's
// start. Their number, a sign included, is stored in *size unless that is null. Any thread.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

namespace stewardry::cim {

// Texts of 0 to 63: a byte with the length, then the text with its terminator.
struct SmallNumberText {
  char length;
  char text[3];
};
extern const std::array<SmallNumberText, 64> SmallNumberTexts;

// Returns the table's text for numbers below 64, and does not touch `buffer` then.
const char* Uint32ToNarrow(char (&buffer)[11], std::uint32_t value, std::size_t* size = nullptr);
const char16_t* Uint32ToText(char16_t (&buffer)[11], std::uint32_t value,
                             std::size_t* size = nullptr);
const char* Uint64ToNarrow(char (&buffer)[21], std::uint64_t value, std::size_t* size = nullptr);
const char16_t* Uint64ToText(char16_t (&buffer)[21], std::uint64_t value,
                             std::size_t* size = nullptr);
const char16_t* Uint64ToLongText(char16_t (&buffer)[64], std::uint64_t value,
                                 std::size_t* size = nullptr);
const char16_t* Sint64ToLongText(char16_t (&buffer)[64], std::int64_t value,
                                 std::size_t* size = nullptr);

}  // namespace stewardry::cim
