#include "lab/firmware/kvm/picture.h"

#include <algorithm>
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

// A ramp of red to the right, of green downwards, and a weave of both that moves with the counter.
std::uint32_t PatternColour(int x, int y, std::uint32_t counter) {
  const auto red = static_cast<std::uint32_t>(x * 255 / (Picture::kWidth - 1));
  const auto green = static_cast<std::uint32_t>(y * 255 / (Picture::kHeight - 1));
  const std::uint32_t weave = (static_cast<std::uint32_t>(x ^ y) + counter * 8) & 0xFF;
  return red << 16 | green << 8 | weave;
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
  DrawPattern();
  DrawDigits(16, 16, Format("%08x", counter_), kWhite);
  DrawDigits(16, 64, Format("%08x", keysym_), keyPressed_ ? kYellow : kGrey);
  DrawPointer();
}

void Picture::DrawPattern() {
  for (int y = 0; y < kHeight; y++) {
    for (int x = 0; x < kWidth; x++) {
      pixels_[static_cast<std::size_t>(y * kWidth + x)] = PatternColour(x, y, counter_);
    }
  }
  for (int i = 0; i < static_cast<int>(std::size(kBars)); i++) {
    Fill({i * kBarWidth, kHeight - kBarHeight, kBarWidth, kBarHeight}, kBars[i]);
  }
}

void Picture::DrawDigits(int x, int y, const std::string& digits, std::uint32_t colour) {
  const int width = static_cast<int>(digits.size()) * kDigitStep;
  Fill({x - kDot, y - kDot, width + kDot, (kDigitRows + 2) * kDot}, kNight);
  for (const char digit : digits) {
    DrawDigit(x, y, static_cast<unsigned>(digit <= '9' ? digit - '0' : digit - 'a' + 10), colour);
    x += kDigitStep;
  }
}

void Picture::DrawDigit(int x, int y, unsigned value, std::uint32_t colour) {
  for (int dot = 0; dot < kDigitColumns * kDigitRows; dot++) {
    const bool lit = kDigits[value] >> (kDigitColumns * kDigitRows - 1 - dot) & 1;
    const int column = dot % kDigitColumns;
    const int row = dot / kDigitColumns;
    if (lit) Fill({x + column * kDot, y + row * kDot, kDot, kDot}, colour);
  }
}

void Picture::DrawPointer() {
  const std::uint32_t colour = pointerPressed_ ? kYellow : kWhite;
  Fill({pointerX_ - kArm, pointerY_, 2 * kArm + 1, 1}, colour);
  Fill({pointerX_, pointerY_ - kArm, 1, 2 * kArm + 1}, colour);
  if (pointerPressed_) Fill({pointerX_ - 2, pointerY_ - 2, 5, 5}, colour);
}

void Picture::Fill(const Area& area, std::uint32_t colour) {
  const Area part = Intersection(area, kWhole);
  for (int y = part.y; y < part.y + part.height; y++) {
    const auto row = pixels_.begin() + y * kWidth + part.x;
    std::fill(row, row + part.width, colour);
  }
}

Area Picture::Difference(const Pixels& other) const {
  Area area;
  for (int y = 0; y < kHeight; y++) {
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
