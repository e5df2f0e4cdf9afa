#include "cim/text/format.h"

#include <string>

#include "cim/memory/arithmetic.h"
#include "cim/memory/heap.h"

namespace stewardry::cim {

namespace {

struct Letter {
  char written, passed;
};
constexpr Letter kNarrowLetters[] = {{'T', 'S'}};
constexpr Letter kWideLetters[] = {{'T', 's'}, {'s', 'S'}, {'S', 's'}};

template <class Unit, std::size_t Count>
void Translate(const Unit* format, Unit* out, const Letter (&letters)[Count]) {
  while ((*out++ = *format) != 0) {
    if (*format++ != '%') continue;
    for (const Letter& letter : letters) {
      if (*format != static_cast<Unit>(letter.written)) continue;
      *out++ = static_cast<Unit>(letter.passed);
      ++format;
      break;
    }
  }
}

void TranslateTo(const char* format, char* out) { Format_ToNarrowSpec(format, out); }
void TranslateTo(const char16_t* format, char16_t* out) { Format_ToWideSpec(format, out); }

}  // namespace

void Format_ToNarrowSpec(const char* format, char* out) { Translate(format, out, kNarrowLetters); }

void Format_ToWideSpec(const char16_t* format, char16_t* out) {
  Translate(format, out, kWideLetters);
}

template <class Unit>
TranslatedFormat<Unit>::TranslatedFormat(const Unit* format) {
  const std::size_t units = std::char_traits<Unit>::length(format) + 1;
  std::size_t size = 0;
  if (units <= local_.size()) {
    text_ = local_.data();
  } else if (Size_Mul(units, sizeof(Unit), &size) == RESULT_OK) {
    text_ = static_cast<Unit*>(Heap_Allocate(size));
  }
  if (text_ != nullptr) TranslateTo(format, text_);
}

template <class Unit>
TranslatedFormat<Unit>::~TranslatedFormat() {
  if (text_ != local_.data()) Heap_Free(text_);
}

template class TranslatedFormat<char>;
template class TranslatedFormat<char16_t>;

}  // namespace stewardry::cim
