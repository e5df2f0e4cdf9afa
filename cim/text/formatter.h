// The print function below the print family: what a C runtime's printf does, for formats of 8 and
// of 16 bits, the same on every platform. %s and %ls, %S and %hs keep to a C runtime's meaning: %s
// is text of the format's own width and %S of the other, while %ls is 16-bit and %hs narrow in
// both. Narrow text is UTF-8 when it goes into 16 bits, and 16-bit text becomes UTF-8. Numbers are
// the runtime's own, so they follow the locale; %p has sixteen capital hexadecimal digits
// everywhere.
#pragma once

#include <cstdarg>
#include <cstddef>

namespace stewardry::cim {

// Where the text goes. Implementations belong to one call.
template <class Unit>
class Output {
 public:
  virtual ~Output() = default;
  virtual void Put(const Unit* units, std::size_t count) = 0;
};

// Formats into `out`. Gives the number of units, or -1 for a format with %n, an unknown letter, no
// letter at all, or a width or precision above 1000; what comes before that has been put out.
template <class Unit>
int FormatInto(Output<Unit>* out, const Unit* format, va_list arguments);

}  // namespace stewardry::cim
