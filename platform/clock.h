// The system's clock and time zone.
#pragma once

#include <cstddef>
#include <cstdint>

namespace platform {

// GetSystemTimeAsFileTime: 100-nanosecond units since 1601-01-01 00:00 UTC. Wall-clock time.
std::uint64_t GetSystemTimeAsFileTime();

// SYSTEMTIME's fields: month 1 to 12, dayOfWeek 0 (Sunday) to 6.
struct LocalTime {
  std::uint16_t year, month, dayOfWeek, day, hour, minute, second, milliseconds;
};

// GetLocalTime: the wall clock in the machine's time zone.
LocalTime GetLocalTime();

// GetTimeZoneInformation: writes StandardName as ANSI text with a terminator into `text` of `size`
// bytes, cut to fit.
void GetTimeZoneStandardName(char* text, std::size_t size);

}  // namespace platform
