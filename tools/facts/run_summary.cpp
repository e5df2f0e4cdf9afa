#include "tools/facts/run_summary.h"

#include <algorithm>
#include <charconv>
#include <string_view>

namespace stewardry::tools {

namespace {

constexpr std::string_view kBanner = "Quillon Stewardry Service ";
constexpr std::string_view kBannerEnd = " started";
// Between the two banners of a start.
constexpr std::int64_t kStartSeconds = 30;

// Lines that name an error in a healthy run: docs/operations.md says why.
constexpr std::string_view kNormal[] = {
    "WlanOpenHandle failed with error: 1062", "CancelIoEx failed. Error status 1168",
    "CancelIO called service stop.",          "shutdown error 10057",
    "Sockread failed or client closed",       "Match:Fail",
};

bool NamesAnError(const LogLine& line) {
  const auto has = [&line](std::string_view word) {
    return line.text.find(word) != std::string::npos;
  };
  if (std::any_of(std::begin(kNormal), std::end(kNormal), has)) return false;
  return line.level == "ERROR" || has("failed") || has("Failed") || has(" error") ||
         has("Error ") || has("dropped");
}

// The number behind `prefix`, if the text begins with it.
std::optional<int> NumberBehind(std::string_view text, std::string_view prefix) {
  int number = 0;
  if (!text.starts_with(prefix)) return {};
  const char* const end = text.data() + text.size();
  if (std::from_chars(text.data() + prefix.size(), end, number).ec != std::errc()) return {};
  return number;
}

// What a line that begins with a text sets.
struct Mark {
  std::string_view begin;
  std::optional<Seen> RunSummary::*seen;
};
constexpr Mark kMarks[] = {
    {"Send size is ", &RunSummary::subscription},
    {"intThreadFunction ln: 658", &RunSummary::readerEnd},
    {"SERVICE_CONTROL_STOP", &RunSummary::stop},
    {"Shutdown Command sent to ORRIN", &RunSummary::stop},
};

struct Bind {
  std::string_view line;
  int RunSummary::*count;
};
constexpr Bind kBinds[] = {
    {"Bind to port 664 successful", &RunSummary::dashBinds},
    {"Sock create failed for 664", &RunSummary::dashBinds},
    {"Bind to port 22 successful", &RunSummary::kvmBinds},
    {"Sock create failed for 22", &RunSummary::kvmBinds},
};

}  // namespace

// Starts the summary again where another run begins.
void RunSummarizer::Begin(const LogLine& line) {
  const bool isSame = summary_.process == line.process;
  const bool isBanner = line.text.starts_with(kBanner);
  // A start writes the banner twice.
  if (isSame && isBanner && line.time - summary_.started <= kStartSeconds) return;
  if (isSame && !isBanner) return;
  summary_ = {};
  sessions_ = {};
  hasNetwork_ = false;
  summary_.process = line.process;
  if (!isBanner) return;
  summary_.started = line.time;
  const std::size_t end = std::min(line.text.find(kBannerEnd), line.text.size());
  summary_.version = line.text.substr(kBanner.size(), end - kBanner.size());
}

void RunSummarizer::Take(const LogLine& line) {
  if (line.log != Log::kService || !line.hasOwnTime || line.process == 0) return;
  if (process_ != 0 && line.process != process_) return;
  Begin(line);
  const std::string_view text = line.text;
  summary_.lastLine = Seen{line.time, line.text};
  for (const Mark& mark : kMarks) {
    if (text.starts_with(mark.begin)) summary_.*mark.seen = Seen{line.time, line.text};
  }
  for (const Bind& bind : kBinds) {
    if (text == bind.line) ++(summary_.*bind.count);
  }
  if (const auto state = NumberBehind(text, "Read prov status  is ")) summary_.provisioning = state;
  constexpr std::string_view kVersion = "Read data is ";
  if (text.starts_with(kVersion)) summary_.firmwareVersion = text.substr(kVersion.size());
  // A host without a network reports an empty adapter, which is no report of it.
  if (text.starts_with("OS Name: ")) hasNetwork_ = false;
  if (text.starts_with("System is connected to ")) hasNetwork_ = true;
  if (hasNetwork_ && text.starts_with("NetworkInfo "))
    summary_.lastReport = Seen{line.time, line.text};
  if (NamesAnError(line)) summary_.lastError = Seen{line.time, line.text};
  sessions_.Take(line);
  summary_.console.reset();
  summary_.viewer.reset();
  if (const Session* console = sessions_.Current(false)) summary_.console = *console;
  if (const Session* viewer = sessions_.Current(true)) summary_.viewer = *viewer;
}

RunSummary ReadRunSummary(LogReader* reader, std::uint32_t process, std::int64_t mostBytes) {
  RunSummarizer summarizer(process);
  LogWindow window;
  for (int i = 0; i < kLogCount; ++i) window.logs[i] = i == static_cast<int>(Log::kService);
  window.mostBytesOfAFile = mostBytes;
  reader->Read(window, [&](const LogLine& line) {
    summarizer.Take(line);
    return true;
  });
  return summarizer.Summary();
}

}  // namespace stewardry::tools
