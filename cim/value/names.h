// Names of classes, properties, methods and parameters, and the search for one among definitions. A
// name's code is stored with the name and compared before the text. Generated schemas contain
// codes, so the formula of Name_MakeCode must not change.
//
// All functions are pure: any thread may call them.
#pragma once

#include <cassert>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

namespace stewardry::cim {

// The result of a search that finds nothing.
constexpr std::int64_t kNoIndex = -1;

// Returns true for a letter A-Z, a-z or `_` followed by any number of these and of digits 0-9.
// Returns false for a null or empty name.
bool Name_IsValid(const char16_t* name);

// Returns Name_Code of a valid name, or 0, which is not the code of any valid name.
std::uint32_t Name_CodeIfValid(const char16_t* name);

// Returns a-z for A-Z and any other unit unchanged. Valid names contain no other letters with a
// case.
constexpr char16_t Name_Fold(char16_t unit) {
  return unit >= u'A' && unit <= u'Z' ? static_cast<char16_t>(unit + (u'a' - u'A')) : unit;
}

// Returns the code of a name with these folded units at its ends. Requires a `length` above 0.
constexpr std::uint32_t Name_MakeCode(std::uint32_t first, std::uint32_t last, std::size_t length) {
  assert(length != 0);
  return (first << 16) | (last << 8) | static_cast<std::uint32_t>(length);
}

// Returns the name's code, (first << 16) | (last << 8) | length, from the low bytes of the first
// and the last unit, folded to lower case. A length above 255 extends into the higher bits. Returns
// 0 for a null or empty name. Names that differ only in the case of A-Z have one code. Constant for
// a constant name: a schema needs no start-up code.
constexpr std::uint32_t Name_Code(const char16_t* name) {
  if (name == nullptr || *name == 0) return 0;
  const std::size_t length = std::char_traits<char16_t>::length(name);
  return Name_MakeCode(Name_Fold(static_cast<char16_t>(name[0] & 0xFF)),
                       Name_Fold(static_cast<char16_t>(name[length - 1] & 0xFF)), length);
}

// Returns the length of `name` in units, or 0 for a null. Requires the code of this name or of a
// shorter one: as many units as its low byte says are not read.
std::uint32_t Name_Length(const char16_t* name, std::uint32_t code);

// Returns true if both texts are equal, ignoring the case of A-Z. Neither may be null.
constexpr bool Name_Equal(const char16_t* a, const char16_t* b) {
  assert(a != nullptr && b != nullptr);
  for (; *a == *b || Name_Fold(*a) == Name_Fold(*b); ++a, ++b) {
    if (*a == 0) return true;
  }
  return false;
}

// Returns Name_Equal of two names that both have the code `code`, and thus at least as many units
// as its low byte says.
inline bool Name_EqualOfCode(const char16_t* a, const char16_t* b, std::uint32_t code) {
  assert(Name_Code(a) == code && Name_Code(b) == code);
  const std::size_t known = code & 0xFF;
  if (std::memcmp(a, b, known * sizeof(char16_t)) != 0) return Name_Equal(a, b);
  return Name_Equal(a + known, b + known);
}

// Returns true if none of the next four definitions has the code. Without branches between them the
// four comparisons run in parallel.
template <class Definition>
bool Names_NoneOfFour(const Definition* const* next, std::uint32_t code) {
  return (next[0]->nameCode != code) & (next[1]->nameCode != code) & (next[2]->nameCode != code) &
         (next[3]->nameCode != code);
}

// Returns the index of the first definition with that name and code among those from `first` to
// `count` - 1, or kNoIndex.
template <class Definition>
std::int64_t Names_FindFrom(const Definition* const* definitions, std::uint32_t first,
                            std::uint32_t count, const char16_t* name, std::uint32_t code) {
  assert(name != nullptr && code == Name_Code(name));
  for (std::uint32_t i = first; i < count; ++i) {
    while (count - i >= 4 && Names_NoneOfFour(definitions + i, code)) i += 4;
    if (i == count) break;
    const Definition* definition = definitions[i];
    if (definition->nameCode == code && Name_EqualOfCode(definition->name, name, code)) return i;
  }
  return kNoIndex;
}

// Returns the index of the first of `count` definitions with that name, ignoring case, or kNoIndex.
// Accepts any record with `nameCode` and `name`. Returns kNoIndex for a null argument and an empty
// name.
template <class Definition>
std::int64_t Names_Find(const Definition* const* definitions, std::uint32_t count,
                        const char16_t* name) {
  if (definitions == nullptr || name == nullptr || *name == 0) return kNoIndex;
  return Names_FindFrom(definitions, 0, count, name, Name_Code(name));
}

}  // namespace stewardry::cim
