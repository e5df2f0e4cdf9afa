#include "platform/linux/runtime/utf16.h"

#include "text/code_points.h"

namespace platform {

namespace {

template <class To, class From>
std::basic_string<To> Recode(std::basic_string_view<From> text) {
  std::basic_string<To> recoded;
  while (!text.empty()) {
    const stewardry::DecodedPoint decoded = stewardry::DecodePoint(text);
    To units[4];
    recoded.append(units, stewardry::EncodePoint(decoded.point, units));
    text.remove_prefix(decoded.size);
  }
  return recoded;
}

}  // namespace

std::u16string Utf8ToUtf16(std::string_view text) { return Recode<char16_t>(text); }
std::string Utf16ToUtf8(std::u16string_view text) { return Recode<char>(text); }

}  // namespace platform
