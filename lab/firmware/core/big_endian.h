// Numbers in network order, as RFB carries them.
#pragma once

#include <cstdint>

#include "lab/firmware/core/bytes.h"

namespace orrin {

// REQUIRES: at least two bytes.
inline std::uint16_t ReadBig16(ByteView bytes) {
  return static_cast<std::uint16_t>(bytes[0] << 8 | bytes[1]);
}

// REQUIRES: at least four bytes.
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
