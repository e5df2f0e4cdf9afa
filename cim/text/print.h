// The print family. Formats of either width take %T and %S for 16-bit text and %s for narrow text.
// A letter that does not follow its % directly (%-10s, %ls) has the meaning of
// cim/text/formatter.h. Each operation has a form with arguments and one, ending in V, with an
// argument list.
//
// The forms that end in C print in the "C" locale. They set it and restore the previous one without
// a lock, so no other thread may do locale-dependent work meanwhile. Any thread may call the
// others; the text of a call is written to a stream in one or few pieces.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdio>

namespace stewardry::cim {

// Print to a stream or to standard output; 16-bit text as UTF-8. Return the number of units
// printed, or -1 if the format is invalid, an allocation or the write to the stream fails.
int Print_ToStream(std::FILE* stream, const char* format, ...);
int Print_ToStreamV(std::FILE* stream, const char* format, va_list arguments);
int PrintW_ToStream(std::FILE* stream, const char16_t* format, ...);
int PrintW_ToStreamV(std::FILE* stream, const char16_t* format, va_list arguments);
int Print_ToStdout(const char* format, ...);
int Print_ToStdoutV(const char* format, va_list arguments);
int PrintW_ToStdout(const char16_t* format, ...);
int PrintW_ToStdoutV(const char16_t* format, va_list arguments);

// Print to `size` units at `buffer`, terminator included. Return the number of units, or -1 if they
// and the terminator do not fit or the format is invalid or cannot be translated. After -1 a narrow
// buffer holds the text that fitted, or an empty one after a failed translation; a 16-bit buffer
// holds an empty text.
int Print_ToBuffer(char* buffer, std::size_t size, const char* format, ...);
int Print_ToBufferV(char* buffer, std::size_t size, const char* format, va_list arguments);
int PrintW_ToBuffer(char16_t* buffer, std::size_t size, const char16_t* format, ...);
int PrintW_ToBufferV(char16_t* buffer, std::size_t size, const char16_t* format, va_list arguments);
int Print_ToBufferC(char* buffer, std::size_t size, const char* format, ...);
int Print_ToBufferCV(char* buffer, std::size_t size, const char* format, va_list arguments);
int PrintW_ToBufferC(char16_t* buffer, std::size_t size, const char16_t* format, ...);
int PrintW_ToBufferCV(char16_t* buffer, std::size_t size, const char16_t* format,
                      va_list arguments);

// Print to a new block, which the caller passes to Heap_Free. Return null if the allocation fails
// or the format is invalid.
char16_t* PrintW_Alloc(const char16_t* format, ...);
char16_t* PrintW_AllocV(const char16_t* format, va_list arguments);

}  // namespace stewardry::cim
