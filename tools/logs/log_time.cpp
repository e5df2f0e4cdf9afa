#include "tools/logs/log_time.h"

#include <charconv>
#include <chrono>
#include <cstdio>

#include "platform/clock.h"

namespace stewardry::tools {

namespace {

constexpr std::int64_t kSecondsFrom1601 = 11'644'473'600;  // to 1970
constexpr std::int64_t kTicksOfASecond = 10'000'000;       // of a file time

std::int64_t UtcNow() {
  return static_cast<std::int64_t>(platform::GetSystemTimeAsFileTime()) / kTicksOfASecond -
         kSecondsFrom1601;
}

struct Unit {
  char letter;
  std::int64_t seconds;
};
constexpr Unit kUnits[] = {{'s', 1}, {'m', 60}, {'h', 3600}, {'d', kSecondsOfADay}};

std::optional<std::int64_t> ParseSpan(std::string_view text) {
  constexpr std::int64_t kMost = 1'000'000'000;
  std::int64_t count = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), count);
  if (error != std::errc() || end + 1 != text.data() + text.size()) return {};
  if (count < 0 || count > kMost) return {};
  for (const Unit& unit : kUnits) {
    if (*end == unit.letter) return count * unit.seconds;
  }
  return {};
}

}  // namespace

std::int64_t LocalSeconds(int year, int month, int day, int hour, int minute, int second) {
  using namespace std::chrono;
  const year_month_day date{std::chrono::year(year), std::chrono::month(unsigned(month)),
                            std::chrono::day(unsigned(day))};
  const bool isTime = hour >= 0 && hour < 24 && minute >= 0 && minute < 60 && second >= 0 &&
                      second <= 60;  // 60: a leap second
  if (month < 1 || day < 1 || year < 1970 || year > 9999 || !date.ok() || !isTime) return 0;
  const auto days = std::int64_t{sys_days(date).time_since_epoch().count()};
  const auto minutes = std::int64_t{hour} * 60 + minute;
  return days * kSecondsOfADay + minutes * 60 + second;
}

std::int64_t LocalSecondsNow() {
  const platform::LocalTime t = platform::GetLocalTime();
  return LocalSeconds(t.year, t.month, t.day, t.hour, t.minute, t.second);
}

std::int64_t LocalOffset() {
  constexpr std::int64_t kMinute = 60;
  const std::int64_t difference = LocalSecondsNow() - UtcNow();
  // The two clocks are read one after the other, so the difference may be a second short.
  const std::int64_t half = difference < 0 ? -kMinute / 2 : kMinute / 2;
  return (difference + half) / kMinute * kMinute;
}

std::string TimeText(std::int64_t localSeconds) {
  using namespace std::chrono;
  if (localSeconds <= 0) return "-";
  const sys_seconds at{seconds(localSeconds)};
  const auto day = floor<days>(at);
  const year_month_day date{day};
  const hh_mm_ss time{at - day};
  char text[40];
  std::snprintf(text, sizeof text, "%04d-%02u-%02u %02d:%02d:%02d", int(date.year()),
                unsigned(date.month()), unsigned(date.day()), int(time.hours().count()),
                int(time.minutes().count()), int(time.seconds().count()));
  return text;
}

std::optional<std::int64_t> ParseWhen(std::string_view text, std::int64_t now) {
  if (text == "today") return now - now % kSecondsOfADay;
  if (const auto span = ParseSpan(text)) return now - *span;
  const std::string date(text);
  int year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0, used = 0;
  const int fields = std::sscanf(date.c_str(), "%4d%*1[-/]%2d%*1[-/]%2d%n%*1[T ]%2d:%2d%n:%2d%n",
                                 &year, &month, &day, &used, &hour, &minute, &used, &second, &used);
  if (fields != 3 && fields != 5 && fields != 6) return {};
  if (static_cast<std::size_t>(used) != date.size()) return {};
  const std::int64_t at = LocalSeconds(year, month, day, hour, minute, second);
  return at != 0 ? std::optional(at) : std::nullopt;
}

}  // namespace stewardry::tools
