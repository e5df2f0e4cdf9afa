#include <CLI/CLI.hpp>

#include "tools/stewardry/commands.h"

namespace stewardry::tools {

void AddCollectCommand(CLI::App& app, int* exitCode) {
  app.add_subcommand("collect")->callback([exitCode] { *exitCode = kCannotTell; });
}

}  // namespace stewardry::tools
