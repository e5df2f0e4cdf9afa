// stewardry status: how the service is doing, with the source of each fact.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <memory>
#include <nlohmann/json.hpp>

#include "platform/terminal.h"
#include "tools/facts/status.h"
#include "tools/stewardry/commands.h"

namespace stewardry::tools {

int ExitCodeOf(Verdict verdict) {
  constexpr int kCodes[] = {kHealthy, kDegraded, kDown, kCannotTell};
  return kCodes[static_cast<int>(verdict)];
}

void AddStatusCommand(CLI::App& app, int* exitCode) {
  struct Options {
    bool json = false, quick = false;
  };
  const auto options = std::make_shared<Options>();
  CLI::App* const command = app.add_subcommand(
      "status", "Shows how the service is doing, and where each fact comes from.");
  command->add_flag("--json", options->json, "Prints JSON (docs/schemas/status.schema.json)");
  command->add_flag("--quick", options->quick,
                    "Does not wait for the service's answer over the tray pipe, up to 2.5 s");
  command->callback([options, exitCode] {
    const Status status = GatherStatus(!options->quick);
    (void)platform::PrepareTerminal();  // for the code page; the text has no colours
    std::fputs(options->json ? (ToJson(status).dump(2) + "\n").c_str() : ToText(status).c_str(),
               stdout);
    *exitCode = ExitCodeOf(status.verdict);
  });
}

}  // namespace stewardry::tools
