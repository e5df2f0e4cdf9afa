// The trace on standard output: one line for each event, "HH:MM:SS.mmm direction  words". The lines
// of one turn of the loop are held until Flush: an answer is on the link before its line is
// printed.
#pragma once

#include <deque>
#include <string>
#include <string_view>

namespace orrin {

// One thread only.
class Trace {
 public:
  // Writes to `descriptor`, which the caller owns.
  explicit Trace(int descriptor);

  void HostToFirmware(std::string_view words);
  void FirmwareToHost(std::string_view words);
  // Adds a line about the simulator itself.
  void AddNote(std::string_view words);
  // Adds a line as it is, without time stamp: the answer to a prompt command.
  void AddPlain(std::string_view words);

  // Writes what is held. Once the descriptor's reader has closed it, drops lines instead.
  void Flush();

  // Returns true if an event line after the one found last contains `text`, and makes it the line
  // found last. Only the newest 4096 lines are searched.
  bool FindNext(std::string_view text);

 private:
  void AddEvent(std::string_view direction, std::string_view words);
  void AddLine(std::string_view line);

  int descriptor_;
  bool isClosed_ = false;
  std::string held_;
  std::deque<std::string> unsearched_;
};

}  // namespace orrin
