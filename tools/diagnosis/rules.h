// Matches the lines of a run against the catalogue's conditions, one line at a time.
#pragma once

#include <cstdint>
#include <deque>
#include <string>
#include <string_view>
#include <vector>

#include "tools/diagnosis/catalogue.h"
#include "tools/facts/run_summary.h"
#include "tools/logs/log_line.h"
#include "tools/logs/sessions.h"

namespace stewardry::tools {

// Returns whether `text` fits `pattern`, in which '*' stands for any characters. Takes time in
// proportion to the two lengths.
bool FitsPattern(std::string_view text, std::string_view pattern);

// The evidence for one condition so far.
struct Evidence {
  int count = 0;             // lines that fit and are not cleared
  std::deque<Seen> newest;   // the newest of them, as many as the condition needs and kMostShown
  bool isMet = false;        // the lines needed came within the time
  std::uint32_t thread = 0;  // of the newest
  std::int64_t exceptUntil = 0;  // lines up to this time are no evidence
};

inline constexpr std::size_t kMostShown = 3;

// Takes the lines of all logs in the order of time. A banner of the service starts again, so what
// is left at the end belongs to the latest run. Two statements that no single line makes come to
// the conditions as lines in brackets: "(the clock was set back by N s)" and "(console A was
// replaced by B)".
class RuleMatcher {
 public:
  RuleMatcher();
  void Take(const LogLine& line);
  // In the order of Catalogue().
  const std::vector<Evidence>& Found() const { return found_; }

 private:
  void Match(const LogLine& line);
  void TakeClock(const LogLine& line);
  void TakeConsole(const LogLine& line);

  std::vector<Evidence> found_;
  SessionTracker sessions_;
  std::string replaced_;         // the console that the next announced one replaces
  std::int64_t newestTime_ = 0;  // of the service log
};

}  // namespace stewardry::tools
