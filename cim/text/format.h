// What the print and the scan family share: the translation of the letters for text, and the "C"
// locale.
//
// A caller writes %T for 16-bit text, %s for narrow and %S for 16-bit text, in formats of either
// width. The formatter below, as a C runtime, takes %s for text of the format's own width and %S
// for text of the other.
#pragma once

#include <array>
#include <clocale>
#include <cstddef>

#include "cim/text/text.h"

namespace stewardry::cim {

// Replace the letters of a format: %T by %S in a narrow format; %T by %s, %s by %S and %S by %s in
// a 16-bit format. A letter counts wherever a % precedes it, also behind "%%"; the rest of the
// format is not parsed. `out` has room for the format's length and a terminator.
void Format_ToNarrowSpec(const char* format, char* out);
void Format_ToWideSpec(const char16_t* format, char16_t* out);

// A translated format, in a local buffer if it fits. Any thread, each its own.
template <class Unit>
class TranslatedFormat {
 public:
  explicit TranslatedFormat(const Unit* format);
  TranslatedFormat(const TranslatedFormat&) = delete;
  TranslatedFormat& operator=(const TranslatedFormat&) = delete;
  ~TranslatedFormat();

  // Returns null if the allocation failed.
  const Unit* Text() const { return text_; }

 private:
  std::array<Unit, 128> local_;
  Unit* text_ = nullptr;
};

// Sets the process's locale to "C", and restores the previous one at its end. There is no lock: the
// locale belongs to the whole process, so no other thread may do locale-dependent work meanwhile.
//
// The name of a locale whose categories differ lists them all: glibc has twelve, each with a name
// of up to 255 characters. The buffer holds any such name, because a cut name cannot be restored.
// NOLINTBEGIN(concurrency-mt-unsafe): see above
class CLocale {
 public:
  CLocale() {
    const char* name = std::setlocale(LC_ALL, nullptr);
    (void)Text_CopyNarrow(name_.data(), name != nullptr ? name : "C", name_.size());
    (void)std::setlocale(LC_ALL, "C");  // cannot fail
  }
  CLocale(const CLocale&) = delete;
  CLocale& operator=(const CLocale&) = delete;
  ~CLocale() { (void)std::setlocale(LC_ALL, name_.data()); }

 private:
  std::array<char, 4096> name_;  // not initialised: only the name's own length is used
};
// NOLINTEND(concurrency-mt-unsafe)

}  // namespace stewardry::cim
