// Times of the logs: seconds since 1970-01-01 00:00 of the machine's local time, as the service
// writes them. An hour that summer time repeats comes twice.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace stewardry::tools {

inline constexpr std::int64_t kSecondsOfADay = 86'400;

// Returns the local time of a calendar date, 0 if a field is out of its range.
std::int64_t LocalSeconds(int year, int month, int day, int hour, int minute, int second);

// Returns the local time now, and local time minus UTC, in whole minutes.
std::int64_t LocalSecondsNow();
std::int64_t LocalOffset();

// Returns "2026-11-22 22:25:42", "-" for 0.
std::string TimeText(std::int64_t localSeconds);

// Reads "90s", "15m", "2h", "3d" (before `now`), "today", "2026-11-22" and "2026-11-22 22:25[:42]",
// also with a T or slashes. Returns nothing for any other text.
std::optional<std::int64_t> ParseWhen(std::string_view text, std::int64_t now);

}  // namespace stewardry::tools
