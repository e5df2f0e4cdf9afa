// The WMI log: the inventory's log, with a line format, an unnamed mutex and a rotation of its own.
// If a thread ends while it holds the mutex, the next line ends the process.
#pragma once

#include <cstdint>

#include "platform/mutex.h"
#include "service/diagnostics/format.h"

namespace stewardry {

// The tag of every line of the service.
inline constexpr char kWmiTag[] = "TAVRIN_WMI";

struct WmiLog;

// Returns the single object and creates it on first use. Ends the process if its mutex can't be
// created. Any thread.
WmiLog& WmiLog_Get();

// Returns the mutex that a thread holds while it writes a line; null before the first use. It lives
// as long as the process. Any thread.
const platform::Mutex* WmiLog_Mutex();

// Opens tavrinWMI.log in the log folder and writes the banner with what "ver" prints. Called once,
// by the server thread.
void WmiLog_Start();

// Opens the file and sets the rotation limit in bytes. Returns 0, or -1 if the file can't be
// opened; lines then go to the debug output.
int WmiLog_Open(const char* path, std::uint32_t limit);

// Writes one line with the level word "INFO:  ", "WARN:  " or "ERROR: ". A long text is cut so that
// the line keeps its tail. Any thread.
void WmiLog_Info(const char* tag, const char* text);
void WmiLog_Warn(const char* tag, const char* text);
void WmiLog_Error(const char* tag, const char* text);

// Writes a formatted text, cut at 1023 characters, with WmiLog_Info under kWmiTag.
template <class... Args>
void WmiInfo(CheckedFormat<std::type_identity_t<Args>...> format, const Args&... args) {
  char text[1024];
  const FormatArg list[] = {FormatArg(args)..., FormatArg()};
  FormatText(text, sizeof text, format.text, std::span(list, sizeof...(Args)));
  WmiLog_Info(kWmiTag, text);
}

}  // namespace stewardry
