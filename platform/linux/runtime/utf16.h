// Conversion between the service's 16-bit texts and the UTF-8 of this platform's calls.
#pragma once

#include <string>
#include <string_view>

namespace platform {

// Convert a text. Each invalid sequence becomes one U+FFFD: a lone surrogate, a cut or overlong
// sequence.
std::u16string Utf8ToUtf16(std::string_view text);
std::string Utf16ToUtf8(std::u16string_view text);

}  // namespace platform
