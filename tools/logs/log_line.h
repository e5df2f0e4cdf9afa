// One line of the service's four logs, taken apart. The logs' bytes are not trusted: a line may be
// cut, in any encoding, or binary.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace stewardry::tools {

// The four logs of the log folder, in the order in which lines of one second are shown.
enum class Log { kService, kWmi, kSide, kWireless };
inline constexpr int kLogCount = 4;

struct LogLine {
  Log log = Log::kService;
  // Seconds since 1970-01-01 00:00 of the machine's local time (all logs are written in it). A
  // line without a time of its own has that of the line before it, 0 if there is none.
  std::int64_t time = 0;
  bool hasOwnTime = false;
  std::string level;                      // "INFO" and its like; empty in logs that have none
  std::uint32_t process = 0, thread = 0;  // 0 where the log names none
  // The message: without prefix and line end, valid UTF-8, without control characters.
  std::string text;
};

// Takes a line, without its end, apart. Never fails: what does not fit the log's format becomes the
// text of a line without a time.
LogLine ParseLogLine(Log log, std::string_view bytes);

}  // namespace stewardry::tools
