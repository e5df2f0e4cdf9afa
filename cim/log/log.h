// The library's log: one stream, one threshold, one line for each report. A line begins with the
// local time, the process and thread numbers and the level. No stream is attached at the start, and
// calls return at their first test; the service never attaches one. Any thread may log at any time;
// lines of several threads may mix in pieces. Attach and detach only while no other thread logs and
// before a selector runs.
//
// `file` is narrow text and may be null or empty; `format` is a 16-bit format of the print family.
#pragma once

#include <cstdarg>
#include <cstdint>

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

// Opens a file, named in 16-bit text, for appending, shared with others, and makes it the log's
// stream; the selectors report their failures here from then on. Returns 0, or 1 if the path is
// null or empty, a stream is already attached, or the file cannot be opened.
int LibLog_Attach(const char16_t* path);
// Not supported: returns 1.
int LibLog_AttachDescriptor(int descriptor);
// Makes standard error the stream, and replaces any other without closing it. It cannot be detached
// again. Returns 0.
int LibLog_AttachStderr();
// Closes a stream that LibLog_Attach opened. Returns 0.
int LibLog_Detach();
bool LibLog_IsAttached();
bool LibLog_IsStderr();

// Set and return the threshold: lines of this level and of lower ones are written. Any value is
// stored as it is; the initial one is LIBLOG_INFO. Set returns 0.
int LibLog_SetLevel(std::int32_t level);
std::int32_t LibLog_GetLevel();
// Returns "FATAL" to "VERBOSE" for 0 to 5. Requires one of these.
const char* LibLog_LevelName(std::int32_t level);
// Set the threshold by a level's name, in any case, or its number. Return 0, or -1 and leave the
// threshold unchanged for any other text, a null pointer or a 16-bit text of 20 units or more.
int LibLog_SetLevelText(const char16_t* level);
int LibLog_SetLevelNarrowText(const char* level);

// Writes a numbered report. Writes nothing for a level other than the six.
void LibLog_Event(std::int32_t level, std::int32_t eventId, const char* file, std::uint32_t line,
                  const char16_t* format, ...);

// Writes one line and flushes; an empty file is written as "null". Returns 1 if the line was
// written, else 0.
int LibLog_VPut(std::int32_t level, const char* file, std::uint32_t line, const char16_t* format,
                va_list arguments);
// Does the same without a flush, and without a file part for an empty file.
int LibLog_Put(std::int32_t level, const char* file, std::uint32_t line, const char16_t* format,
               ...);
// Writes the text and a newline alone, whatever the threshold, and flushes.
void LibLog_Raw(const char16_t* format, ...);

// Call LibLog_VPut with the level of their name and no file.
void LibLog_Fatal(const char16_t* format, ...);
void LibLog_Error(const char16_t* format, ...);
void LibLog_Warning(const char16_t* format, ...);
void LibLog_Info(const char16_t* format, ...);
void LibLog_Debug(const char16_t* format, ...);
void LibLog_Verbose(const char16_t* format, ...);

}  // namespace stewardry::cim
