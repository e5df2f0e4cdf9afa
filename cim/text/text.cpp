// Copies, comparison, UTF-8.
#include "cim/text/text.h"

#include <climits>
#include <string>

namespace stewardry::cim {

namespace {

constexpr char32_t kReplacement = 0xFFFD;

// One unit of another width: cut, or sign-extended.
template <class To, class From>
To Convert(From unit) {
  if constexpr (sizeof(From) < sizeof(To)) return static_cast<To>(static_cast<signed char>(unit));
  return static_cast<To>(unit);
}

template <class To, class From>
std::size_t Copy(To* dst, const From* src, std::size_t size) {
  std::size_t length = 0;
  for (; src[length] != 0; ++length)
    if (length + 1 < size) dst[length] = Convert<To>(src[length]);
  if (size > 0) dst[length < size ? length : size - 1] = 0;
  return length;
}

template <class To, class From>
std::size_t Cat(To* dst, const From* src, std::size_t size) {
  std::size_t used = 0;
  while (used < size && dst[used] != 0) ++used;
  if (used == size && size > 0) used = size - 1;
  return Copy(dst + used, src, size - used);
}

bool IsHighSurrogate(char16_t unit) { return unit >= 0xD800 && unit < 0xDC00; }
bool IsLowSurrogate(char16_t unit) { return unit >= 0xDC00 && unit < 0xE000; }

// A sequence of UTF-8 by its first byte: bits of payload there, bytes behind it, the least code
// point that needs it (The Unicode Standard, table 3-7).
struct Lead {
  unsigned char mask, value;
  int more;
  char32_t least;
};
constexpr Lead kLeads[] = {
    {0x80, 0x00, 0, 0}, {0xE0, 0xC0, 1, 0x80}, {0xF0, 0xE0, 2, 0x800}, {0xF8, 0xF0, 3, 0x10000}};

// The sequence at `bytes`, or kReplacement if it isn't one; *size is its length.
char32_t Decode(const char* bytes, std::size_t left, std::size_t* size) {
  *size = 1;
  const auto first = static_cast<unsigned char>(*bytes);
  for (const Lead& lead : kLeads) {
    if ((first & lead.mask) != lead.value) continue;
    const auto more = static_cast<std::size_t>(lead.more);
    if (more >= left) return kReplacement;
    char32_t point = first & static_cast<unsigned char>(~lead.mask);
    for (std::size_t i = 1; i <= more; ++i) {
      const auto next = static_cast<unsigned char>(bytes[i]);
      if ((next & 0xC0) != 0x80) return kReplacement;
      point = point << 6 | (next & 0x3Fu);
    }
    if (point < lead.least || point > 0x10FFFF || (point >= 0xD800 && point < 0xE000))
      return kReplacement;
    *size = more + 1;
    return point;
  }
  return kReplacement;
}

}  // namespace

std::size_t Text_Copy(char16_t* dst, const char16_t* src, std::size_t size) {
  return Copy(dst, src, size);
}
std::size_t Text_Cat(char16_t* dst, const char16_t* src, std::size_t size) {
  return Cat(dst, src, size);
}
std::size_t Text_CopyNarrow(char* dst, const char* src, std::size_t size) {
  return Copy(dst, src, size);
}
std::size_t Text_CatNarrow(char* dst, const char* src, std::size_t size) {
  return Cat(dst, src, size);
}
std::size_t Text_CopyToNarrow(char* dst, const char16_t* src, std::size_t size) {
  return Copy(dst, src, size);
}
std::size_t Text_CopyFromNarrow(char16_t* dst, const char* src, std::size_t size) {
  return Copy(dst, src, size);
}
std::size_t Text_CatFromNarrow(char16_t* dst, const char* src, std::size_t size) {
  return Cat(dst, src, size);
}

int Text_ToUtf8(const char16_t* text, int length, char* dst, int size) {
  if (length <= 0) return 0;
  const auto units = static_cast<std::size_t>(length);
  std::size_t stored = 0;
  for (std::size_t at = 0; at < units;) {
    char bytes[4];
    const std::size_t count = Text_Encode(Text_NextCodePoint(text, units, &at), bytes);
    if (stored + count > (dst == nullptr ? INT_MAX : static_cast<std::size_t>(size))) return 0;
    if (dst != nullptr) std::char_traits<char>::copy(dst + stored, bytes, count);
    stored += count;
  }
  return static_cast<int>(stored);
}

int Text_Compare(const char16_t* a, const char16_t* b) {
  while (*a != 0 && *a == *b) ++a, ++b;
  return (*a > *b) - (*a < *b);
}

char32_t Text_NextCodePoint(const char16_t* text, std::size_t length, std::size_t* at) {
  const char16_t unit = text[(*at)++];
  if (!IsHighSurrogate(unit)) return IsLowSurrogate(unit) ? kReplacement : unit;
  if (*at == length || !IsLowSurrogate(text[*at])) return kReplacement;
  const char16_t low = text[(*at)++];
  return 0x10000 + ((unit - 0xD800u) << 10) + (low - 0xDC00u);
}

char32_t Text_NextCodePoint(const char* text, std::size_t length, std::size_t* at) {
  std::size_t size;
  const char32_t point = Decode(text + *at, length - *at, &size);
  *at += size;
  return point;
}

std::size_t Text_Encode(char32_t codePoint, char* out) {
  if (codePoint < 0x80) return *out = static_cast<char>(codePoint), 1;
  const std::size_t size = codePoint < 0x800 ? 2 : codePoint < 0x10000 ? 3 : 4;
  for (std::size_t i = size - 1; i > 0; --i, codePoint >>= 6)
    out[i] = static_cast<char>(0x80 | (codePoint & 0x3F));
  out[0] = static_cast<char>(kLeads[size - 1].value | codePoint);
  return size;
}

std::size_t Text_Encode(char32_t codePoint, char16_t* out) {
  if (codePoint < 0x10000) return *out = static_cast<char16_t>(codePoint), 1;
  out[0] = static_cast<char16_t>(0xD800 + ((codePoint - 0x10000) >> 10));
  out[1] = static_cast<char16_t>(0xDC00 + (codePoint & 0x3FF));
  return 2;
}

}  // namespace stewardry::cim
