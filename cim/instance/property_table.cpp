#include "cim/instance/property_table.h"

#include <bit>
#include <cassert>
#include <cstring>

#include "cim/instance/class_object.h"
#include "cim/instance/definition_copy.h"
#include "cim/instance/instance.h"
#include "cim/value/names.h"

namespace stewardry::cim {
namespace {

constexpr std::uint64_t kEachByte = 0x0101010101010101;
constexpr std::uint32_t kTagsInWord = sizeof kEachByte;
static_assert(kMostUntagged == INSTANCE_MIN_CAPACITY, "a first table has no tags");
static_assert(kMostUntagged % kTagsInWord == 0, "the last word of tags is in the table");

std::uint8_t TagOf(std::uint32_t nameCode) {
  return static_cast<std::uint8_t>((nameCode * 0x9E3779B1u) >> 24);
}

// Returns a word whose highest bits are set in the bytes that are 0, and may be set in bytes above
// such a one.
std::uint64_t MarkZeroBytes(std::uint64_t word) {
  return (word - kEachByte) & ~word & (kEachByte << 7);
}

}  // namespace

std::size_t PropertyTable_Size(std::uint64_t count) {
  if (count <= kMostUntagged) return count * sizeof(void*);
  return std::bit_ceil(count) * (sizeof(void*) + 1);
}

bool PropertyTable_IsOwn(const ClassDef& def) {
  if (def.owner == kOwnerNone) return false;
  if (def.owner == kOwnerDynamic) return true;
  const auto* object = reinterpret_cast<const ClassObject*>(def.owner);
  return object->ops == &kClassOps && object->batch != nullptr && object->def == &def;
}

void PropertyTable_WriteTags(const PropertyDef** table, std::uint32_t first, std::uint32_t count) {
  if (count <= kMostUntagged) return;
  auto* tags = reinterpret_cast<std::uint8_t*>(table + DynamicDef_Capacity(count));
  for (std::uint32_t i = first; i < count; ++i) tags[i] = TagOf(table[i]->nameCode);
}

std::int64_t PropertyTable_Find(const PropertyDef* const* table, std::uint32_t count,
                                const char16_t* name) {
  static_assert(std::endian::native == std::endian::little, "the first tag is the lowest byte");
  assert(table != nullptr && count > kMostUntagged);
  if (name == nullptr || *name == 0) return kNoIndex;
  const std::uint32_t code = Name_Code(name);
  const std::uint64_t wanted = kEachByte * TagOf(code);
  const auto* tags = reinterpret_cast<const std::uint8_t*>(table + DynamicDef_Capacity(count));
  for (std::uint32_t first = 0; first < count; first += kTagsInWord) {
    std::uint64_t word = 0;
    std::memcpy(&word, tags + first, sizeof word);
    for (std::uint64_t marks = MarkZeroBytes(word ^ wanted); marks != 0; marks &= marks - 1) {
      const std::uint32_t i = first + static_cast<std::uint32_t>(std::countr_zero(marks)) / 8;
      if (i >= count) return kNoIndex;
      const PropertyDef* property = table[i];
      if (property->nameCode == code && Name_EqualOfCode(property->name, name, code)) return i;
    }
  }
  return kNoIndex;
}

}  // namespace stewardry::cim
