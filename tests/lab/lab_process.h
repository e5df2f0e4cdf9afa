// A real program of the lab, started in a lab folder that goes with the test.
#pragma once

#include <string>
#include <vector>

#include <sys/types.h>

#include "lab/firmware/local_socket.h"

namespace labtest {

// A folder of its own under the temporary folder, named to the programs through STEWARDRY_LAB.
class LabFolder {
 public:
  LabFolder();
  ~LabFolder();
  LabFolder(const LabFolder&) = delete;
  LabFolder& operator=(const LabFolder&) = delete;
  const std::string& Path() const { return path_; }

 private:
  std::string path_;
};

class LabProcess {
 public:
  explicit LabProcess(const std::vector<std::string>& words);
  ~LabProcess();  // kills what still runs
  LabProcess(const LabProcess&) = delete;
  LabProcess& operator=(const LabProcess&) = delete;

  void Type(const std::string& line);
  void Signal(int number);
  // Waits until the output holds the text; false after ten seconds or at the end of the output.
  bool Prints(const std::string& text);
  // Waits for the end; the exit code, or -1 for a signal or after ten seconds.
  int ExitCode();
  const std::string& Output() const { return output_; }

 private:
  bool ReadMore(int milliseconds);

  pid_t pid_ = 0;
  lab::Descriptor input_;
  lab::Descriptor outputEnd_;
  std::string output_;
};

}  // namespace labtest
