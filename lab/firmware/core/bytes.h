// Byte sequences as the simulator passes them, a view and an owned run, and the numbers in network
// order that RFB puts into them.
#pragma once

#include <cassert>
#include <cstdint>
#include <span>
#include <string_view>
#include <vector>

namespace orrin {

using Bytes = std::vector<std::uint8_t>;
using ByteView = std::span<const std::uint8_t>;

// Returns a view of the text's bytes, valid as long as the text.
inline ByteView ViewOf(std::string_view text) {
  return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

// Returns the same bytes as text, valid as long as the bytes.
inline std::string_view TextOf(ByteView bytes) {
  return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

// Requires at least two bytes.
inline std::uint16_t ReadBig16(ByteView bytes) {
  assert(bytes.size() >= 2);
  return static_cast<std::uint16_t>(bytes[0] << 8 | bytes[1]);
}

// Requires at least four bytes.
inline std::uint32_t ReadBig32(ByteView bytes) {
  return static_cast<std::uint32_t>(ReadBig16(bytes)) << 16 | ReadBig16(bytes.subspan(2));
}

inline void AppendBig16(std::uint16_t value, Bytes* bytes) {
  bytes->push_back(static_cast<std::uint8_t>(value >> 8));
  bytes->push_back(static_cast<std::uint8_t>(value));
}

inline void AppendBig32(std::uint32_t value, Bytes* bytes) {
  AppendBig16(static_cast<std::uint16_t>(value >> 16), bytes);
  AppendBig16(static_cast<std::uint16_t>(value), bytes);
}

}  // namespace orrin
