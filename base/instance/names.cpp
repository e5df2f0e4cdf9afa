#include "base/instance/names.h"

#include <string>

namespace stewardry {
namespace {

constexpr bool IsUpper(char16_t unit) { return unit >= u'A' && unit <= u'Z'; }
constexpr bool IsLower(char16_t unit) { return unit >= u'a' && unit <= u'z'; }

// Only A-Z fold: names hold nothing else that has a case, and every platform agrees on them.
constexpr char16_t Fold(char16_t unit) {
  return IsUpper(unit) ? static_cast<char16_t>(unit + (u'a' - u'A')) : unit;
}

bool StartsName(char16_t unit) { return IsUpper(unit) || IsLower(unit) || unit == u'_'; }
bool ContinuesName(char16_t unit) { return StartsName(unit) || (unit >= u'0' && unit <= u'9'); }

}  // namespace

bool Name_IsValid(const char16_t* name) {
  if (name == nullptr || !StartsName(*name)) return false;
  while (ContinuesName(*name)) ++name;
  return *name == 0;
}

std::uint32_t Name_Code(const char16_t* name) {
  if (name == nullptr || *name == 0) return 0;
  const std::size_t length = std::char_traits<char16_t>::length(name);
  const std::uint32_t first = Fold(static_cast<char16_t>(name[0] & 0xFF));
  const std::uint32_t last = Fold(static_cast<char16_t>(name[length - 1] & 0xFF));
  return (first << 16) | (last << 8) | static_cast<std::uint32_t>(length);
}

std::uint32_t Name_Length(const char16_t* name, std::uint32_t code) {
  if (name == nullptr) return 0;
  const std::uint32_t known = code & 0xFF;
  return known + static_cast<std::uint32_t>(std::char_traits<char16_t>::length(name + known));
}

bool Name_Equal(const char16_t* a, const char16_t* b) {
  for (; *a == *b || Fold(*a) == Fold(*b); ++a, ++b) {
    if (*a == 0) return true;
  }
  return false;
}

}  // namespace stewardry
