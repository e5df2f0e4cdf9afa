#include "lab/firmware/kvm/picture.h"

#include <algorithm>
#include <cassert>
#include <fstream>

#include "lab/firmware/core/text.h"

namespace orrin {
namespace {

constexpr std::uint32_t kWhite = 0xFFFFFF;
constexpr std::uint32_t kGrey = 0x808080;
constexpr std::uint32_t kNight = 0x10141C;
constexpr std::uint32_t kYellow = 0xFFD040;
constexpr std::uint32_t kBars[] = {0xC0C0C0, 0xC0C000, 0x00C0C0, 0x00C000,
                                   0xC000C0, 0xC00000, 0x0000C0, 0x000000};
constexpr int kBarHeight = 40;
constexpr int kBarWidth = Picture::kWidth / static_cast<int>(std::size(kBars));
constexpr int kArm = 6;  // of the pointer's cross

// Hexadecimal digits of three by five dots, a row in three bits, the upper row first.
constexpr std::uint16_t kDigits[16] = {0x7B6F, 0x2C97, 0x73E7, 0x73CF, 0x5BC9, 0x79CF,
                                       0x79EF, 0x7292, 0x7BEF, 0x7BCF, 0x7BED, 0x6BAE,
                                       0x7927, 0x6B6E, 0x79A7, 0x79A4};
constexpr int kDigitColumns = 3;
constexpr int kDigitRows = 5;
constexpr int kDot = 6;  // pixels
constexpr int kDigitStep = (kDigitColumns + 1) * kDot;

// Returns a ramp of red to the right, of green downwards, and a blue mix of both places that moves
// with the counter.
std::uint32_t PatternColour(int x, int y, std::uint32_t counter) {
  const auto red = static_cast<std::uint32_t>(x * 255 / (Picture::kWidth - 1));
  const auto green = static_cast<std::uint32_t>(y * 255 / (Picture::kHeight - 1));
  const std::uint32_t blue = (static_cast<std::uint32_t>(x ^ y) + counter * 8) & 0xFF;
  return red << 16 | green << 8 | blue;
}

void Fill(const Area& area, std::uint32_t colour, Picture::Pixels* pixels) {
  const Area part = Intersection(area, Picture::kWhole);
  for (int y = part.y; y < part.y + part.height; ++y) {
    const auto row = pixels->begin() + y * Picture::kWidth + part.x;
    std::fill(row, row + part.width, colour);
  }
}

void DrawPattern(std::uint32_t counter, Picture::Pixels* pixels) {
  for (int y = 0; y < Picture::kHeight; ++y) {
    for (int x = 0; x < Picture::kWidth; ++x) {
      (*pixels)[static_cast<std::size_t>(y * Picture::kWidth + x)] = PatternColour(x, y, counter);
    }
  }
  for (int i = 0; i < static_cast<int>(std::size(kBars)); ++i) {
    Fill({i * kBarWidth, Picture::kHeight - kBarHeight, kBarWidth, kBarHeight}, kBars[i], pixels);
  }
}

void DrawDigit(int x, int y, unsigned value, std::uint32_t colour, Picture::Pixels* pixels) {
  assert(value < std::size(kDigits));
  for (int dot = 0; dot < kDigitColumns * kDigitRows; ++dot) {
    const bool lit = kDigits[value] >> (kDigitColumns * kDigitRows - 1 - dot) & 1;
    const int column = dot % kDigitColumns;
    const int row = dot / kDigitColumns;
    if (lit) Fill({x + column * kDot, y + row * kDot, kDot, kDot}, colour, pixels);
  }
}

// Draws a number of eight hexadecimal digits on a dark ground.
void DrawNumber(int x, int y, std::uint32_t number, std::uint32_t colour, Picture::Pixels* pixels) {
  constexpr int kNumberWidth = 8 * kDigitStep;
  Fill({x - kDot, y - kDot, kNumberWidth + kDot, (kDigitRows + 2) * kDot}, kNight, pixels);
  for (int shift = 28; shift >= 0; shift -= 4, x += kDigitStep) {
    DrawDigit(x, y, number >> shift & 0xF, colour, pixels);
  }
}

void DrawPointer(int x, int y, bool pressed, Picture::Pixels* pixels) {
  const std::uint32_t colour = pressed ? kYellow : kWhite;
  Fill({x - kArm, y, 2 * kArm + 1, 1}, colour, pixels);
  Fill({x, y - kArm, 1, 2 * kArm + 1}, colour, pixels);
  if (pressed) Fill({x - 2, y - 2, 5, 5}, colour, pixels);
}

}  // namespace

Area Intersection(const Area& one, const Area& other) {
  const int left = std::max(one.x, other.x);
  const int top = std::max(one.y, other.y);
  const int right = std::min(one.x + one.width, other.x + other.width);
  const int bottom = std::min(one.y + one.height, other.y + other.height);
  return {left, top, std::max(right - left, 0), std::max(bottom - top, 0)};
}

Area Hull(const Area& one, const Area& other) {
  if (one.IsEmpty()) return other;
  if (other.IsEmpty()) return one;
  const int left = std::min(one.x, other.x);
  const int top = std::min(one.y, other.y);
  const int right = std::max(one.x + one.width, other.x + other.width);
  const int bottom = std::max(one.y + one.height, other.y + other.height);
  return {left, top, right - left, bottom - top};
}

Picture::Picture() : pixels_(std::size_t{kWidth} * kHeight) { Draw(); }

void Picture::SetCounter(std::uint32_t counter) {
  counter_ = counter;
  Draw();
}

void Picture::SetPointer(int x, int y, bool pressed) {
  pointerX_ = std::clamp(x, 0, kWidth - 1);
  pointerY_ = std::clamp(y, 0, kHeight - 1);
  pointerPressed_ = pressed;
  Draw();
}

void Picture::SetKey(std::uint32_t keysym, bool pressed) {
  keysym_ = keysym;
  keyPressed_ = pressed;
  Draw();
}

void Picture::Draw() {
  DrawPattern(counter_, &pixels_);
  DrawNumber(16, 16, counter_, kWhite, &pixels_);
  DrawNumber(16, 64, keysym_, keyPressed_ ? kYellow : kGrey, &pixels_);
  DrawPointer(pointerX_, pointerY_, pointerPressed_, &pixels_);
}

Area Picture::Difference(const Pixels& other) const {
  assert(other.size() == pixels_.size());
  Area area;
  for (int y = 0; y < kHeight; ++y) {
    const auto row = pixels_.begin() + y * kWidth;
    const auto otherRow = other.begin() + y * kWidth;
    const auto first = std::mismatch(row, row + kWidth, otherRow).first;
    if (first == row + kWidth) continue;
    auto end = row + kWidth;
    while (end[-1] == otherRow[end - row - 1]) --end;
    area = Hull(area, {static_cast<int>(first - row), y, static_cast<int>(end - first), 1});
  }
  return area;
}

bool Picture::Save(const std::string& path) const {
  std::string bytes = Format("P6\n%d %d\n255\n", kWidth, kHeight);
  for (const std::uint32_t pixel : pixels_) {
    for (const int shift : {16, 8, 0}) bytes.push_back(static_cast<char>(pixel >> shift));
  }
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  return static_cast<bool>(
      file.write(bytes.data(), static_cast<std::streamsize>(bytes.size())).flush());
}

}  // namespace orrin
