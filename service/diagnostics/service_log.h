// The service log: the one text file that tells what the whole service does, bounded by rotation
// into a single backup. Any thread may log at any time; a mutex of the process's own serialises the
// lines, a named one those of several processes, and a thread that dies inside a line doesn't stop
// the next one. Nobody else can either: a name or a named mutex that is somebody else's isn't used.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>

#include "platform/mutex.h"
#include "service/diagnostics/format.h"

namespace stewardry {

// Starts the log on the file `path` (copied) with a rotation limit of `maxSize` bytes. A log that
// was started before is closed. True if the file is open; if not, lines go to the debug output.
bool ServiceLog_Start(const char* path, std::uint32_t maxSize);

// Flushes and closes the file and ends the log: lines written from then on are dropped. Does
// nothing without a log. Safe while other threads log.
void ServiceLog_Close();

// The mutex that a thread of this process holds while it writes a line; null before the first line
// or start. It lives as long as the process. Any thread.
const platform::Mutex* ServiceLog_Mutex();

// The header word of a line, with its blanks.
enum class LogHeader { kInfo, kWarn, kError };

// Formats the message (cut at 1023 characters) and writes the line. Use LogInfo and its twins.
void ServiceLog_Write(LogHeader header, std::string_view format, std::span<const FormatArg> args);

// The service's log call: a printf-style format and its arguments, checked at compile time. There
// is no level filter. Nothing happens before ServiceLog_Start. Each line has left the process when
// the call returns.
template <class... Args>
void LogInfo(CheckedFormat<std::type_identity_t<Args>...> format, const Args&... args) {
  const FormatArg list[] = {FormatArg(args)..., FormatArg()};
  ServiceLog_Write(LogHeader::kInfo, format.text, std::span(list, sizeof...(Args)));
}

// The same with the headers "WARN:  " and "ERROR: ".
template <class... Args>
void LogWarn(CheckedFormat<std::type_identity_t<Args>...> format, const Args&... args) {
  const FormatArg list[] = {FormatArg(args)..., FormatArg()};
  ServiceLog_Write(LogHeader::kWarn, format.text, std::span(list, sizeof...(Args)));
}
template <class... Args>
void LogError(CheckedFormat<std::type_identity_t<Args>...> format, const Args&... args) {
  const FormatArg list[] = {FormatArg(args)..., FormatArg()};
  ServiceLog_Write(LogHeader::kError, format.text, std::span(list, sizeof...(Args)));
}

}  // namespace stewardry
