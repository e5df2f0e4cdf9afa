// The scan family: fields read from a text as in the "C" locale. The letters for text are those of
// the print family (%T and %S store 16-bit text, %s narrow text). The rest is C's: white space,
// literals, %d %i %u %o %x %c %[...] %p %a %e %f %g %n, a width, %* to read and drop a field. The
// locale of the process changes during the call: see cim/text/print.h.
#pragma once

#include <cstdarg>

namespace stewardry::cim {

// Return the number of fields stored, or -1 if the text ends before the first field, the format has
// more than ten conversions that store (nothing is read then) or an allocation fails. A text field
// without a width has no bound: the caller's field must have room for all of `text`.
int Scan_FromTextC(const char* text, const char* format, ...);
int Scan_FromTextCV(const char* text, const char* format, va_list arguments);
int ScanW_FromTextC(const char16_t* text, const char16_t* format, ...);
int ScanW_FromTextCV(const char16_t* text, const char16_t* format, va_list arguments);

}  // namespace stewardry::cim
