// stewardry: shows how the service on this host is doing, and why. It only reads.
#include <CLI/CLI.hpp>
#include <cstdio>
#include <exception>

#include "tools/stewardry/commands.h"

namespace {

int Run(int argc, char** argv) {
  using namespace stewardry::tools;
  CLI::App app("Shows how the Stewardry service on this host is doing, and why. It only reads.",
               "stewardry");
  app.set_version_flag("--version", "stewardry " STEWARDRY_VERSION);
  app.require_subcommand(1);
  int exitCode = kHealthy;
  AddStatusCommand(app, &exitCode);
  AddDiagnoseCommand(app, &exitCode);
  AddLogsCommand(app, &exitCode);
  AddCollectCommand(app, &exitCode);
  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    return app.exit(error) == 0 ? kHealthy : kFailed;
  }
  return exitCode;
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return Run(argc, argv);
  } catch (const std::exception& error) {
    std::fprintf(stderr, "stewardry: %s\n", error.what());  // no memory, as a rule
  }
  return stewardry::tools::kFailed;
}
