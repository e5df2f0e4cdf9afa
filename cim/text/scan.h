// The scan family: fields read from a text as in the "C" locale. The letters for text are those of
// the print family (%T and %S store 16-bit text, %s narrow text), and the rest is C's: white space,
// literals, %d %i %u %o %x %c %[...] %p %a %e %f %g %n, a width, %* to read and drop a field. The
// locale is the process's for the length of the call: see cim/text/print.h.
#pragma once

#include <cstdarg>

namespace stewardry::cim {

// Gives the number of fields stored, or -1 when the text ends before the first field, the format
// has more than ten conversions that store (nothing is read then) or the heap failed. A field of
// text without a width is stored as long as it is: the caller's room must hold all of `text`.
int Scan_FromTextC(const char* text, const char* format, ...);
int Scan_FromTextCV(const char* text, const char* format, va_list arguments);
int ScanW_FromTextC(const char16_t* text, const char16_t* format, ...);
int ScanW_FromTextCV(const char16_t* text, const char16_t* format, va_list arguments);

}  // namespace stewardry::cim
