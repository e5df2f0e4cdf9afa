#include "base/instance/names.h"

#include <array>
#include <string>

namespace stewardry {
namespace {

// What a unit below 128 may do in a name.
constexpr std::uint8_t kNothing = 0, kContinues = 1, kStarts = 2;

constexpr std::array<std::uint8_t, 128> MakeNameUnits() {
  std::array<std::uint8_t, 128> units{};
  for (std::size_t unit = 0; unit < 26; ++unit) units['A' + unit] = units['a' + unit] = kStarts;
  for (std::size_t unit = '0'; unit <= '9'; ++unit) units[unit] = kContinues;
  units['_'] = kStarts;
  return units;
}
constexpr std::array<std::uint8_t, 128> kNameUnits = MakeNameUnits();

std::uint8_t UseOf(char16_t unit) { return unit < kNameUnits.size() ? kNameUnits[unit] : kNothing; }

}  // namespace

bool Name_IsValid(const char16_t* name) { return Name_CodeIfValid(name) != 0; }

std::uint32_t Name_CodeIfValid(const char16_t* name) {
  if (name == nullptr || UseOf(*name) != kStarts) return 0;
  const char16_t* end = name + 1;
  while (UseOf(*end) != kNothing) ++end;
  return *end == 0 ? Name_CodeOfLength(name, static_cast<std::size_t>(end - name)) : 0;
}

std::uint32_t Name_Length(const char16_t* name, std::uint32_t code) {
  if (name == nullptr) return 0;
  const std::uint32_t known = code & 0xFF;
  return known + static_cast<std::uint32_t>(std::char_traits<char16_t>::length(name + known));
}

}  // namespace stewardry
