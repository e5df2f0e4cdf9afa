#include "cim/value/names.h"

#include <array>
#include <string>

namespace stewardry::cim {
namespace {

// The units below 128 that a name may contain, folded to lower case, and 0 for the others.
constexpr std::array<std::uint8_t, 128> MakeFoldedUnits() {
  std::array<std::uint8_t, 128> units{};
  for (std::uint8_t unit = 'a'; unit <= 'z'; ++unit) units[unit] = units[unit - 'a' + 'A'] = unit;
  for (std::uint8_t unit = '0'; unit <= '9'; ++unit) units[unit] = unit;
  units['_'] = '_';
  return units;
}
constexpr std::array<std::uint8_t, 128> kFoldedUnits = MakeFoldedUnits();

std::uint32_t Folded(char16_t unit) { return unit < kFoldedUnits.size() ? kFoldedUnits[unit] : 0; }

constexpr bool IsDigit(std::uint32_t folded) { return folded <= '9'; }  // true for 0

}  // namespace

bool Name_IsValid(const char16_t* name) { return Name_CodeIfValid(name) != 0; }

std::uint32_t Name_CodeIfValid(const char16_t* name) {
  if (name == nullptr) return 0;
  const std::uint32_t first = Folded(*name);
  if (IsDigit(first)) return 0;
  std::uint32_t last = first;
  const char16_t* end = name + 1;
  // Ends at the first unit that Folded rejects. NOLINTNEXTLINE(bugprone-infinite-loop)
  for (; const std::uint32_t next = Folded(*end); ++end) last = next;
  if (*end != 0) return 0;
  return Name_MakeCode(first, last, static_cast<std::size_t>(end - name));
}

std::uint32_t Name_Length(const char16_t* name, std::uint32_t code) {
  if (name == nullptr) return 0;
  const std::uint32_t known = code & 0xFF;
  assert(std::char_traits<char16_t>::length(name) >= known);
  return known + static_cast<std::uint32_t>(std::char_traits<char16_t>::length(name + known));
}

}  // namespace stewardry::cim
