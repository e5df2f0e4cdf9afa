#include "tools/diagnosis/checks.h"

#include <algorithm>
#include <cassert>

#include "platform/error.h"
#include "platform/service_manager.h"
#include "platform/shared_file.h"
#include "platform/survey.h"
#include "tools/logs/log_time.h"

namespace stewardry::tools {

namespace {

using Answer = std::optional<std::string>;

// Below this a log line may not fit any more.
constexpr std::uint64_t kLeastFreeBytes = 1 << 20;
// A start takes less time until its banner is in the log.
constexpr std::int64_t kStartSeconds = 30;

// " since 2026-11-22 22:25:42", or nothing if the log does not go back to the start.
std::string SinceStart(const RunSummary& run) {
  return run.started != 0 ? " since " + TimeText(run.started) : "";
}

bool Runs(const Status& status) { return status.facts.ServiceProcess() != 0; }

bool IsRegistered(const Status& status) { return status.facts.service.value.has_value(); }

bool HasServiceLog(const Status& status) {
  const auto& files = status.facts.logFiles.value;
  return files && std::any_of(files->begin(), files->end(), [](const LogFileView& file) {
           return file.log == Log::kService && !file.isBackup;
         });
}

Answer NotInstalled(const Status& status) {
  const bool wasAnswered = status.facts.service.value ||
                           status.facts.service.error == platform::kErrorServiceDoesNotExist;
  if (Runs(status) || IsRegistered(status) || !wasAnswered || !status.facts.processes.value ||
      status.run.process != 0)
    return {};
  return "The service manager knows no QuillonSvc, and no process of it runs.";
}

Answer Stopped(const Status& status) {
  if (Runs(status) || !status.run.stop) return {};
  return "Stopped at " + TimeText(status.run.stop->time) + ".";
}

// Without a stop in the log, and with binds left: the process was ended or has crashed.
Answer Vanished(const Status& status) {
  const RunSummary& run = status.run;
  if (Runs(status) || run.process == 0 || run.stop || run.dashBinds >= kMostBinds) return {};
  const auto& service = status.facts.service.value;
  char code[24] = "";
  if (service && service->exitCode != 0)
    std::snprintf(code, sizeof code, ", exit code 0x%X", service->exitCode);
  return "Process " + std::to_string(run.process) + " has ended without a stop" + code +
         ". Its last line: " + TimeText(run.lastLine->time) + " " + run.lastLine->text;
}

Answer DashBudget(const Status& status) {
  if (Runs(status) || status.run.stop || status.run.dashBinds < kMostBinds) return {};
  return "Process " + std::to_string(status.run.process) + " has bound port 664 " +
         std::to_string(status.run.dashBinds) + " times" + SinceStart(status.run) +
         " and ended at " + TimeText(status.run.lastLine->time) + ".";
}

Answer KvmBudget(const Status& status) {
  if (!Runs(status) || status.run.kvmBinds < kMostBinds) return {};
  return "Port 22 was bound " + std::to_string(status.run.kvmBinds) + " times" +
         SinceStart(status.run) + ".";
}

Answer NoLog(const Status& status) {
  if (!Runs(status) || HasServiceLog(status)) return {};
  const auto& files = status.facts.logFiles;
  const bool isMissing = files.value || files.error == platform::kErrorPathNotFound ||
                         files.error == platform::kErrorFileNotFound;
  if (!isMissing) return {};  // it cannot be seen, which is another statement
  return "The service runs, and " + LogFolder() + " holds no tavrinLog.log.";
}

Answer LogNotWritten(const Status& status) {
  if (!Runs(status) || !HasServiceLog(status) || !status.unread.empty()) return {};
  std::uint64_t free = 0;
  if (platform::GetFreeBytes(LogFolder().c_str(), &free) && free < kLeastFreeBytes)
    return "The volume of the log folder has " + std::to_string(free) + " bytes left.";
  platform::ProcessView process;
  const bool isSeen = platform::ViewProcess(status.facts.ServiceProcess(), &process);
  if (!isSeen || process.started == 0 || status.run.process != 0) return {};
  if (status.facts.now - process.started < kStartSeconds) return {};
  return "Process " + std::to_string(process.processId) + " runs since " +
         TimeText(process.started + status.facts.localOffset) + " and has not begun a log.";
}

struct Check {
  const char* name;
  Answer (*run)(const Status& status);
};
constexpr Check kChecks[] = {
    {"not-installed", NotInstalled},    {"stopped", Stopped},      {"vanished", Vanished},
    {"dash-budget", DashBudget},        {"kvm-budget", KvmBudget}, {"no-log", NoLog},
    {"log-not-written", LogNotWritten},
};

}  // namespace

std::optional<std::string> RunCheck(const std::string& name, const Status& status) {
  for (const Check& check : kChecks) {
    if (name == check.name) return check.run(status);
  }
  assert(false);  // a name of the catalogue that stands for nothing
  return {};
}

}  // namespace stewardry::tools
