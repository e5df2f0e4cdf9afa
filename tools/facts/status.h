// How the service is doing, in one record, with a verdict, as text and as JSON. The form of the
// JSON is docs/schemas/status.schema.json.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>

#include "tools/facts/host_facts.h"
#include "tools/facts/run_summary.h"

namespace stewardry::tools {

// What the service answers over the tray's pipe.
struct TrayAnswers {
  bool isRunning = false;      // question 1: the status report is done
  bool isProvisioned = false;  // question 2
  std::string firmwareVersion;
  std::string kvmSession;
};

enum class Verdict { kHealthy, kDegraded, kDown, kCannotTell };

struct Status {
  HostFacts facts;
  RunSummary run;
  std::vector<UnreadLog> unread;
  Fact<TrayAnswers> tray;
  Verdict verdict = Verdict::kCannotTell;
  std::string sentence;  // the verdict and its reason
};

struct Judgement {
  Verdict verdict;
  std::string sentence;
};

// Returns the verdict on what was seen. Where a part that it would rest on could not be seen, the
// verdict says so and is not kHealthy.
Judgement Judge(const Status& status);

// Gathers everything. With `askTray` it serves the tray's pipe until the service, which looks for
// it every two seconds, has answered; another program that serves the pipe keeps its place.
Status GatherStatus(bool askTray);

// Returns lines of at most 80 columns.
std::string ToText(const Status& status);
nlohmann::ordered_json ToJson(const Status& status);

// Returns the verdict as JSON names it: "healthy", "degraded" and so on.
const char* NameOf(Verdict verdict);

// The newest part of the service log that is read for a status: more than the log and its backup
// have by default.
inline constexpr std::int64_t kMostOfTheLog = 24 << 20;

}  // namespace stewardry::tools
