#include "lab/firmware/core/text.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>

#include "text/code_points.h"
#include "text/letter_case.h"

namespace orrin {
namespace {

int DigitValue(char digit) {
  if (digit >= '0' && digit <= '9') return digit - '0';
  if (digit >= 'a' && digit <= 'f') return digit - 'a' + 10;
  if (digit >= 'A' && digit <= 'F') return digit - 'A' + 10;
  return 99;
}

bool IsBlank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

}  // namespace

std::string Format(const char* format, ...) {
  va_list arguments;
  va_start(arguments, format);
  va_list again;
  va_copy(again, arguments);
  const int length = std::vsnprintf(nullptr, 0, format, arguments);
  va_end(arguments);
  std::string text(length > 0 ? static_cast<std::size_t>(length) : 0, '\0');
  // One more byte for the terminator, which std::string has space for.
  if (!text.empty()) std::vsnprintf(text.data(), text.size() + 1, format, again);
  va_end(again);
  return text;
}

std::string Utf8Field(std::span<const char16_t> field) {
  std::u16string_view rest(field.data(), field.size());
  rest = rest.substr(0, rest.find(u'\0'));
  std::string text;
  while (!rest.empty()) {
    const stewardry::DecodedPoint decoded = stewardry::DecodePoint(rest);
    rest.remove_prefix(decoded.size);
    // C1 controls (0x80 to 0x9F) steer terminals as C0 controls do.
    const bool control = decoded.point < 0x20 || (decoded.point >= 0x7F && decoded.point < 0xA0);
    char bytes[4];
    text.append(bytes, stewardry::EncodePoint(control ? U'.' : decoded.point, bytes));
  }
  return text;
}

std::string AsciiField(std::span<const char> field) {
  const auto end = std::find(field.begin(), field.end(), '\0');
  return Printable({field.data(), static_cast<std::size_t>(end - field.begin())}, field.size());
}

std::string Printable(std::string_view text, std::size_t bound) {
  std::string printable(text.substr(0, bound));
  for (char& c : printable) {
    if (c < 0x20 || c > 0x7E) c = '.';
  }
  return printable;
}

std::string DottedAddress(const std::uint8_t (&address)[4]) {
  return Format("%u.%u.%u.%u", address[0], address[1], address[2], address[3]);
}

std::string HardwareAddress(const std::uint8_t (&a)[6]) {
  return Format("%02x:%02x:%02x:%02x:%02x:%02x", a[0], a[1], a[2], a[3], a[4], a[5]);
}

std::uint16_t PortFromNetwork(std::uint32_t sinPort) {
  return static_cast<std::uint16_t>(((sinPort & 0xFF) << 8) | ((sinPort >> 8) & 0xFF));
}

std::optional<std::uint64_t> ParseNumber(std::string_view text, std::uint64_t bound) {
  std::uint64_t base = 10;
  if (text.starts_with("0x") || text.starts_with("0X")) {
    base = 16;
    text.remove_prefix(2);
  }
  if (text.empty()) return std::nullopt;
  std::uint64_t value = 0;
  for (char c : text) {
    const auto digit = static_cast<std::uint64_t>(DigitValue(c));
    if (digit >= base || digit > bound || value > (bound - digit) / base) return std::nullopt;
    value = value * base + digit;
  }
  return value;
}

std::optional<Bytes> BytesFromHex(std::string_view text) {
  Bytes bytes;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (IsBlank(text[i])) continue;
    const int high = DigitValue(text[i]);
    const int low = i + 1 < text.size() ? DigitValue(text[i + 1]) : 99;
    if (high > 15 || low > 15) return std::nullopt;
    bytes.push_back(static_cast<std::uint8_t>(high * 16 + low));
    ++i;
  }
  return bytes;
}

std::string HexFromBytes(ByteView bytes) {
  constexpr char kDigits[] = "0123456789abcdef";
  std::string text;
  for (std::uint8_t byte : bytes) {
    if (!text.empty()) text.push_back(' ');
    text.push_back(kDigits[byte >> 4]);
    text.push_back(kDigits[byte & 15]);
  }
  return text;
}

std::string_view TakeWord(std::string_view* text) {
  const std::string_view rest = Trimmed(*text);
  const auto end = std::find_if(rest.begin(), rest.end(), IsBlank);
  const auto length = static_cast<std::size_t>(end - rest.begin());
  *text = Trimmed(rest.substr(length));
  return rest.substr(0, length);
}

std::string_view Trimmed(std::string_view text) {
  while (!text.empty() && IsBlank(text.front())) text.remove_prefix(1);
  while (!text.empty() && IsBlank(text.back())) text.remove_suffix(1);
  return text;
}

std::string LowerCase(std::string_view text) {
  std::string lower(text);
  std::transform(lower.begin(), lower.end(), lower.begin(), stewardry::ToLower<char>);
  return lower;
}

bool SameIgnoringCase(std::string_view left, std::string_view right) {
  return stewardry::EqualIgnoringCase(left, right);
}

std::string JsonText(std::string_view text) {
  std::string quoted = "\"";
  for (char c : text) {
    if (c == '"' || c == '\\') {
      quoted.push_back('\\');
      quoted.push_back(c);
    } else if (static_cast<unsigned char>(c) < 0x20) {
      quoted += Format("\\u%04x", static_cast<unsigned>(static_cast<unsigned char>(c)));
    } else {
      quoted.push_back(c);
    }
  }
  return quoted + "\"";
}

// XML 1.0, section 2.2, as far as single bytes of UTF-8 show it.
static bool IsXmlCharacter(char c) {
  return static_cast<unsigned char>(c) >= 0x20 || c == '\t' || c == '\n' || c == '\r';
}

std::string XmlText(std::string_view text) {
  std::string escaped;
  for (char c : text) {
    switch (c) {
      case '&':
        escaped += "&amp;";
        break;
      case '<':
        escaped += "&lt;";
        break;
      case '>':
        escaped += "&gt;";
        break;
      case '"':
        escaped += "&quot;";
        break;
      case '\'':
        escaped += "&apos;";
        break;
      default:
        escaped.push_back(IsXmlCharacter(c) ? c : '.');
    }
  }
  return escaped;
}

}  // namespace orrin
