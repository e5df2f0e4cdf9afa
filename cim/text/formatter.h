// The formatter of the print family: a C runtime's printf for formats of 8 and of 16 bits, the same
// on every platform. Letters have a C runtime's meaning: %s is text of the format's own width and
// %S of the other, %ls is 16-bit text and %hs narrow text in both. Text is converted between UTF-8
// and UTF-16. Numbers are printed by the runtime, so they follow the locale; %p prints sixteen
// capital hexadecimal digits everywhere.
#pragma once

#include <cstdarg>
#include <cstddef>

namespace stewardry::cim {

// Receives the text of one call.
template <class Unit>
class Output {
 public:
  virtual ~Output() = default;
  virtual void Put(const Unit* units, std::size_t count) = 0;
};

// Formats into `out`. Returns the number of units, or -1 for %n, an unknown letter, no letter, or a
// width or precision above 1000; the text before that conversion has been put.
template <class Unit>
int FormatInto(Output<Unit>* out, const Unit* format, va_list arguments);

}  // namespace stewardry::cim
