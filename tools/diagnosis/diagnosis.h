// Goes through the catalogue of faults: what the latest run's logs and the host show.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>
#include <vector>

#include "tools/diagnosis/catalogue.h"
#include "tools/facts/status.h"

namespace stewardry::tools {

// One fault that is there. The pointer is to an entry of Catalogue().
struct Finding {
  const Fault* fault = nullptr;
  int count = 0;                      // lines of evidence in the run
  std::vector<Seen> lines;            // the newest of them
  std::vector<std::string> evidence;  // other sentences: a check's, and who owns a taken port
};

struct Diagnosis {
  Verdict verdict = Verdict::kCannotTell;
  std::string sentence;
  std::vector<Finding> findings;     // in the order of severity
  std::vector<std::string> notSeen;  // what could not be seen, and why
  Status status;
};

// Reads the newest part of the logs and asks for the host's facts. Takes two seconds at most, and
// far less where everything answers.
Diagnosis Diagnose();

// Returns lines of at most 80 columns; evidence that is longer is wrapped.
std::string ToText(const Diagnosis& diagnosis);
// The form is docs/schemas/diagnosis.schema.json.
nlohmann::ordered_json ToJson(const Diagnosis& diagnosis);

}  // namespace stewardry::tools
