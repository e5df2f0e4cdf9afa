// The service's 16-bit texts and the UTF-8 of everything that this platform says.
#pragma once

#include <string>
#include <string_view>

namespace platform {

// What is no valid text comes out as U+FFFD: a lone surrogate, a cut or overlong sequence.
std::u16string Utf8ToUtf16(std::string_view text);
std::string Utf16ToUtf8(std::u16string_view text);

}  // namespace platform
