// The letters for text in a format. A caller writes %T for 16-bit text, %s for narrow and %S for
// 16-bit text, in formats of either width. Underneath, as in a C runtime, %s is text of the
// format's own width and %S of the other. The translation between the two is here.
#pragma once

#include <array>
#include <cstddef>

namespace stewardry::cim {

// Replaces the letters of a format: %T by %S in a narrow one; %T by %s, %s by %S and %S by %s in
// one of 16 bits. They are found wherever a % stands right before them, also behind "%%", and
// nothing else of the format is looked at. `out` has room for the format's length and a terminator.
void Format_ToNarrowSpec(const char* format, char* out);
void Format_ToWideSpec(const char16_t* format, char16_t* out);

// A translated format, on the stack if it has room there. Any thread, each its own.
template <class Unit>
class TranslatedFormat {
 public:
  explicit TranslatedFormat(const Unit* format);
  TranslatedFormat(const TranslatedFormat&) = delete;
  TranslatedFormat& operator=(const TranslatedFormat&) = delete;
  ~TranslatedFormat();

  // Empty when the heap had no room for it.
  const Unit* Text() const { return text_; }

 private:
  std::array<Unit, 128> local_;
  Unit* text_ = nullptr;
};

}  // namespace stewardry::cim
