#include "tools/diagnosis/diagnosis.h"

#include <algorithm>

#include "tools/diagnosis/checks.h"
#include "tools/diagnosis/rules.h"

namespace stewardry::tools {

namespace {

// The newest part of each log that is read. The bounded logs with their backups have 20 MiB.
constexpr std::int64_t kMostOfAFile = 12 << 20;

RuleMatcher ReadRun(LogReader* reader) {
  RuleMatcher matcher;
  LogWindow window;
  window.mostBytesOfAFile = kMostOfAFile;
  window.logs[static_cast<int>(Log::kWmi)] = false;  // no condition looks at them
  window.logs[static_cast<int>(Log::kWireless)] = false;
  reader->Read(window, [&](const LogLine& line) {
    matcher.Take(line);
    return true;
  });
  return matcher;
}

bool HoldsNow(const Condition& when, const Evidence& evidence, const Status& status) {
  const std::int64_t now = status.facts.now + status.facts.localOffset;
  if (!evidence.isMet) return false;
  if (now - evidence.newest.back().time < when.forSeconds) return false;
  const bool isRunning = status.facts.ServiceProcess() != 0;
  // What lasts, and what waits for a program, needs one that runs.
  if ((when.ifRunning || when.forSeconds != 0) && !isRunning) return false;
  return !(when.unlessStopped && status.run.stop);
}

// Who has a port that the service could not get.
void AddOwner(const Fault& fault, const HostFacts& facts, Finding* finding) {
  const std::uint16_t port = fault.id == "port-664-taken"  ? kDashPort
                             : fault.id == "port-22-taken" ? kKvmPort
                                                           : 0;
  if (port == 0 || !facts.sockets.value) return;
  for (const OwnedSocket& socket : *facts.sockets.value) {
    if (!socket.isListening || socket.localPort != port) continue;
    const std::string name = socket.processName.empty() ? "a program" : socket.processName;
    finding->evidence.push_back("Port " + std::to_string(port) + " belongs to " + name +
                                ", process " + std::to_string(socket.processId) + ".");
  }
}

std::vector<Finding> FindFaults(const RuleMatcher& matcher, const Status& status) {
  std::vector<Finding> findings;
  const std::vector<Fault>& faults = Catalogue();
  for (std::size_t i = 0; i < faults.size(); ++i) {
    const Condition& when = faults[i].when;
    const Evidence& evidence = matcher.Found()[i];
    Finding finding;
    finding.fault = &faults[i];
    if (!when.lines.empty()) {
      if (!HoldsNow(when, evidence, status)) continue;
      finding.count = evidence.count;
      const std::size_t shown = std::min(kMostShown, evidence.newest.size());
      finding.lines.assign(evidence.newest.end() - static_cast<std::ptrdiff_t>(shown),
                           evidence.newest.end());
    }
    if (!when.check.empty()) {
      const std::optional<std::string> sentence = RunCheck(when.check, status);
      if (!sentence) continue;
      finding.evidence.push_back(*sentence);
    }
    AddOwner(faults[i], status.facts, &finding);
    findings.push_back(std::move(finding));
  }
  return findings;
}

// Removes the consequences of other findings. A fault that explains all others removes no other of
// its kind that stands before it.
void RemoveConsequences(std::vector<Finding>* findings) {
  std::vector<std::string> explained;
  for (const Finding& finding : *findings) {
    const std::string& id = finding.fault->id;
    if (std::find(explained.begin(), explained.end(), id) != explained.end()) continue;
    for (const std::string& consequence : finding.fault->explains) {
      for (const Finding& other : *findings) {
        const bool isAll = consequence == "*" && &other != &finding;
        if (isAll || other.fault->id == consequence) explained.push_back(other.fault->id);
      }
    }
  }
  std::erase_if(*findings, [&](const Finding& finding) {
    return std::find(explained.begin(), explained.end(), finding.fault->id) != explained.end();
  });
}

void AddNotSeen(const Status& status, std::vector<std::string>* notSeen) {
  const HostFacts& facts = status.facts;
  const auto add = [notSeen](const auto& fact) {
    if (!fact.value) notSeen->push_back(fact.source + ": " + fact.why);
  };
  add(facts.processes);
  add(facts.deviceInterfaces);
  add(facts.sockets);
  for (const UnreadLog& unread : status.unread)
    notSeen->push_back(unread.path + ": " + unread.reason);
}

void Judge(Diagnosis* diagnosis) {
  const auto count = std::count_if(
      diagnosis->findings.begin(), diagnosis->findings.end(),
      [](const Finding& finding) { return finding.fault->severity != Severity::kNotice; });
  if (count == 0 && !diagnosis->notSeen.empty()) {
    diagnosis->verdict = Verdict::kCannotTell;
    diagnosis->sentence = "No fault was found, but not everything could be seen.";
  } else if (count == 0) {
    diagnosis->verdict = Verdict::kHealthy;
    diagnosis->sentence = "No fault was found.";
  } else {
    const Fault& worst = *diagnosis->findings.front().fault;
    const bool isDown = worst.severity == Severity::kDown;
    diagnosis->verdict = isDown ? Verdict::kDown : Verdict::kDegraded;
    diagnosis->sentence =
        std::string(isDown ? "The service does not do its work: " : "The service is degraded: ") +
        worst.fault + ".";
  }
}

}  // namespace

Diagnosis Diagnose() {
  Diagnosis diagnosis;
  diagnosis.status = GatherStatus(false);
  LogReader reader(LogFolder());
  const RuleMatcher matcher = ReadRun(&reader);
  diagnosis.findings = FindFaults(matcher, diagnosis.status);
  RemoveConsequences(&diagnosis.findings);
  std::stable_sort(
      diagnosis.findings.begin(), diagnosis.findings.end(),
      [](const Finding& a, const Finding& b) { return a.fault->severity < b.fault->severity; });
  // Where nothing is installed there is no log to miss.
  const bool isAbsent =
      !diagnosis.findings.empty() && diagnosis.findings.front().fault->id == "not-installed";
  if (!isAbsent) AddNotSeen(diagnosis.status, &diagnosis.notSeen);
  Judge(&diagnosis);
  return diagnosis;
}

}  // namespace stewardry::tools
