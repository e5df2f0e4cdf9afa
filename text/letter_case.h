// Case of the letters A to Z, the same in every locale. Units outside ASCII have no case here.
#pragma once

#include <algorithm>
#include <string_view>

namespace stewardry {

template <class Unit>
constexpr Unit ToLower(Unit unit) {
  return unit >= Unit{'A'} && unit <= Unit{'Z'} ? static_cast<Unit>(unit + ('a' - 'A')) : unit;
}

constexpr bool EqualIgnoringCase(std::string_view a, std::string_view b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                    [](char x, char y) { return ToLower(x) == ToLower(y); });
}

}  // namespace stewardry
