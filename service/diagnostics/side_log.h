// The side log: bare lines appended to one of four files in the log folder. Each line opens, writes
// and closes its file, so nothing stays locked; the files are not bounded.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string_view>

#include "platform/clock.h"
#include "service/diagnostics/format.h"

namespace stewardry {

// Channels: 0 keyboard, mouse and agent; 1 the service log's file; 2 mailbox; 3 the WMI log's file.
constexpr std::uint32_t kSideLogKeyboardMouse = 0;

// A time as asctime of the Windows runtime that the service is linked with (msvcrt.dll) gives it,
// without its newline: a day below 10 has a zero before it.
struct SideLogTime {
  explicit SideLogTime(const platform::LocalTime& time);
  char text[32];
};

// Appends `size` bytes to the channel's file. A channel outside the table writes nothing, and a
// file that can't be opened loses the bytes. Any thread.
void SideLog_Write(std::uint32_t channel, const void* data, std::size_t size);

// Formats and appends one line behind the time prefix; the caller gives any line end. Only %d, %x,
// %X and %s are conversions; behind '%' any other character stands for itself and takes no
// argument. Cut at 1023 characters. Use SideLog.
void SideLog_Format(std::uint32_t channel, std::string_view format,
                    std::span<const FormatArg> args);

template <class... Args>
void SideLog(std::uint32_t channel, std::string_view format, const Args&... args) {
  const FormatArg list[] = {FormatArg(args)..., FormatArg()};
  SideLog_Format(channel, format, std::span(list, sizeof...(Args)));
}

// Reports the calling thread's last platform error with its text, as "<text> failed with error
// <number>: <the system's text>", to the debug output and the channel. Call it directly after the
// failing call.
void ReportLastError(std::uint32_t channel, const char* text);

}  // namespace stewardry
