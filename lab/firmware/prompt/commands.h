// The command table of the prompt.
#pragma once

#include <chrono>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>

#include "lab/firmware/core/trace.h"
#include "lab/firmware/firmware.h"

namespace orrin {

using PromptClock = std::chrono::steady_clock;

// What the commands use and change.
struct CommandContext {
  Firmware& firmware;
  Trace& trace;
  std::optional<PromptClock::time_point> heldUntil = {};
  std::string awaited = {};  // the text that `wait` waits for; empty for `sleep`
  bool quits = false;
  bool drops = false;
};

struct Command {
  std::string_view word;
  std::string_view usage;  // of the arguments
  std::string_view meaning;
  bool (*run)(CommandContext& context, std::string_view arguments);  // false: wrong arguments
};

// Runs one line of the script or the input.
void RunLine(CommandContext& context, std::string_view line);

// Returns null if the table has no such word.
const Command* FindCommand(std::span<const Command> commands, std::string_view word);
// Prints a table, each word behind the prefix.
void ShowHelp(CommandContext& context, std::string_view prefix, std::span<const Command> commands);
// Reports that a command's arguments are wrong.
void ReportUsage(CommandContext& context, std::string_view prefix, const Command& command);
// Sends a command without payload. Returns false if there are arguments.
bool SendWithoutPayload(CommandContext& context, std::uint8_t code, std::string_view arguments);

// The commands of the console, in kvm_commands.cpp.
bool RunKvm(CommandContext& context, std::string_view arguments);
bool TrustViewer(CommandContext& context, std::string_view arguments);
bool CloseKvm(CommandContext& context, std::string_view arguments);
void ShowKvmHelp(CommandContext& context);

}  // namespace orrin
