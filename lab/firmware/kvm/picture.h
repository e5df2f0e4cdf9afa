// The screen that the firmware shows to a viewer: a pattern drawn from a counter, the pointer and
// the last key, and from nothing else, so that the same history always gives the same pixels.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace orrin {

// A part of the screen in pixels. Empty when either extent is 0.
struct Area {
  int x = 0;
  int y = 0;
  int width = 0;
  int height = 0;
  bool IsEmpty() const { return width <= 0 || height <= 0; }
  friend bool operator==(const Area&, const Area&) = default;
};

// The part that both have.
Area Intersection(const Area& one, const Area& other);
// The smallest area that holds both; an empty one adds nothing.
Area Hull(const Area& one, const Area& other);

// One thread.
class Picture {
 public:
  static constexpr int kWidth = 320;
  static constexpr int kHeight = 200;
  static constexpr Area kWhole = {0, 0, kWidth, kHeight};
  // Rows of kWidth pixels, 0xRRGGBB each.
  using Pixels = std::vector<std::uint32_t>;

  Picture();

  const Pixels& Shown() const { return pixels_; }
  std::uint32_t Counter() const { return counter_; }
  // Draws the pattern that belongs to the counter.
  void SetCounter(std::uint32_t counter);
  // A cross where the pointer is, filled while a button is down. Any numbers.
  void SetPointer(int x, int y, bool pressed);
  // The keysym in digits, lit while the key is down.
  void SetKey(std::uint32_t keysym, bool pressed);
  // The smallest area outside of which `other` has the same pixels; empty when all are the same.
  // REQUIRES: `other` has as many pixels.
  Area Difference(const Pixels& other) const;
  // Writes the screen as a binary PPM (P6, 255 as the greatest value). False: the reason is in
  // errno.
  bool Save(const std::string& path) const;

 private:
  void Draw();
  void DrawPattern();
  void DrawDigits(int x, int y, const std::string& digits, std::uint32_t colour);
  void DrawDigit(int x, int y, unsigned value, std::uint32_t colour);
  void DrawPointer();
  void Fill(const Area& area, std::uint32_t colour);

  Pixels pixels_;
  std::uint32_t counter_ = 0;
  int pointerX_ = kWidth / 2;
  int pointerY_ = kHeight / 2;
  bool pointerPressed_ = false;
  std::uint32_t keysym_ = 0;
  bool keyPressed_ = false;
};

}  // namespace orrin
