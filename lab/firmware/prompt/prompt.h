// The commands of the simulator, from the script and from standard input: one queue of lines, the
// script's first. `sleep` and `wait` hold the queue and nothing else.
#pragma once

#include <deque>
#include <string>
#include <string_view>

#include "lab/firmware/prompt/commands.h"

namespace orrin {

// One thread. Firmware and trace outlive it.
class Prompt {
 public:
  Prompt(Firmware& firmware, Trace& trace) : context_{firmware, trace} {}

  // Queues the lines of a script file. Returns false if it cannot be read or is above 16 MiB.
  bool LoadScript(const std::string& path);
  // Takes typed bytes and queues each complete line.
  void HandleInput(std::string_view bytes);
  // Queues what follows the last line end of the input.
  void EndInput();
  // Returns true while more lines may be queued.
  bool HasRoom() const;

  // Runs the commands that are due.
  void Run();
  // Returns the milliseconds until Run is due without input or an event, or -1.
  int MillisecondsLeft() const;

  bool WantsQuit() const { return context_.quits; }
  // Returns true once after `drop`.
  bool TakeDrop() { return std::exchange(context_.drops, false); }

 private:
  bool IsHeld();

  CommandContext context_;
  std::deque<std::string> lines_;
  std::string partialLine_;
  bool isTooLong_ = false;  // the line that is being typed
};

}  // namespace orrin
