// The system's clock and time zone.
#pragma once

#include <cstddef>
#include <cstdint>

namespace platform {

// Returns the wall-clock time in units of 100 nanoseconds since 1601-01-01 00:00 UTC.
std::uint64_t GetSystemTimeAsFileTime();

// SYSTEMTIME's fields: month 1 to 12, dayOfWeek 0 (Sunday) to 6.
struct LocalTime {
  std::uint16_t year, month, dayOfWeek, day, hour, minute, second, milliseconds;
};

// Returns the wall-clock time in the machine's time zone.
LocalTime GetLocalTime();

// Stores the time zone's StandardName (GetTimeZoneInformation) in `text` of `size` bytes: ANSI,
// zero-terminated, cut to fit.
void GetTimeZoneStandardName(char* text, std::size_t size);

}  // namespace platform
