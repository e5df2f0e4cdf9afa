// The layout of instances, for the tables that mof.py writes: where each property's slot lies.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "cim/instance/class_definitions.h"
#include "cim/instance/instance.h"
#include "cim/instance/value_slot.h"
#include "cim/value/values.h"

namespace orrin {

// Bytes of an instance without properties: its head.
constexpr std::uint32_t kNoProperties = sizeof(stewardry::cim::Instance);

// Returns the offset of each slot, in the order of the types, each aligned as its value, and behind
// them the size of the whole instance, a multiple of 8.
template <std::size_t Count>
constexpr std::array<std::uint32_t, Count + 1> LayOut(
    const std::array<stewardry::cim::CimType, Count>& types) {
  std::array<std::uint32_t, Count + 1> offsets{};
  std::uint32_t at = kNoProperties;
  for (std::size_t i = 0; i < Count; ++i) {
    const auto alignment = static_cast<std::uint32_t>(stewardry::cim::CimType_Alignment(types[i]));
    at = (at + alignment - 1) / alignment * alignment;
    offsets[i] = at;
    at += stewardry::cim::kSlotSizes[types[i]];
  }
  offsets[Count] = (at + 7) / 8 * 8;
  return offsets;
}

}  // namespace orrin
