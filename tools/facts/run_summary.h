// What the logs say of one run of the service, from its banner to the last line.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tools/logs/log_reader.h"
#include "tools/logs/sessions.h"

namespace stewardry::tools {

// A line that a statement rests on.
struct Seen {
  std::int64_t time = 0;  // as LogLine::time
  std::string text;
};

struct RunSummary {
  std::uint32_t process = 0;  // 0 if no line of it was found
  // The banner's time, as LogLine::time. 0 if the log does not go back so far: what the run did
  // before is unknown then, and the counts are the least.
  std::int64_t started = 0;
  std::string version;  // of the service
  std::optional<Seen> lastLine;
  std::optional<int> provisioning;   // 2: provisioned
  std::string firmwareVersion;       // empty if no line says it
  std::optional<Seen> lastReport;    // the last report of a network adapter that is in use
  std::optional<Session> console;    // the DASH console, if one is connected
  std::optional<Session> viewer;     // the KVM viewer, if one is connected
  std::optional<Seen> subscription;  // the last change of the indication subscription
  std::optional<Seen> lastError;
  std::optional<Seen> readerEnd;    // the line with which the reader ends
  std::optional<Seen> stop;         // the stop or preshutdown control
  int dashBinds = 0, kvmBinds = 0;  // of kMostBinds each
};

inline constexpr int kMostBinds = 20;  // kRebindBudget in service/gateway/listeners.h
inline constexpr int kProvisioned = 2;

// Takes the lines of a window one by one; a banner, or a line of another process, starts the
// summary again.
class RunSummarizer {
 public:
  // Takes only lines of `process`; 0: of all, so that the latest run is summarized.
  explicit RunSummarizer(std::uint32_t process) : process_(process) {}
  void Take(const LogLine& line);
  const RunSummary& Summary() const { return summary_; }

 private:
  void Begin(const LogLine& line);

  std::uint32_t process_;
  RunSummary summary_;
  SessionTracker sessions_;
  bool hasNetwork_ = false;  // the report that is under way has found one
};

// Reads the summary of a process's run, or of the latest run for 0, from the service log, at most
// its newest `mostBytes`.
RunSummary ReadRunSummary(LogReader* reader, std::uint32_t process, std::int64_t mostBytes);

}  // namespace stewardry::tools
