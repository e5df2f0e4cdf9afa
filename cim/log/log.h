// The library's log: one stream, one threshold, a line for each report, with the local time, the
// process and thread numbers and the level in front. Nothing is attached at the start, and a call
// then returns at its first look; the service leaves it so. Any thread may log at any time; lines
// of several threads may mix, in pieces of a line. Attaching, detaching and a selector's first run
// belong to the program's start and end, when nobody logs.
//
// `file` is narrow text that may be empty (or null), `format` one of the print family, of 16 bits.
#pragma once

#include <atomic>
#include <cstdarg>
#include <cstdint>
#include <cstdio>

#include "cim/memory/result.h"

namespace stewardry::cim {

// Levels; lower is more severe.
enum LibLogSeverity : std::int32_t {
  LIBLOG_FATAL,
  LIBLOG_ERROR,
  LIBLOG_WARNING,
  LIBLOG_INFO,
  LIBLOG_DEBUG,
  LIBLOG_VERBOSE,
};

// Lines of this level and of lower ones are written. Relaxed: it stands for itself.
extern std::atomic<std::int32_t> LibLogLevel;
// Where lines go; null for nowhere. Release and acquire: who sees a stream may write to it.
extern std::atomic<std::FILE*> LibLogStream;

// Opens a file of the host, named in 16-bit text, for appending, shared with others, and makes it
// the log's stream; from then on the selectors' failures are reported here too. 0, or 1 for an
// empty path, when a stream is attached already, and when the file can't be opened.
int LibLog_Attach(const char16_t* path);
// Not offered: 1.
int LibLog_AttachDescriptor(int descriptor);
// Makes standard error the stream, whatever was there before. 0. It can't be detached again.
int LibLog_AttachStderr();
// Closes a stream that LibLog_Attach opened. 0.
int LibLog_Detach();
bool LibLog_IsAttached();
bool LibLog_IsStderr();

// The threshold, as it comes.
int LibLog_SetLevel(std::int32_t level);
std::int32_t LibLog_GetLevel();
// "FATAL" to "VERBOSE", for 0 to 5.
const char* LibLog_LevelName(std::int32_t level);
// Sets the threshold by a level's name, in any case, or its number. 0, or -1, with the threshold as
// it was, for any other text, an empty pointer or, in 16 bits, a text of 20 units or more.
int LibLog_SetLevelText(const char16_t* level);
int LibLog_SetLevelNarrowText(const char* level);

// A report with a number. Nothing for a level that is none of the six.
void LibLog_Event(std::int32_t level, std::int32_t eventId, const char* file, std::uint32_t line,
                  const char16_t* format, ...);

// One line, flushed; an empty file reads "null". 1 if it was written.
int LibLog_VPut(std::int32_t level, const char* file, std::uint32_t line, const char16_t* format,
                va_list arguments);
// The same without a flush, and without a file part for an empty file.
int LibLog_Put(std::int32_t level, const char* file, std::uint32_t line, const char16_t* format,
               ...);
// The text and a newline alone, whatever the threshold; flushed.
void LibLog_Raw(const char16_t* format, ...);

// LibLog_VPut with that level and no file.
void LibLog_Fatal(const char16_t* format, ...);
void LibLog_Error(const char16_t* format, ...);
void LibLog_Warning(const char16_t* format, ...);
void LibLog_Info(const char16_t* format, ...);
void LibLog_Debug(const char16_t* format, ...);
void LibLog_Verbose(const char16_t* format, ...);

}  // namespace stewardry::cim
