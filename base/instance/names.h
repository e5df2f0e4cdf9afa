// Names of classes, properties, methods and parameters, and the search for one among definitions.
// A name's code is computed once, kept beside the name, and compared before the text: change the
// code's make-up and every definition that a schema has written out stops being found.
#pragma once

#include <cstdint>

namespace stewardry {

// What a search gives when nothing has the name.
constexpr std::int64_t kNoIndex = -1;

// True for a letter A-Z, a-z or `_` followed by any number of these and of digits 0-9. False for
// an empty text or pointer.
bool Name_IsValid(const char16_t* name);

// The name's code: (first << 16) | (last << 8) | length, with the low bytes of the first and the
// last unit folded to lower case. A length of 256 and more spills into the bits above. 0 for an
// empty text or pointer. Names that differ only in the case of A-Z have one code.
std::uint32_t Name_Code(const char16_t* name);

// The length of `name` in units. `code` is the code of the name, or of one that the name is longer
// than: what its low byte says is taken on trust and counted on from.
std::uint32_t Name_Length(const char16_t* name, std::uint32_t code);

// True when both texts are equal but for the case of A-Z. Neither pointer may be empty.
bool Name_Equal(const char16_t* a, const char16_t* b);

// The index of the first of `count` definitions from `first` on with that name and code, or
// kNoIndex. Definitions are read only while they stand; any thread may search shared ones.
template <class Definition>
std::int64_t Names_FindFrom(const Definition* const* definitions, std::uint32_t first,
                            std::uint32_t count, const char16_t* name, std::uint32_t code) {
  for (std::uint32_t i = first; i < count; ++i) {
    const Definition* definition = definitions[i];
    if (definition->nameCode == code && Name_Equal(definition->name, name)) return i;
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

}  // namespace stewardry
