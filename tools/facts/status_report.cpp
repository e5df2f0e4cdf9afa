// The status as text and as JSON.
#include <cstdio>
#include <nlohmann/json.hpp>

#include "platform/service_manager.h"
#include "tools/facts/status.h"
#include "tools/logs/log_time.h"

namespace stewardry::tools {

namespace {

using Json = nlohmann::ordered_json;

constexpr std::size_t kValueWidth = 48;

// One line of the text.
struct Row {
  const char* label;
  std::string value;
  std::string source;
};

const char* StateName(std::uint32_t state) {
  constexpr const char* kNames[] = {"unknown", "stopped", "starting", "stopping", "running"};
  return state < std::size(kNames) ? kNames[state] : "in another state";
}

template <typename T>
std::string WhyNot(const Fact<T>& fact) {
  return "not seen: " + fact.why;
}

Row ServiceRow(const Status& status) {
  const HostFacts& facts = status.facts;
  const std::uint32_t process = facts.ServiceProcess();
  const std::string since = status.run.started != 0 ? " since " + TimeText(status.run.started) : "";
  const bool isManaged = facts.service.value && facts.service.value->processId != 0;
  if (process != 0 && !isManaged)
    return {"service", "process " + std::to_string(process) + " in the foreground, unmanaged",
            "process list"};
  if (!facts.service.value) return {"service", WhyNot(facts.service), facts.service.source};
  std::string value = StateName(facts.service.value->state);
  if (process != 0) value += since + ", process " + std::to_string(process);
  if (process == 0 && facts.service.value->exitCode != 0)
    value += ", last exit code " + std::to_string(facts.service.value->exitCode);
  return {"service", value, facts.service.source};
}

Row DeviceRow(const Status& status) {
  const auto& interfaces = status.facts.deviceInterfaces;
  if (!interfaces.value) return {"device", WhyNot(interfaces), interfaces.source};
  std::string value = *interfaces.value != 0 ? "present" : "missing";
  if (status.facts.driver.value)
    value += std::string(", driver ") + StateName(status.facts.driver.value->state);
  return {"device", value, interfaces.source};
}

Row FirmwareRow(const Status& status) {
  const auto& tray = status.tray.value;
  if (tray)
    return {"firmware",
            tray->firmwareVersion + ", " + (tray->isProvisioned ? "" : "not ") + "provisioned, " +
                (tray->isRunning ? "answers" : "has not answered yet"),
            status.tray.source};
  if (!status.run.provisioning) return {"firmware", "no line says anything of it", "service log"};
  const bool isProvisioned = *status.run.provisioning == kProvisioned;
  return {"firmware",
          status.run.firmwareVersion + ", " + (isProvisioned ? "" : "not ") + "provisioned",
          "service log"};
}

Row PortRow(const Status& status, const char* label, std::uint16_t port, const char* closed) {
  const auto& sockets = status.facts.sockets;
  if (!sockets.value) return {label, WhyNot(sockets), sockets.source};
  for (const OwnedSocket& socket : *sockets.value) {
    if (!socket.isListening || socket.localPort != port) continue;
    const std::string owner = socket.processId == 0 ? "by a program that cannot be seen"
                                                    : "by " + socket.processName + ", process " +
                                                          std::to_string(socket.processId);
    return {label, "listening, " + owner, sockets.source};
  }
  return {label, closed, sockets.source};
}

std::string SessionText(const std::optional<Session>& session) {
  if (!session) return "none";
  return session->address + ":" + std::to_string(session->port) + " since " +
         TimeText(session->started);
}

std::string SeenText(const std::optional<Seen>& seen) {
  return seen ? TimeText(seen->time) + " " + seen->text : "none";
}

std::string SizeText(std::int64_t bytes) {
  char text[32];
  if (bytes < 10 << 20) {
    std::snprintf(text, sizeof text, "%lld KiB", static_cast<long long>((bytes + 1023) / 1024));
  } else {
    std::snprintf(text, sizeof text, "%.1f MiB", static_cast<double>(bytes) / (1 << 20));
  }
  return text;
}

Row LogsRow(const Status& status) {
  const auto& files = status.facts.logFiles;
  if (!files.value) return {"logs", WhyNot(files), files.source};
  std::int64_t sum = 0;
  for (const LogFileView& file : *files.value) sum += file.size;
  return {"logs", std::to_string(files.value->size()) + " files, " + SizeText(sum), files.source};
}

std::vector<Row> RowsOf(const Status& status) {
  const RunSummary& run = status.run;
  const std::string log = "service log";
  const auto left = [](int binds) { return std::to_string(std::max(0, kMostBinds - binds)); };
  const std::string binds = run.process == 0
                                ? "no line says it"
                                : (run.started == 0 ? "at most " : "") + left(run.dashBinds) +
                                      " of 20 for DASH, " + left(run.kvmBinds) + " for KVM";
  return {
      ServiceRow(status),
      {"version", run.version.empty() ? "no line says it" : run.version, log},
      DeviceRow(status),
      FirmwareRow(status),
      PortRow(status, "port 664", kDashPort, "closed"),
      PortRow(status, "port 22", kKvmPort, "closed: KVM was not enabled"),
      {"console", SessionText(run.console), log},
      {"viewer", SessionText(run.viewer), log},
      {"last report", run.lastReport ? TimeText(run.lastReport->time) : "none", log},
      {"subscription", run.subscription ? run.subscription->text : "none", log},
      {"last error", SeenText(run.lastError), log},
      {"rebinds left", binds, log},
      LogsRow(status),
  };
}

void AppendRow(const Row& row, std::string* text) {
  std::string rest = row.value;
  bool isFirst = true;
  do {
    std::size_t cut = rest.size();
    if (cut > kValueWidth) {
      cut = rest.rfind(' ', kValueWidth);
      if (cut == std::string::npos || cut == 0) cut = kValueWidth;
    }
    char line[128];
    std::snprintf(line, sizeof line, "  %-13s %-48s %s", isFirst ? row.label : "",
                  rest.substr(0, cut).c_str(), isFirst ? row.source.c_str() : "");
    *text += line;
    while (text->ends_with(' ')) text->pop_back();
    *text += '\n';
    rest.erase(0, cut + (cut < rest.size() && rest[cut] == ' ' ? 1 : 0));
    isFirst = false;
  } while (!rest.empty());
}

// Null, or the value with the source of the fact.
template <typename T, typename Convert>
Json JsonOf(const Fact<T>& fact, Convert convert) {
  Json json = {{"source", fact.source}};
  if (fact.value) {
    json["value"] = convert(*fact.value);
  } else {
    json["value"] = nullptr;
    json["why"] = fact.why;
  }
  return json;
}

Json JsonOf(const std::optional<Seen>& seen) {
  if (!seen) return nullptr;
  return {{"time", TimeText(seen->time)}, {"text", seen->text}};
}

Json JsonOf(const std::optional<Session>& session) {
  if (!session) return nullptr;
  return {{"address", session->address},
          {"port", session->port},
          {"since", TimeText(session->started)}};
}

Json JsonOf(const platform::ServiceView& view) {
  return {{"state", StateName(view.state)},
          {"process", view.processId},
          {"exitCode", view.exitCode},
          {"binaryPath", view.binaryPath}};
}

Json JsonOf(const std::vector<OwnedSocket>& sockets) {
  Json list = Json::array();
  for (const OwnedSocket& socket : sockets)
    list.push_back(
        {{"state", socket.isListening ? "listening" : "established"},
         {"local", DottedText(socket.localAddress) + ":" + std::to_string(socket.localPort)},
         {"remote", DottedText(socket.remoteAddress) + ":" + std::to_string(socket.remotePort)},
         {"process", socket.processId},
         {"program", socket.processName}});
  return list;
}

Json RunJson(const RunSummary& run) {
  return {{"process", run.process},
          {"started", run.started != 0 ? Json(TimeText(run.started)) : Json(nullptr)},
          {"version", run.version},
          {"firmwareVersion", run.firmwareVersion},
          {"provisioning", run.provisioning ? Json(*run.provisioning) : Json(nullptr)},
          {"lastReport", JsonOf(run.lastReport)},
          {"console", JsonOf(run.console)},
          {"viewer", JsonOf(run.viewer)},
          {"subscription", JsonOf(run.subscription)},
          {"lastError", JsonOf(run.lastError)},
          {"lastLine", JsonOf(run.lastLine)},
          {"rebindsLeft",
           {{"dash", std::max(0, kMostBinds - run.dashBinds)},
            {"kvm", std::max(0, kMostBinds - run.kvmBinds)}}}};
}

}  // namespace

std::string ToText(const Status& status) {
  std::string text = status.sentence + "\n\n";
  for (const Row& row : RowsOf(status)) AppendRow(row, &text);
  for (const UnreadLog& unread : status.unread)
    text += "\nNot read: " + unread.path + "\n  " + unread.reason + "\n";
  if (status.verdict != Verdict::kHealthy)
    text += "\nRun \"stewardry diagnose\" for the cause and the remedy.\n";
  return text;
}

Json ToJson(const Status& status) {
  const HostFacts& facts = status.facts;
  const auto service = [](const platform::ServiceView& view) { return JsonOf(view); };
  Json files = JsonOf(facts.logFiles, [](const std::vector<LogFileView>& views) {
    Json list = Json::array();
    for (const LogFileView& view : views)
      list.push_back({{"path", view.path}, {"bytes", view.size}});
    return list;
  });
  Json unread = Json::array();
  for (const UnreadLog& log : status.unread)
    unread.push_back({{"path", log.path}, {"reason", log.reason}});
  return {
      {"schema", 1},
      {"time", TimeText(facts.now + facts.localOffset)},
      {"verdict", NameOf(status.verdict)},
      {"sentence", status.sentence},
      {"service", JsonOf(facts.service, service)},
      {"driver", JsonOf(facts.driver, service)},
      {"deviceInterfaces", JsonOf(facts.deviceInterfaces, [](std::uint32_t n) { return n; })},
      {"sockets", JsonOf(facts.sockets, [](const auto& list) { return JsonOf(list); })},
      {"tray", JsonOf(status.tray,
                      [](const TrayAnswers& tray) -> Json {
                        return {{"reportIsDone", tray.isRunning},
                                {"provisioned", tray.isProvisioned},
                                {"firmwareVersion", tray.firmwareVersion},
                                {"kvmSession", tray.kvmSession}};
                      })},
      {"run", RunJson(status.run)},
      {"logs", files},
      {"notRead", unread},
  };
}

}  // namespace stewardry::tools
