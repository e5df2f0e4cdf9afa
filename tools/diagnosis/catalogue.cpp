#include "tools/diagnosis/catalogue.h"

#include <cassert>
#include <nlohmann/json.hpp>

namespace stewardry::tools {

namespace {

constexpr char kText[] =
#include "faults.inc"
    ;

Severity SeverityOf(const std::string& name) {
  if (name == "down") return Severity::kDown;
  assert(name == "degraded" || name == "notice");
  return name == "notice" ? Severity::kNotice : Severity::kDegraded;
}

Condition ConditionOf(const nlohmann::json& json) {
  Condition when;
  when.log = json.value("log", "service") == "side" ? Log::kSide : Log::kService;
  when.lines = json.value("lines", when.lines);
  when.cleared = json.value("cleared", when.cleared);
  when.exceptAfter = json.value("exceptAfter", when.exceptAfter);
  when.clearedByThread = json.value("clearedByThread", false);
  when.times = json.value("times", 1);
  when.withinSeconds = json.value("withinSeconds", when.withinSeconds);
  when.forSeconds = json.value("forSeconds", when.forSeconds);
  when.ifRunning = json.value("ifRunning", false);
  when.unlessStopped = json.value("unlessStopped", false);
  when.check = json.value("check", "");
  assert(!when.lines.empty() || !when.check.empty());
  return when;
}

std::vector<Fault> Parse() {
  std::vector<Fault> faults;
  const nlohmann::json document = nlohmann::json::parse(kText);
  for (const nlohmann::json& json : document.at("faults")) {
    Fault fault;
    fault.id = json.at("id");
    fault.severity = SeverityOf(json.at("verdict"));
    fault.fault = json.at("fault");
    fault.service = json.at("service");
    fault.remedy = json.at("remedy");
    fault.command = json.value("command", fault.command);
    fault.when = ConditionOf(json.at("when"));
    fault.explains = json.value("explains", fault.explains);
    faults.push_back(std::move(fault));
  }
  return faults;
}

}  // namespace

const std::vector<Fault>& Catalogue() {
  static const std::vector<Fault> faults = Parse();
  return faults;
}

}  // namespace stewardry::tools
