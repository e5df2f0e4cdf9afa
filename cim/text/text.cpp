#include "cim/text/text.h"

#include <cassert>
#include <climits>
#include <string>
#include <string_view>

#include "text/code_points.h"

namespace stewardry::cim {

namespace {

// Returns the unit in another width: cut, or sign-extended.
template <class To, class From>
To Convert(From unit) {
  if constexpr (sizeof(From) < sizeof(To)) return static_cast<To>(static_cast<signed char>(unit));
  return static_cast<To>(unit);
}

template <class To, class From>
std::size_t Copy(To* dst, const From* src, std::size_t size) {
  assert(src != nullptr && (dst != nullptr || size == 0));
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
  assert(text != nullptr);
  const std::size_t room = dst == nullptr ? INT_MAX : static_cast<std::size_t>(size);
  std::size_t stored = 0;
  for (std::u16string_view rest(text, static_cast<std::size_t>(length)); !rest.empty();) {
    const DecodedPoint decoded = DecodePoint(rest);
    char bytes[4];
    const std::size_t count = EncodePoint(decoded.point, bytes);
    if (stored + count > room) return 0;
    if (dst != nullptr) std::char_traits<char>::copy(dst + stored, bytes, count);
    stored += count;
    rest.remove_prefix(decoded.size);
  }
  return static_cast<int>(stored);
}

int Text_Compare(const char16_t* a, const char16_t* b) {
  assert(a != nullptr && b != nullptr);
  for (; *a != 0 && *a == *b; ++a) ++b;
  return (*a > *b) - (*a < *b);
}

}  // namespace stewardry::cim
