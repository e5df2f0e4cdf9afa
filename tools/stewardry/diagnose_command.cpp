// stewardry diagnose: which faults there are, why, and what mends them.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <memory>
#include <nlohmann/json.hpp>

#include "platform/terminal.h"
#include "tools/diagnosis/diagnosis.h"
#include "tools/stewardry/commands.h"

namespace stewardry::tools {

void AddDiagnoseCommand(CLI::App& app, int* exitCode) {
  const auto json = std::make_shared<bool>(false);
  CLI::App* const command = app.add_subcommand(
      "diagnose",
      "Goes through every known fault: evidence, cause, and the command that mends it.");
  command->add_flag("--json", *json, "Prints JSON (docs/schemas/diagnosis.schema.json)");
  command->footer("Exit code: 0 healthy, 1 degraded, 2 down, 3 cannot tell.");
  command->callback([json, exitCode] {
    const Diagnosis diagnosis = Diagnose();
    (void)platform::PrepareTerminal();  // for the code page; the text has no colours
    std::fputs(*json ? (ToJson(diagnosis).dump(2) + "\n").c_str() : ToText(diagnosis).c_str(),
               stdout);
    *exitCode = ExitCodeOf(diagnosis.verdict);
  });
}

}  // namespace stewardry::tools
