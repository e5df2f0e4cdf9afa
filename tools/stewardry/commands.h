// The tool's commands. Each adds itself to the command line; when the user has chosen it, it runs
// within the parse and stores the tool's exit code.
#pragma once

namespace CLI {
class App;
}

namespace stewardry::tools {

// The exit codes of every command.
inline constexpr int kHealthy = 0;     // also: done
inline constexpr int kDegraded = 1;    // the service runs, and something is wrong
inline constexpr int kDown = 2;        // the service does not do its work
inline constexpr int kCannotTell = 3;  // what decides could not be seen
inline constexpr int kFailed = 4;      // a wrong command line, or an output that cannot be written

enum class Verdict;
// Returns the exit code for a verdict.
int ExitCodeOf(Verdict verdict);

void AddStatusCommand(CLI::App& app, int* exitCode);
void AddDiagnoseCommand(CLI::App& app, int* exitCode);
void AddLogsCommand(CLI::App& app, int* exitCode);
void AddCollectCommand(CLI::App& app, int* exitCode);

}  // namespace stewardry::tools
