// The catalogue of faults: faults.json, compiled in. scripts/operations_tables.py makes the tables
// of docs/operations.md from the same file.
#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "tools/logs/log_line.h"

namespace stewardry::tools {

enum class Severity { kDown, kDegraded, kNotice };

// When a fault is there. All conditions that are given must hold.
struct Condition {
  Log log = Log::kService;
  // Patterns of a whole message; '*' stands for any characters. A line that fits one is evidence.
  std::vector<std::string> lines;
  // Patterns of lines after which earlier evidence no longer counts.
  std::vector<std::string> cleared;
  // Patterns of lines after which, for two seconds, a line is no evidence.
  std::vector<std::string> exceptAfter;
  bool clearedByThread = false;    // any later line of the same thread clears too
  int times = 1;                   // how many lines of evidence are needed,
  std::int64_t withinSeconds = 0;  // and within which time; 0: the whole run
  std::int64_t forSeconds = 0;     // how old the last evidence must be
  bool ifRunning = false;          // the service's process must run
  bool unlessStopped = false;      // no stop or preshutdown must follow
  std::string check;               // the name of a check of checks.h
};

struct Fault {
  std::string id;  // stable: scripts may rely on it
  Severity severity = Severity::kDegraded;
  std::string fault, service, remedy;          // Markdown, as in docs/operations.md
  std::map<std::string, std::string> command;  // that mends it or shows more, by host system
  Condition when;
  std::vector<std::string>
      explains;  // ids of consequences, which are not reported then; "*" is all
};

// Returns the faults in the order of the tables. The text is our own, so a mistake in it asserts.
const std::vector<Fault>& Catalogue();

}  // namespace stewardry::tools
