#include "base/instance/names.h"

#include <string>

namespace stewardry {
namespace {

constexpr bool IsUpper(char16_t unit) { return unit >= u'A' && unit <= u'Z'; }
constexpr bool IsLower(char16_t unit) { return unit >= u'a' && unit <= u'z'; }

bool StartsName(char16_t unit) { return IsUpper(unit) || IsLower(unit) || unit == u'_'; }
bool ContinuesName(char16_t unit) { return StartsName(unit) || (unit >= u'0' && unit <= u'9'); }

}  // namespace

bool Name_IsValid(const char16_t* name) {
  if (name == nullptr || !StartsName(*name)) return false;
  while (ContinuesName(*name)) ++name;
  return *name == 0;
}

std::uint32_t Name_Length(const char16_t* name, std::uint32_t code) {
  if (name == nullptr) return 0;
  const std::uint32_t known = code & 0xFF;
  return known + static_cast<std::uint32_t>(std::char_traits<char16_t>::length(name + known));
}

}  // namespace stewardry
