// A viewer's pixel format (RFC 6143, section 7.4) and pixels written in it. Colours inside the
// simulator are 0xRRGGBB words.
#pragma once

#include <cstdint>
#include <optional>

#include "lab/firmware/core/bytes.h"

namespace orrin {

// Bytes of a pixel format on the wire.
constexpr std::size_t kPixelFormatSize = 16;

// The place of one colour in a pixel: (pixel >> shift) & max. `max` is a power of two less one.
struct ColourPlace {
  std::uint16_t max;
  std::uint8_t shift;
};

struct PixelFormat {
  std::uint8_t bitsPerPixel;  // 8, 16 or 32
  std::uint8_t depth;
  bool isBigEndian;
  ColourPlace red;
  ColourPlace green;
  ColourPlace blue;
};

// The format that the server offers: 32 bits little-endian, 0x00RRGGBB.
constexpr PixelFormat kNativeFormat = {32, 24, false, {255, 16}, {255, 8}, {255, 0}};

// Returns nothing for a colour map and for a format whose numbers contradict one another. Requires
// at least kPixelFormatSize bytes.
std::optional<PixelFormat> ReadPixelFormat(ByteView bytes);
// Appends the sixteen bytes of a format.
void AppendPixelFormat(const PixelFormat& format, Bytes* bytes);
// Appends one pixel. Rounds each colour to the nearest one of the format.
void AppendPixel(const PixelFormat& format, std::uint32_t colour, Bytes* bytes);

}  // namespace orrin
