// Each thread keeps the broken-down time of the current second, because every log line reads it.
#include "platform/clock.h"

#include <cstdio>
#include <ctime>

#include "platform/linux/runtime/gate.h"

namespace platform {

namespace {

constexpr std::uint64_t kUnixEpochAsFileTime = 116444736000000000ULL;

}  // namespace

std::uint64_t GetSystemTimeAsFileTime() {
  timespec now{};
  ::clock_gettime(CLOCK_REALTIME, &now);
  return kUnixEpochAsFileTime + static_cast<std::uint64_t>(now.tv_sec) * 10'000'000 +
         static_cast<std::uint64_t>(now.tv_nsec) / 100;
}

LocalTime GetLocalTime() {
  gate::Note("GetLocalTime");
  thread_local std::time_t knownSecond = -1;
  thread_local std::tm known{};
  timespec now{};
  ::clock_gettime(CLOCK_REALTIME, &now);
  if (now.tv_sec != knownSecond) {
    ::localtime_r(&now.tv_sec, &known);
    knownSecond = now.tv_sec;
  }
  auto word = [](long value) { return static_cast<std::uint16_t>(value); };
  return LocalTime{word(known.tm_year + 1900), word(known.tm_mon + 1),       word(known.tm_wday),
                   word(known.tm_mday),        word(known.tm_hour),          word(known.tm_min),
                   word(known.tm_sec),         word(now.tv_nsec / 1'000'000)};
}

void GetTimeZoneStandardName(char* text, std::size_t size) {
  gate::Note("GetTimeZoneInformation");
  // tzname[0] is the name of standard time (POSIX, tzset).
  ::tzset();
  std::snprintf(text, size, "%s", ::tzname[0]);
}

}  // namespace platform
