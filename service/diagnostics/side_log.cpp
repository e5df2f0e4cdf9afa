#include "service/diagnostics/side_log.h"

#include <iterator>

#include "platform/clock.h"
#include "platform/error.h"
#include "platform/file.h"
#include "service/diagnostics/log_file.h"

namespace stewardry {

namespace {

constexpr const char* kChannelFiles[] = {kSideLogFile, kServiceLogFile, "tavrinMailbox.log",
                                         kWmiLogFile};

constexpr std::size_t kLineSize = 1024;

// One line being built; what doesn't fit is dropped. It belongs to the call, so that the texts of
// two threads don't mix.
struct Line {
  char text[kLineSize];
  std::size_t length = 0;

  void Put(char c) {
    if (length < sizeof text - 1) text[length++] = c;
  }
  void PutFormatted(std::string_view format, const FormatArg& arg) {
    length += FormatText(text + length, sizeof text - length, format, std::span(&arg, 1));
  }
};

void PutConversion(Line* line, char letter, const FormatArg& arg) {
  const bool isText = letter == 's';
  if (isText != (arg.kind == FormatArg::Kind::kText)) return;  // of the wrong kind
  line->PutFormatted(isText ? "%s" : letter == 'd' ? "%d" : "%x", arg);
}

}  // namespace

SideLogTime::SideLogTime(const platform::LocalTime& t) {
  FormatTo(text, sizeof text, "%s %s %02d %02d:%02d:%02d %d", kDayNames[t.dayOfWeek % 7],
           kMonthNames[(t.month + 11) % 12], t.day, t.hour, t.minute, t.second, t.year);
}

void SideLog_Write(std::uint32_t channel, const void* data, std::size_t size) {
  if (channel >= std::size(kChannelFiles)) return;
  if (!gLogs->gLogFolderIsSafe.load(std::memory_order_relaxed)) return;
  char path[128];
  FormatTo(path, sizeof path, "%s%s", STEWARDRY_FIXED_LOG_FOLDER, kChannelFiles[channel]);
  const platform::AppendFile file = platform::OpenAppendFile(path);
  if (!file) return;
  // A line that can't be written is lost: the log reports no failure of its own.
  (void)platform::WriteFile(file, data, static_cast<std::uint32_t>(size));
}

void SideLog_Format(std::uint32_t channel, std::string_view format,
                    std::span<const FormatArg> args) {
  Line line;
  const SideLogTime now(platform::GetLocalTime());
  line.PutFormatted("%s: ", static_cast<const char*>(now.text));
  std::size_t used = 0;
  for (std::size_t i = 0; i < format.size(); ++i) {
    if (format[i] != '%' || i + 1 == format.size()) {
      line.Put(format[i]);
      continue;
    }
    const char letter = format[++i];
    if (std::string_view("dxXs").find(letter) == std::string_view::npos) {
      line.Put(letter);
    } else if (used < args.size()) {
      PutConversion(&line, letter, args[used++]);
    }
  }
  SideLog_Write(channel, line.text, line.length);
}

void ReportLastError(std::uint32_t channel, const char* text) {
  const std::uint32_t error = platform::LastError();
  char systemText[512] = "";
  platform::FormatMessageA(error, systemText, sizeof systemText);
  char report[kLineSize];
  const std::size_t length = FormatTo(report, sizeof report, "%s failed with error %d: %s", text,
                                      error, static_cast<const char*>(systemText));
  platform::OutputDebugStringA(report);
  // The length of the whole report is written, so that the reason reaches the file.
  SideLog_Write(channel, report, length);
}

}  // namespace stewardry
