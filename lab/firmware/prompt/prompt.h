// The commands of the simulator, from the script and from standard input: one queue of lines, the
// script's first. `sleep` and `wait` hold the queue, nothing else.
#pragma once

#include <chrono>
#include <deque>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "lab/firmware/core/trace.h"
#include "lab/firmware/firmware.h"

namespace orrin {

// One thread.
class Prompt {
 public:
  using Clock = std::chrono::steady_clock;

  Prompt(Firmware& firmware, Trace& trace);

  // Queues the lines of a script file. False when it can't be read or has more than 16 MiB.
  bool LoadScript(const std::string& path);
  // Bytes typed; a line runs when it is whole. What stands without a line end at the end of the
  // input is a line too.
  void Typed(std::string_view bytes);
  void EndTyped();
  // Whether more typed lines are welcome.
  bool HasRoom() const;

  // Runs what is due.
  void Run();
  // Milliseconds until Run has something to do of itself; -1: only more input or an event will do.
  int MillisecondsLeft() const;

  bool WantsQuit() const { return quits_; }
  // True once after `drop`.
  bool TakeDrop();

 private:
  struct Command {
    std::string_view word;
    std::string_view usage;  // of the arguments
    std::string_view meaning;
    bool (Prompt::*run)(std::string_view arguments);  // false: the arguments are wrong
  };
  static const Command kCommands[];
  static const Command kKvmCommands[];

  bool IsHeld();
  void RunLine(std::string_view line);
  static const Command* Find(std::span<const Command> commands, std::string_view word);
  void ShowHelp(const char* prefix, std::span<const Command> commands);
  bool SendEmpty(std::uint8_t code, std::string_view arguments);

  bool Help(std::string_view arguments);
  bool Provision(std::string_view arguments);
  bool Version(std::string_view arguments);
  bool KvmStatus(std::string_view arguments);
  bool Status(std::string_view arguments);
  bool Silence(std::string_view arguments);
  bool Fail(std::string_view arguments);
  bool FailRead(std::string_view arguments);
  bool Power(std::string_view arguments);
  bool Dash(std::string_view arguments);
  bool Frame(std::string_view arguments);
  bool Unknown(std::string_view arguments);
  bool Subscribe(std::string_view arguments);
  bool Unsubscribe(std::string_view arguments);
  bool Indication(std::string_view arguments);
  bool Upgrade(std::string_view arguments);
  // The commands that begin with "kvm", in kvm_prompt.cpp.
  bool Kvm(std::string_view arguments);
  void ShowKvmHelp();
  bool KvmOn(std::string_view arguments);
  bool KvmSave(std::string_view arguments);
  bool KvmPaint(std::string_view arguments);
  bool KvmFlood(std::string_view arguments);
  bool KvmStall(std::string_view arguments);
  bool KvmRegion(std::string_view arguments);
  bool KvmIndex(std::string_view arguments);
  bool Trust(std::string_view arguments);
  bool CloseKvm(std::string_view arguments);
  bool Resume(std::string_view arguments);
  bool Drop(std::string_view arguments);
  bool ShowInventory(std::string_view arguments);
  bool Poke(std::string_view arguments);
  bool Peek(std::string_view arguments);
  bool Sleep(std::string_view arguments);
  bool Wait(std::string_view arguments);
  bool Quit(std::string_view arguments);

  Firmware& firmware_;
  Trace& trace_;
  std::deque<std::string> lines_;
  std::string torn_;
  bool tooLong_ = false;
  std::optional<Clock::time_point> heldUntil_;
  std::string awaited_;  // the text that `wait` waits for; empty: a plain sleep
  bool quits_ = false;
  bool drops_ = false;
};

}  // namespace orrin
