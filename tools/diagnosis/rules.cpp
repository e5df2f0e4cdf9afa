#include "tools/diagnosis/rules.h"

#include <algorithm>

namespace stewardry::tools {

namespace {

constexpr std::string_view kBanner = "Quillon Stewardry Service ";
// Threads write their lines in another order than they read the clock, and a clock is adjusted by
// seconds all the time.
constexpr std::int64_t kClockToleranceSeconds = 120;

constexpr std::int64_t kExceptionSeconds = 2;

bool FitsAny(std::string_view text, const std::vector<std::string>& patterns) {
  return std::any_of(patterns.begin(), patterns.end(),
                     [text](const std::string& pattern) { return FitsPattern(text, pattern); });
}

void AddEvidence(const Condition& when, const LogLine& line, Evidence* evidence) {
  ++evidence->count;
  evidence->thread = line.thread;
  evidence->newest.push_back({line.time, line.text});
  const std::size_t needed = std::max(kMostShown, static_cast<std::size_t>(when.times));
  if (evidence->newest.size() > needed) evidence->newest.pop_front();
  if (evidence->count < when.times) return;
  const std::size_t first = evidence->newest.size() - static_cast<std::size_t>(when.times);
  const std::int64_t span = line.time - evidence->newest[first].time;
  if (when.withinSeconds == 0 || span <= when.withinSeconds) evidence->isMet = true;
}

}  // namespace

bool FitsPattern(std::string_view text, std::string_view pattern) {
  bool isAnchored = true;
  while (true) {
    const std::size_t star = pattern.find('*');
    const std::string_view piece = pattern.substr(0, star);
    if (star == std::string_view::npos) return isAnchored ? text == piece : text.ends_with(piece);
    const std::size_t at =
        isAnchored ? (text.starts_with(piece) ? 0 : std::string_view::npos) : text.find(piece);
    if (at == std::string_view::npos) return false;
    text.remove_prefix(at + piece.size());
    pattern.remove_prefix(star + 1);
    isAnchored = false;
  }
}

RuleMatcher::RuleMatcher() : found_(Catalogue().size()) {}

void RuleMatcher::Take(const LogLine& line) {
  if (line.log == Log::kService && line.text.starts_with(kBanner)) {
    found_.assign(found_.size(), Evidence());
    sessions_ = {};
    replaced_.clear();
    newestTime_ = line.time;
  }
  TakeClock(line);
  TakeConsole(line);
  Match(line);
}

void RuleMatcher::Match(const LogLine& line) {
  const std::vector<Fault>& faults = Catalogue();
  for (std::size_t i = 0; i < faults.size(); ++i) {
    const Condition& when = faults[i].when;
    if (when.log != line.log || when.lines.empty()) continue;
    Evidence& evidence = found_[i];
    const bool isCleared =
        evidence.count != 0 && ((when.clearedByThread && line.thread == evidence.thread) ||
                                FitsAny(line.text, when.cleared));
    if (isCleared) evidence = {};
    if (FitsAny(line.text, when.exceptAfter)) evidence.exceptUntil = line.time + kExceptionSeconds;
    if (line.time > evidence.exceptUntil && FitsAny(line.text, when.lines))
      AddEvidence(when, line, &evidence);
  }
}

void RuleMatcher::TakeClock(const LogLine& line) {
  if (line.log != Log::kService || !line.hasOwnTime) return;
  const std::int64_t back = newestTime_ - line.time;
  newestTime_ = std::max(newestTime_, line.time);
  if (back <= kClockToleranceSeconds) return;
  newestTime_ = line.time;
  LogLine statement = line;
  statement.text = "(the clock was set back by " + std::to_string(back) + " s)";
  Match(statement);
}

// The address of the new console comes in the lines behind its start.
void RuleMatcher::TakeConsole(const LogLine& line) {
  const Session* const before = sessions_.Current(false);
  const std::string old =
      before != nullptr ? before->address + ":" + std::to_string(before->port) : "";
  const std::size_t count = sessions_.Sessions().size();
  sessions_.Take(line);
  const Session* const now = sessions_.Current(false);
  if (sessions_.Sessions().size() > count && now != nullptr && !now->isKvm) replaced_ = old;
  if (replaced_.empty() || now == nullptr || now->port == 0 || now->address.empty()) return;
  // A console that connects again before its last connection has ended fights nobody.
  if (replaced_.starts_with(now->address + ":")) return replaced_.clear();
  LogLine statement = line;
  statement.text = "(console " + replaced_ + " was replaced by " + now->address + ":" +
                   std::to_string(now->port) + ")";
  replaced_.clear();
  Match(statement);
}

}  // namespace stewardry::tools
