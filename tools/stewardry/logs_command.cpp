#include <CLI/CLI.hpp>

#include "tools/stewardry/commands.h"

namespace stewardry::tools {

void AddLogsCommand(CLI::App& app, int* exitCode) {
  app.add_subcommand("logs")->callback([exitCode] { *exitCode = kCannotTell; });
}

}  // namespace stewardry::tools
