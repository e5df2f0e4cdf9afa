// The trace on standard output: one line for each event, "HH:MM:SS.mmm direction  words". Lines of
// one turn of the loop are held until Flush, so that an answer leaves on the link before the line
// about it is printed, and all lines of a turn cost one write.
#pragma once

#include <deque>
#include <string>
#include <string_view>

namespace orrin {

// One thread only.
class Trace {
 public:
  // Writes to `descriptor`, which stays the caller's.
  explicit Trace(int descriptor);

  void HostToFirmware(std::string_view words);
  void FirmwareToHost(std::string_view words);
  // Something that the simulator itself has to say.
  void Note(std::string_view words);
  // A line as it is, without time stamp: the answer to a prompt command.
  void Plain(std::string_view words);

  // Writes what is held. A reader that has gone away is not an error: the simulator goes on.
  void Flush();

  // True when an event line holding `text` was said since the line found last, and remembers that
  // line. Only the newest 4096 lines are looked at.
  bool TakeSeen(std::string_view text);

 private:
  void Event(std::string_view direction, std::string_view words);
  void Hold(std::string_view line);

  int descriptor_;
  bool readerGone_ = false;
  std::string held_;
  std::deque<std::string> unseen_;
};

}  // namespace orrin
