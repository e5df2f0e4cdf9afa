#include <CLI/CLI.hpp>

#include "tools/stewardry/commands.h"

namespace stewardry::tools {

void AddDiagnoseCommand(CLI::App& app, int* exitCode) {
  app.add_subcommand("diagnose")->callback([exitCode] { *exitCode = kCannotTell; });
}

}  // namespace stewardry::tools
