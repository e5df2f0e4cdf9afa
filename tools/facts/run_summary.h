// What the logs say of the service's latest run, from its banner to the last line.
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
  std::uint32_t process = 0;  // 0 if no banner was found
  std::int64_t started = 0;   // the banner's time, as LogLine::time
  std::string version;        // of the service
  std::optional<Seen> lastLine;
  std::optional<int> provisioning;   // 2: provisioned
  std::string firmwareVersion;       // empty if no line says it
  std::optional<Seen> lastReport;    // the last status report
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

// Takes the lines of a window one by one; a banner starts the summary again.
class RunSummarizer {
 public:
  void Take(const LogLine& line);
  const RunSummary& Summary() const { return summary_; }

 private:
  RunSummary summary_;
  SessionTracker sessions_;
};

// Reads the summary of the latest run from the service log, at most its newest `mostBytes`.
RunSummary ReadRunSummary(LogReader* reader, std::int64_t mostBytes);

}  // namespace stewardry::tools
