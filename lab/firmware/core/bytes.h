// Byte sequences as the simulator passes them: a view of somebody else's bytes, and an owned run.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

namespace orrin {

using Bytes = std::vector<std::uint8_t>;
using ByteView = std::span<const std::uint8_t>;

// The bytes of a text, not copied: the view lives no longer than the text.
inline ByteView ViewOf(std::string_view text) {
  return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

// The same bytes as text, not copied.
inline std::string_view TextOf(ByteView bytes) {
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

}  // namespace orrin
