#include "tools/logs/log_reader.h"

#include <algorithm>
#include <iterator>
#include <memory>
#include <optional>

#include "platform/error.h"
#include "platform/process.h"
#include "platform/survey.h"
#include "service/diagnostics/log_file.h"
#include "tools/logs/line_source.h"
#include "tools/logs/log_time.h"

namespace stewardry::tools {

namespace {

constexpr const char* kFileNames[] = {kServiceLogFile, kWmiLogFile, kSideLogFile, kChangeLogFile};
static_assert(std::size(kFileNames) == kLogCount);

// Of the wireless trace: more of it says nothing, since its texts have no times.
constexpr std::int64_t kMostOfTheTrace = 4'096;

bool IsSameFile(const platform::SharedFileState& a, const platform::SharedFileState& b) {
  return a.volume == b.volume && a.index == b.index;
}

}  // namespace

// A file that is being read, with its next line.
struct LogReader::Opened {
  Log log;
  bool isBackup;
  platform::SharedFileState state;
  LineSource lines;
  std::optional<LogLine> head;
};

LogReader::LogReader(std::string folder) : folder_(std::move(folder)) {}
LogReader::~LogReader() = default;

std::string LogReader::PathOf(Log log, bool isBackup) const {
  std::string path = folder_ + "\\" + kFileNames[static_cast<int>(log)];
  if (isBackup) path.back() = '_';  // as LogFile names it
  return path;
}

std::string ReasonOf(std::uint32_t error) {
  if (error == platform::kErrorAccessDenied)
    return "access denied: run this as administrator (Linux: root)";
  if (error == platform::kErrorServiceDoesNotExist) return "no service of that name is registered";
  if (error == platform::kErrorPathNotFound) return "there is no such folder";
  char text[256] = "";
  if (platform::FormatMessageA(error, text, sizeof text) == 0)
    return "error " + std::to_string(error);
  std::string reason = text;
  while (!reason.empty() && (reason.back() == '\n' || reason.back() == '\r' ||
                             reason.back() == '.' || reason.back() == ' '))
    reason.pop_back();
  return reason + " (" + std::to_string(error) + ")";
}

void LogReader::AddUnread(const std::string& path, std::uint32_t error) {
  const bool isKnown = std::any_of(unread_.begin(), unread_.end(),
                                   [&](const UnreadLog& unread) { return unread.path == path; });
  if (!isKnown) unread_.push_back({path, ReasonOf(error), error});
}

std::vector<LogFileView> LogReader::Files() {
  std::vector<LogFileView> files;
  std::vector<std::string> names;
  if (!platform::ListFolder(folder_.c_str(), &names)) AddUnread(folder_, platform::LastError());
  for (int i = 0; i < kLogCount; ++i) {
    for (const bool isBackup : {true, false}) {
      const std::string path = PathOf(static_cast<Log>(i), isBackup);
      const auto name = path.substr(folder_.size() + 1);
      if (std::find(names.begin(), names.end(), name) == names.end()) continue;
      const platform::SharedFile file = platform::OpenSharedFile(path.c_str());
      platform::SharedFileState state{};
      if (!file || !platform::GetSharedFileState(file, &state))
        AddUnread(path, platform::LastError());
      files.push_back({static_cast<Log>(i), isBackup, path, state.size});
    }
  }
  return files;
}

// The current file first: a rotation between the two opens then shows one file under both names,
// and not a gap between them.
void LogReader::OpenAll(const LogWindow& window) {
  opened_.clear();
  window_ = window;
  std::vector<std::string> names;
  if (!platform::ListFolder(folder_.c_str(), &names)) AddUnread(folder_, platform::LastError());
  for (int i = 0; i < kLogCount; ++i) {
    const Log log = static_cast<Log>(i);
    if (!window.logs[i]) continue;
    std::optional<platform::SharedFileState> current;
    const std::size_t place = opened_.size();
    for (const bool isBackup : {false, true}) {
      const std::string path = PathOf(log, isBackup);
      platform::SharedFile file = platform::OpenSharedFile(path.c_str());
      platform::SharedFileState state{};
      if (!file || !platform::GetSharedFileState(file, &state)) {
        const std::uint32_t error = platform::LastError();
        if (error != platform::kErrorFileNotFound && error != platform::kErrorPathNotFound)
          AddUnread(path, error);
        continue;
      }
      if (isBackup && current && IsSameFile(*current, state)) continue;
      if (!isBackup) current = state;
      const std::int64_t most = log == Log::kWireless ? kMostOfTheTrace : window.mostBytesOfAFile;
      std::int64_t begin =
          state.size > most ? NextLineStart(file, state.size - most, state.size) : 0;
      if (log != Log::kWireless && window.since > 0)
        begin = FindFirstLine(log, file, begin, state.size, window.since);
      opened_.insert(
          opened_.begin() + static_cast<std::ptrdiff_t>(place),
          Opened{log, isBackup, state, LineSource(log, std::move(file), begin, state.size), {}});
    }
  }
}

// Reads the next line of a file if it has none waiting.
void LogReader::FillHead(Opened* opened, bool takeCutLines) {
  LogLine line;
  // A file that was replaced gets no more bytes, so its cut last line is whole.
  if (!opened->head &&
      opened->lines.Next(&line, takeCutLines || opened->isBackup || opened->log == Log::kWireless))
    opened->head = std::move(line);
  if (opened->lines.Error() != 0)
    AddUnread(PathOf(opened->log, opened->isBackup), opened->lines.Error());
  if (opened->head && opened->log == Log::kWireless)
    opened->head->time = opened->state.modified + LocalOffset();
}

// Takes the oldest of all next lines, again and again. Of one log a file begins when the one before
// it has ended, whatever their times.
bool LogReader::Merge(bool takeCutLines, const std::function<bool(const LogLine&)>& take) {
  for (;;) {
    Opened* oldest = nullptr;
    bool logWaits[kLogCount] = {};
    for (Opened& opened : opened_) {
      bool& waits = logWaits[static_cast<int>(opened.log)];
      if (waits) continue;
      FillHead(&opened, takeCutLines);
      if (!opened.head) continue;
      waits = true;
      if (oldest == nullptr || opened.head->time < oldest->head->time) oldest = &opened;
    }
    if (oldest == nullptr) return true;
    const LogLine line = *std::exchange(oldest->head, {});
    if (line.time < window_.since || line.time >= window_.until) continue;
    if (!take(line)) return false;
  }
}

void LogReader::Read(const LogWindow& window, const std::function<bool(const LogLine&)>& take) {
  OpenAll(window);
  (void)Merge(true, take);  // the caller knows what it returned
}

bool LogReader::ReadNew(const std::function<bool(const LogLine&)>& take) {
  for (int i = 0; i < kLogCount; ++i) {
    const Log log = static_cast<Log>(i);
    if (!window_.logs[i]) continue;
    const auto current = std::find_if(opened_.begin(), opened_.end(), [log](const Opened& opened) {
      return opened.log == log && !opened.isBackup;
    });
    platform::SharedFileState state{};
    if (current != opened_.end() && platform::GetSharedFileState(current->lines.File(), &state)) {
      current->state = state;
      current->lines.Extend(state.size);
    }
    platform::SharedFile file = platform::OpenSharedFile(PathOf(log, false).c_str());
    platform::SharedFileState newest{};
    if (!file || !platform::GetSharedFileState(file, &newest)) continue;
    if (current != opened_.end() && IsSameFile(newest, state)) continue;
    // The file was rotated or deleted: what is left of it comes before the new one.
    if (current != opened_.end()) current->isBackup = true;
    opened_.push_back({log, false, newest, LineSource(log, std::move(file), 0, newest.size), {}});
  }
  if (!Merge(false, take)) return false;
  // What was replaced has been read to its end.
  std::erase_if(opened_, [](const Opened& opened) { return opened.isBackup && !opened.head; });
  std::stable_sort(opened_.begin(), opened_.end(),
                   [](const Opened& a, const Opened& b) { return a.log < b.log; });
  return true;
}

std::string LogFolder() {
  char folder[platform::kMaxPath] = "";
  if (!platform::GetCommonAppDataFolder(folder)) return STEWARDRY_FIXED_LOG_FOLDER;
  return std::string(folder) + kLogFolder;
}

}  // namespace stewardry::tools
