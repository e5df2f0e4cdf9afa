#include "tools/facts/status.h"

#include <algorithm>
#include <chrono>

#include "lab/local/served_pipe.h"
#include "platform/error.h"
#include "platform/service_manager.h"

namespace stewardry::tools {

namespace {

// The service looks for the pipe every two seconds and answers at once.
constexpr auto kTrayPatience = std::chrono::milliseconds(2'500);

Fact<TrayAnswers> AskTray(std::uint32_t serviceProcess) {
  Fact<TrayAnswers> fact{{}, "tray pipe", "", 0};
  lab::ServedPipe pipe;
  std::string problem;
  if (!pipe.Open("TrayPipe", &problem)) {
    fact.why = "the tray's pipe is served by another program, or refused: " + problem;
    return fact;
  }
  const auto deadline = std::chrono::steady_clock::now() + kTrayPatience;
  std::string answers[4];
  for (int i = 0; i < 4; ++i) {
    if (!pipe.Ask(std::to_string(i + 1), deadline, &answers[i], &fact.why)) return fact;
    if (pipe.ClientProcess() == serviceProcess) continue;
    fact.why =
        "process " + std::to_string(pipe.ClientProcess()) + " answered, which is not the service";
    return fact;
  }
  fact.value = TrayAnswers{answers[0] == "ON", answers[1] == "Completed", answers[2], answers[3]};
  return fact;
}

const OwnedSocket* ListenerOf(const HostFacts& facts, std::uint16_t port) {
  if (!facts.sockets.value) return nullptr;
  for (const OwnedSocket& socket : *facts.sockets.value) {
    if (socket.isListening && socket.localPort == port) return &socket;
  }
  return nullptr;
}

Judgement JudgeStopped(const Status& status) {
  const Fact<platform::ServiceView>& service = status.facts.service;
  // Without the list a process in the foreground may run.
  if (!status.facts.processes.value)
    return {Verdict::kCannotTell,
            "The service's process cannot be seen: " + status.facts.processes.why + "."};
  if (service.value) return {Verdict::kDown, "The service is installed and not running."};
  if (service.error == platform::kErrorServiceDoesNotExist)
    return {Verdict::kDown, "The service is not installed on this host."};
  return {Verdict::kCannotTell, "The service cannot be seen: " + service.why + "."};
}

}  // namespace

Judgement Judge(const Status& status) {
  const std::uint32_t process = status.facts.ServiceProcess();
  if (process == 0) return JudgeStopped(status);
  if (!status.facts.sockets.value)
    return {Verdict::kCannotTell, "The ports cannot be seen: " + status.facts.sockets.why + "."};
  const OwnedSocket* const dash = ListenerOf(status.facts, kDashPort);
  const bool isOthers = dash != nullptr && dash->processId != 0 && dash->processId != process;
  if (isOthers)
    return {Verdict::kDown, "Another program, " + dash->processName + ", has port 664."};
  if (status.facts.deviceInterfaces.value && *status.facts.deviceInterfaces.value == 0)
    return {Verdict::kDown, "The service runs, but the mailbox device is missing."};
  if (status.run.readerEnd && !status.run.stop)
    return {Verdict::kDegraded, "The service runs, but receives nothing from the firmware."};
  if (dash == nullptr)
    return {Verdict::kDegraded,
            "The service runs, but no console can connect: port 664 is closed."};
  const bool isLocked = status.run.provisioning && *status.run.provisioning != kProvisioned;
  if (isLocked || (status.tray.value && !status.tray.value->isProvisioned))
    return {Verdict::kDegraded, "The service runs, but the firmware is not provisioned."};
  if (status.run.kvmBinds >= kMostBinds)
    return {Verdict::kDegraded, "DASH works; KVM has used up its rebinds."};
  if (!status.unread.empty())
    return {Verdict::kCannotTell, "The service runs and listens; its logs cannot be read: " +
                                      status.unread[0].reason + "."};
  const bool isSilent = status.run.process == 0;
  if (isSilent || (!status.tray.value && !status.run.provisioning))
    return {
        Verdict::kCannotTell,
        isSilent
            ? "The service runs and listens; the log has no line of it."
            : "The service runs and listens; no line left says that the firmware is provisioned."};
  return {Verdict::kHealthy, "The service is healthy: consoles can connect."};
}

const char* NameOf(Verdict verdict) {
  constexpr const char* kNames[] = {"healthy", "degraded", "down", "cannot-tell"};
  return kNames[static_cast<int>(verdict)];
}

Status GatherStatus(bool askTray) {
  Status status;
  status.facts = GatherHostFacts();
  LogReader reader(LogFolder());
  const std::uint32_t process = status.facts.ServiceProcess();
  status.run = ReadRunSummary(&reader, process, kMostOfTheLog);
  status.unread = reader.Unread();
  status.tray = {{}, "tray pipe", "not asked", 0};
  if (askTray && process != 0) status.tray = AskTray(process);
  const Judgement judgement = Judge(status);
  status.verdict = judgement.verdict;
  status.sentence = judgement.sentence;
  return status;
}

}  // namespace stewardry::tools
