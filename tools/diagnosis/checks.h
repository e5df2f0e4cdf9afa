// The conditions of the catalogue that need more than lines: what can be seen of the host.
#pragma once

#include <optional>
#include <string>

#include "tools/facts/status.h"

namespace stewardry::tools {

// Runs the check of that name. Returns the evidence, one sentence, if its condition holds; nothing
// if it does not hold or cannot be seen. An unknown name asserts.
std::optional<std::string> RunCheck(const std::string& name, const Status& status);

}  // namespace stewardry::tools
