// The service log: one text file for the whole service, bounded by rotation into a single backup.
// Any thread may log at any time. A mutex of the process serialises its lines, a named one those of
// several processes. A thread that is ended inside a line doesn't stop the next one, and a named
// mutex that another program created or holds is not used.
#pragma once

#include <cstdint>
#include <span>
#include <string_view>

#include "platform/mutex.h"
#include "service/diagnostics/format.h"

namespace stewardry {

// Starts the log on the file `path` (copied) with a rotation limit of `maxSize` bytes, and closes a
// log that was started before. Returns true if the file is open; if not, lines go to the debug
// output.
bool ServiceLog_Start(const char* path, std::uint32_t maxSize);

// Flushes and closes the file and ends the log: later lines are dropped. Does nothing without a
// log. Safe while other threads log.
void ServiceLog_Close();

// Returns the mutex that a thread of this process holds while it writes a line; null before the
// first line or start. It lives as long as the process. Any thread.
const platform::Mutex* ServiceLog_Mutex();

enum class LogHeader { kInfo, kWarn, kError };

// Formats the message, cut at 1023 characters, and writes the line. Called through LogInfo, LogWarn
// and LogError.
void ServiceLog_Write(LogHeader header, std::string_view format, std::span<const FormatArg> args);

// Logs a printf-style format and its arguments, checked at compile time. There is no level filter.
// Does nothing before ServiceLog_Start. The line has left the process when the call returns.
template <class... Args>
void LogInfo(CheckedFormat<std::type_identity_t<Args>...> format, const Args&... args) {
  const FormatArg list[] = {FormatArg(args)..., FormatArg()};
  ServiceLog_Write(LogHeader::kInfo, format.text, std::span(list, sizeof...(Args)));
}

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
