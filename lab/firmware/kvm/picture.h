// The screen that the firmware shows to a viewer. It depends on a counter, the pointer and the last
// key only, so that the same history always produces the same pixels.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace orrin {

// A part of the screen in pixels. Empty if either extent is 0.
struct Area {
  int x = 0;
  int y = 0;
  int width = 0;
  int height = 0;
  bool IsEmpty() const { return width <= 0 || height <= 0; }
  friend bool operator==(const Area&, const Area&) = default;
};

// Returns the part that is in both.
Area Intersection(const Area& one, const Area& other);
// Returns the smallest area that contains both.
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
  // Draws a cross at the pointer, filled while a button is down. Moves a place outside to the edge.
  void SetPointer(int x, int y, bool pressed);
  // Draws the keysym in digits, lit while the key is down.
  void SetKey(std::uint32_t keysym, bool pressed);
  // Returns the smallest area outside of which `other` has the same pixels, empty if all are the
  // same. Requires as many pixels in `other`.
  Area Difference(const Pixels& other) const;
  // Writes the screen as a binary PPM (P6, maximum 255). Returns false with the reason in errno.
  bool Save(const std::string& path) const;

 private:
  void Draw();

  Pixels pixels_;
  std::uint32_t counter_ = 0;
  int pointerX_ = kWidth / 2;
  int pointerY_ = kHeight / 2;
  bool pointerPressed_ = false;
  std::uint32_t keysym_ = 0;
  bool keyPressed_ = false;
};

}  // namespace orrin
