// The table of property pointers of a definition that the library made. A table for more than 32
// properties has a tag for each, of eight bits from its name's code, behind the pointers: a search
// compares eight tags at once and reads only the properties that may be the wanted one.
//
// Invariants:
// 1. A table with tags has room for DynamicDef_Capacity(count) pointers and as many tags. Places
//    without a property have any tag.
// 2. Tags stand behind the pointers, since the layout of a definition is fixed. Whether they exist
//    follows from `owner`: see PropertyTable_HasTags.
#pragma once

#include <cstddef>
#include <cstdint>

#include "cim/instance/class_definitions.h"

namespace stewardry::cim {

constexpr std::uint32_t kMostUntagged = 32;

// Returns the bytes of a table for `count` properties, tags included.
std::size_t PropertyTable_Size(std::uint64_t count);

// Returns true if the library made the table: it belongs to a dynamic instance, to a class object
// of Class_FromDef, or to a superclass copied with one. Such a table has tags for more than 32
// properties, a schema's table never.
bool PropertyTable_IsOwn(const ClassDef& def);
inline bool PropertyTable_HasTags(const ClassDef& def) {
  return def.propertyCount > kMostUntagged && PropertyTable_IsOwn(def);
}

// Writes the tags of properties `first` to `count` - 1. Does nothing for 32 properties or fewer.
// Requires a table of PropertyTable_Size(count).
void PropertyTable_WriteTags(const PropertyDef** table, std::uint32_t first, std::uint32_t count);

// Returns what Names_Find does. Requires a table with tags.
std::int64_t PropertyTable_Find(const PropertyDef* const* table, std::uint32_t count,
                                const char16_t* name);

}  // namespace stewardry::cim
