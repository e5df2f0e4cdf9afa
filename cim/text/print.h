// The print family. A format of either width takes %T and %S for 16-bit text and %s for narrow
// text; letters with something between them and their % (%-10s, %ls) keep the meaning of
// cim/text/formatter.h. Each operation has a form with arguments and one, ending in V, with an
// argument list.
//
// The forms that end in C print as in the "C" locale, whatever the process has set: they set it and
// set it back, without a lock, so no other thread may do locale-dependent work meanwhile. The
// others may be called by any thread; each call's text reaches a stream in one piece or in few.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdio>

namespace stewardry::cim {

// To a stream or standard output; 16-bit text as UTF-8. The number of units printed, or -1 when the
// format is none, the heap failed or the stream didn't take it.
int Print_ToStream(std::FILE* stream, const char* format, ...);
int Print_ToStreamV(std::FILE* stream, const char* format, va_list arguments);
int PrintW_ToStream(std::FILE* stream, const char16_t* format, ...);
int PrintW_ToStreamV(std::FILE* stream, const char16_t* format, va_list arguments);
int Print_ToStdout(const char* format, ...);
int Print_ToStdoutV(const char* format, va_list arguments);
int PrintW_ToStdout(const char16_t* format, ...);
int PrintW_ToStdoutV(const char16_t* format, va_list arguments);

// To `size` units at `buffer`, terminator included. The number of units, or -1 when they and the
// terminator don't fit or the format can't be translated. A narrow buffer then holds what fitted,
// with its terminator, or nothing after a failed translation; one of 16 bits always holds nothing.
int Print_ToBuffer(char* buffer, std::size_t size, const char* format, ...);
int Print_ToBufferV(char* buffer, std::size_t size, const char* format, va_list arguments);
int PrintW_ToBuffer(char16_t* buffer, std::size_t size, const char16_t* format, ...);
int PrintW_ToBufferV(char16_t* buffer, std::size_t size, const char16_t* format, va_list arguments);
int Print_ToBufferC(char* buffer, std::size_t size, const char* format, ...);
int Print_ToBufferCV(char* buffer, std::size_t size, const char* format, va_list arguments);
int PrintW_ToBufferC(char16_t* buffer, std::size_t size, const char16_t* format, ...);
int PrintW_ToBufferCV(char16_t* buffer, std::size_t size, const char16_t* format,
                      va_list arguments);

// To a new block, which the caller gives to Heap_Free; empty when the heap fails or the format is
// none.
char16_t* PrintW_Alloc(const char16_t* format, ...);
char16_t* PrintW_AllocV(const char16_t* format, va_list arguments);

}  // namespace stewardry::cim
