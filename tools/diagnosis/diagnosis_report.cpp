// The diagnosis as text and as JSON.
#include <iterator>
#include <nlohmann/json.hpp>
#include <string_view>

#include "platform_traits.h"
#include "tools/diagnosis/diagnosis.h"
#include "tools/logs/log_time.h"

namespace stewardry::tools {

namespace {

using Json = nlohmann::ordered_json;

constexpr std::size_t kColumns = 80;
constexpr std::size_t kLabelWidth = 12;

const char* NameOf(Severity severity) {
  constexpr const char* kNames[] = {"down", "degraded", "notice"};
  return kNames[static_cast<int>(severity)];
}

// Markdown's signs for code and emphasis removed.
std::string Plain(std::string text) {
  std::erase_if(text, [](char c) { return c == '`' || c == '*'; });
  return text;
}

// Adds "  label     words ...", wrapped at blanks.
void AddField(std::string_view label, std::string_view words, std::string* text) {
  std::string line = "  " + std::string(label);
  line.resize(std::max(line.size() + 1, kLabelWidth), ' ');
  const std::size_t width = kColumns - kLabelWidth;
  for (bool isFirst = true; isFirst || !words.empty(); isFirst = false) {
    std::size_t cut = words.size();
    if (cut > width) {
      cut = words.rfind(' ', width);
      if (cut == std::string_view::npos || cut == 0) cut = width;
    }
    if (!isFirst) line.assign(kLabelWidth, ' ');
    *text += line;
    text->append(words.substr(0, cut));
    *text += '\n';
    words.remove_prefix(cut);
    while (words.starts_with(' ')) words.remove_prefix(1);
  }
}

std::string CommandOf(const Fault& fault) {
  const auto found = fault.command.find(platform::kHostSystem);
  return found != fault.command.end() ? found->second : "";
}

void AddFinding(const Finding& finding, std::string* text) {
  const Fault& fault = *finding.fault;
  *text += std::string("\n[") + NameOf(fault.severity) + "] " + fault.id + "\n";
  AddField("cause", Plain(fault.fault), text);
  for (const Seen& seen : finding.lines)
    AddField("evidence", TimeText(seen.time) + " " + seen.text, text);
  if (finding.count > static_cast<int>(finding.lines.size()))
    AddField("", "(" + std::to_string(finding.count) + " such lines in this run)", text);
  for (const std::string& sentence : finding.evidence) AddField("evidence", sentence, text);
  if (!fault.service.empty()) AddField("the service", Plain(fault.service), text);
  if (!fault.remedy.empty()) AddField("remedy", Plain(fault.remedy), text);
  if (!CommandOf(fault).empty()) AddField("command", CommandOf(fault), text);
}

Json JsonOf(const Finding& finding) {
  const Fault& fault = *finding.fault;
  Json lines = Json::array();
  for (const Seen& seen : finding.lines)
    lines.push_back({{"time", TimeText(seen.time)}, {"text", seen.text}});
  return {
      {"id", fault.id},
      {"verdict", NameOf(fault.severity)},
      {"cause", Plain(fault.fault)},
      {"lines", lines},
      {"lineCount", finding.count},
      {"evidence", finding.evidence},
      {"service", Plain(fault.service)},
      {"remedy", Plain(fault.remedy)},
      {"command", CommandOf(fault)},
  };
}

}  // namespace

std::string ToText(const Diagnosis& diagnosis) {
  std::string text;
  AddField("", diagnosis.sentence, &text);
  text = Plain(text).substr(kLabelWidth);
  for (const Finding& finding : diagnosis.findings) AddFinding(finding, &text);
  if (!diagnosis.notSeen.empty()) text += "\nNot seen:\n";
  for (const std::string& what : diagnosis.notSeen) AddField("-", what, &text);
  text += "\n" + std::to_string(Catalogue().size()) + " faults were checked.\n";
  return text;
}

Json ToJson(const Diagnosis& diagnosis) {
  Json findings = Json::array();
  for (const Finding& finding : diagnosis.findings) findings.push_back(JsonOf(finding));
  const HostFacts& facts = diagnosis.status.facts;
  return {
      {"schema", 1},
      {"time", TimeText(facts.now + facts.localOffset)},
      {"verdict", NameOf(diagnosis.verdict)},
      {"sentence", Plain(diagnosis.sentence)},
      {"process", facts.ServiceProcess()},
      {"findings", findings},
      {"notSeen", diagnosis.notSeen},
      {"checked", Catalogue().size()},
  };
}

}  // namespace stewardry::tools
