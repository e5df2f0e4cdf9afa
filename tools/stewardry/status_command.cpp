#include <CLI/CLI.hpp>

#include "tools/stewardry/commands.h"

namespace stewardry::tools {

void AddStatusCommand(CLI::App& app, int* exitCode) {
  app.add_subcommand("status")->callback([exitCode] { *exitCode = kCannotTell; });
}

}  // namespace stewardry::tools
