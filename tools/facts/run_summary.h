// What the logs say of the service's latest run, from its banner to the last line.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tools/logs/log_reader.h"

namespace stewardry::tools {

// A line that a statement rests on.
struct Seen {
  std::int64_t time = 0;  // as LogLine::time
  std::string text;
};

struct RunSummary {
  std::uint32_t process = 0;     // 0 if no banner was found
  std::int64_t started = 0;      // the banner's time, as LogLine::time
  std::string version;           // of the service
  std::optional<Seen> lastLine;
  std::optional<int> provisioning;     // 2: provisioned
  std::string firmwareVersion;         // empty if no line says it
  std::optional<Seen> lastReport;      // the end of the last status report
  std::optional<Seen> consoleOpened;   // the current DASH console, if one is connected
  std::string console;                 // its address and port in dotted form
  std::optional<Seen> viewerOpened;    // the current KVM viewer, if one is connected
  std::string viewer;
  std::optional<Seen> subscription;    // the last change of the indication subscription
  std::optional<Seen> lastError;
  int dashBinds = 0, kvmBinds = 0;     // of kMostRebinds each
};

inline constexpr int kMostRebinds = 20;  // service/gateway/listeners.h

// Takes the lines of a window one by one; a banner of a new process starts the summary again.
class RunSummarizer {
 public:
  void Take(const LogLine& line);
  const RunSummary& Summary() const { return summary_; }

 private:
  RunSummary summary_;
};

}  // namespace stewardry::tools
