// Names of classes, properties, methods and parameters, and the search for one among definitions.
// A name's code is computed once, kept beside the name, and compared before the text: change the
// code's make-up and every definition that a schema has written out stops being found.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>

namespace stewardry::cim {

// What a search gives when nothing has the name.
constexpr std::int64_t kNoIndex = -1;

// True for a letter A-Z, a-z or `_` followed by any number of these and of digits 0-9. False for
// an empty text or pointer.
bool Name_IsValid(const char16_t* name);

// Name_Code of a name for which Name_IsValid is true, else 0, which is no valid name's code.
std::uint32_t Name_CodeIfValid(const char16_t* name);

// A-Z as a-z, every other unit as it is: names hold nothing else that has a case, and every
// platform agrees on these.
constexpr char16_t Name_Fold(char16_t unit) {
  return unit >= u'A' && unit <= u'Z' ? static_cast<char16_t>(unit + (u'a' - u'A')) : unit;
}

// A code's make-up: the first and the last unit, folded, and the length, not 0.
constexpr std::uint32_t Name_MakeCode(std::uint32_t first, std::uint32_t last, std::size_t length) {
  return (first << 16) | (last << 8) | static_cast<std::uint32_t>(length);
}

// The name's code: (first << 16) | (last << 8) | length, with the low bytes of the first and the
// last unit folded to lower case. A length of 256 and more spills into the bits above. 0 for an
// empty text or pointer. Names that differ only in the case of A-Z have one code. A constant
// expression for a constant name, so that a schema needs no start-up code.
constexpr std::uint32_t Name_Code(const char16_t* name) {
  if (name == nullptr || *name == 0) return 0;
  const std::size_t length = std::char_traits<char16_t>::length(name);
  return Name_MakeCode(Name_Fold(static_cast<char16_t>(name[0] & 0xFF)),
                       Name_Fold(static_cast<char16_t>(name[length - 1] & 0xFF)), length);
}

// The length of `name` in units. `code` is the code of the name, or of one that the name is longer
// than: what its low byte says is taken on trust and counted on from.
std::uint32_t Name_Length(const char16_t* name, std::uint32_t code);

// True when both texts are equal but for the case of A-Z. Neither pointer may be empty.
constexpr bool Name_Equal(const char16_t* a, const char16_t* b) {
  for (; *a == *b || Name_Fold(*a) == Name_Fold(*b); ++a, ++b) {
    if (*a == 0) return true;
  }
  return false;
}

// Name_Equal of two names that both have the code `code`, and so at least as many units as its low
// byte says.
inline bool Name_EqualOfCode(const char16_t* a, const char16_t* b, std::uint32_t code) {
  const std::size_t known = code & 0xFF;
  if (std::memcmp(a, b, known * sizeof(char16_t)) != 0) return Name_Equal(a, b);
  return Name_Equal(a + known, b + known);
}

// True when none of the next four definitions has the code. The four tests don't wait for each
// other, which a branch between them would make them do.
template <class Definition>
bool Names_NoneOfFour(const Definition* const* next, std::uint32_t code) {
  return (next[0]->nameCode != code) & (next[1]->nameCode != code) & (next[2]->nameCode != code) &
         (next[3]->nameCode != code);
}

// The index of the first of `count` definitions from `first` on with that name and code, or
// kNoIndex. Definitions are read only while they stand; any thread may search shared ones.
template <class Definition>
std::int64_t Names_FindFrom(const Definition* const* definitions, std::uint32_t first,
                            std::uint32_t count, const char16_t* name, std::uint32_t code) {
  for (std::uint32_t i = first; i < count; ++i) {
    while (count - i >= 4 && Names_NoneOfFour(definitions + i, code)) i += 4;
    if (i == count) break;
    const Definition* definition = definitions[i];
    if (definition->nameCode == code && Name_EqualOfCode(definition->name, name, code)) return i;
  }
  return kNoIndex;
}

// The index of the first of `count` definitions with that name, ignoring case, or kNoIndex. Works
// on every record that has `nameCode` and `name`. An empty array, text or pointer gives kNoIndex.
template <class Definition>
std::int64_t Names_Find(const Definition* const* definitions, std::uint32_t count,
                        const char16_t* name) {
  if (definitions == nullptr || name == nullptr || *name == 0) return kNoIndex;
  return Names_FindFrom(definitions, 0, count, name, Name_Code(name));
}

}  // namespace stewardry::cim
