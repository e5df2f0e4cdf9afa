// The side log: lines without a head, appended to one of four files in the log folder. Each line
// opens, writes and closes its file, so nothing stays locked. The files are not bounded.
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

// A time as asctime of msvcrt.dll formats it, without its newline: a day below 10 has a leading
// zero.
struct SideLogTime {
  explicit SideLogTime(const platform::LocalTime& time);
  char text[32];
};

// Appends `size` bytes to the channel's file. Does nothing for a channel outside the table. If the
// file can't be opened the bytes are lost. Any thread.
void SideLog_Write(std::uint32_t channel, const void* data, std::size_t size);

// Appends the time prefix and the formatted text, cut at 1023 characters; a line end is the
// caller's. Only %d, %x, %X and %s are conversions. Any other character after '%' is written as it
// is and takes no argument. Called through SideLog.
void SideLog_Format(std::uint32_t channel, std::string_view format,
                    std::span<const FormatArg> args);

template <class... Args>
void SideLog(std::uint32_t channel, std::string_view format, const Args&... args) {
  const FormatArg list[] = {FormatArg(args)..., FormatArg()};
  SideLog_Format(channel, format, std::span(list, sizeof...(Args)));
}

// Writes "<text> failed with error <number>: <the system's text>" of the calling thread's last
// platform error to the debug output and the channel. Requires that no platform call follows the
// one that failed.
void ReportLastError(std::uint32_t channel, const char* text);

}  // namespace stewardry
