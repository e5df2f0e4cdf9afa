#include "platform/clock.h"

#include <bit>
#include <cwchar>
#include <iterator>

#include "platform/network.h"
#include "platform/windows/runtime/windows_api.h"

namespace platform {

static_assert(sizeof(LocalTime) == sizeof(SYSTEMTIME) &&
              offsetof(LocalTime, year) == offsetof(SYSTEMTIME, wYear) &&
              offsetof(LocalTime, month) == offsetof(SYSTEMTIME, wMonth) &&
              offsetof(LocalTime, dayOfWeek) == offsetof(SYSTEMTIME, wDayOfWeek) &&
              offsetof(LocalTime, day) == offsetof(SYSTEMTIME, wDay) &&
              offsetof(LocalTime, hour) == offsetof(SYSTEMTIME, wHour) &&
              offsetof(LocalTime, minute) == offsetof(SYSTEMTIME, wMinute) &&
              offsetof(LocalTime, second) == offsetof(SYSTEMTIME, wSecond) &&
              offsetof(LocalTime, milliseconds) == offsetof(SYSTEMTIME, wMilliseconds));
static_assert(sizeof(std::uint64_t) == sizeof(FILETIME));  // low half first

std::uint64_t GetSystemTimeAsFileTime() {
  FILETIME time;
  ::GetSystemTimeAsFileTime(&time);
  return std::bit_cast<std::uint64_t>(time);
}

LocalTime GetLocalTime() {
  SYSTEMTIME time;
  ::GetLocalTime(&time);
  return std::bit_cast<LocalTime>(time);
}

void GetTimeZoneStandardName(char* text, std::size_t size) {
  TIME_ZONE_INFORMATION zone{};
  ::GetTimeZoneInformation(&zone);
  const wchar_t* name = zone.StandardName;
  (void)WideToAnsi(reinterpret_cast<const char16_t*>(name),
                   wcsnlen(name, std::size(zone.StandardName)), text, size);
}

}  // namespace platform
