#include "lab/firmware/kvm/pixel_format.h"

#include <bit>
#include <cassert>

namespace orrin {
namespace {

bool IsPlaceWithin(const ColourPlace& place, int bitsPerPixel) {
  const int bits = std::popcount(place.max);
  const bool isRun = place.max != 0 && (place.max & (place.max + 1)) == 0;
  return isRun && place.shift + bits <= bitsPerPixel;
}

std::uint32_t Placed(const ColourPlace& place, std::uint32_t value) {
  return ((value & 0xFF) * place.max + 127) / 255 << place.shift;
}

}  // namespace

std::optional<PixelFormat> ReadPixelFormat(ByteView bytes) {
  assert(bytes.size() >= kPixelFormatSize);
  const bool isTrueColour = bytes[3] != 0;
  const PixelFormat format = {
      bytes[0],
      bytes[1],
      bytes[2] != 0,
      {ReadBig16(bytes.subspan(4)), bytes[10]},
      {ReadBig16(bytes.subspan(6)), bytes[11]},
      {ReadBig16(bytes.subspan(8)), bytes[12]},
  };
  const int bits = format.bitsPerPixel;
  if (!isTrueColour || (bits != 8 && bits != 16 && bits != 32)) return std::nullopt;
  for (const ColourPlace& place : {format.red, format.green, format.blue}) {
    if (!IsPlaceWithin(place, bits)) return std::nullopt;
  }
  return format;
}

void AppendPixelFormat(const PixelFormat& format, Bytes* bytes) {
  const std::uint8_t isBig = format.isBigEndian ? 1 : 0;
  constexpr std::uint8_t kTrueColour = 1;
  bytes->insert(bytes->end(), {format.bitsPerPixel, format.depth, isBig, kTrueColour});
  AppendBig16(format.red.max, bytes);
  AppendBig16(format.green.max, bytes);
  AppendBig16(format.blue.max, bytes);
  bytes->insert(bytes->end(), {format.red.shift, format.green.shift, format.blue.shift, 0, 0, 0});
}

void AppendPixel(const PixelFormat& format, std::uint32_t colour, Bytes* bytes) {
  assert(format.bitsPerPixel % 8 == 0 && format.bitsPerPixel <= 32);
  const std::uint32_t pixel = Placed(format.red, colour >> 16) | Placed(format.green, colour >> 8) |
                              Placed(format.blue, colour);
  const int count = format.bitsPerPixel / 8;
  for (int i = 0; i < count; ++i) {
    const int shift = 8 * (format.isBigEndian ? count - 1 - i : i);
    bytes->push_back(static_cast<std::uint8_t>(pixel >> shift));
  }
}

}  // namespace orrin
