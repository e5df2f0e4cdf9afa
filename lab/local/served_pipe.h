// A named pipe that a program of the user's session serves, so that the service connects to it and
// answers: the tray's and the upgrade tool's end. One header, a source for each platform. It
// depends on nothing of the service, so the protocol is told once more here: a question ends with a
// zero byte, an answer with CR LF and the service's hanging up.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

namespace lab {

// A write of so many bytes waits until the server reads: no served pipe's buffers hold them.
#ifdef _WIN32
constexpr std::uint32_t kMoreThanAPipeHolds = 16 << 10;  // the buffer has 1024 bytes
#else
constexpr std::uint32_t kMoreThanAPipeHolds = 4 << 20;  // a Unix socket has some 200 KiB
#endif

using Deadline = std::chrono::steady_clock::time_point;

class ServedPipe {
 public:
  ServedPipe();
  ~ServedPipe();
  ServedPipe(const ServedPipe&) = delete;
  ServedPipe& operator=(const ServedPipe&) = delete;

  // Creates the pipe \\.\pipe\NAME; on Linux a socket in the lab folder. False, with a sentence in
  // *problem, when it can't be made or another program serves it.
  bool Open(const std::string& name, std::string* problem);

  // Waits until the service has connected, sends `question` and its zero byte, and gives what comes
  // back until the service hangs up, without the CR LF. From the first answer on there is a next
  // connection to ask on. False, with a sentence in *problem, when the deadline has passed, nothing
  // came back, or an answer doesn't end as it should.
  bool Ask(const std::string& question, Deadline deadline, std::string* answer,
           std::string* problem);

 private:
  struct Ends;
  // One exchange with whoever connects next: what was said until the far end hung up.
  bool Exchange(const std::string& question, Deadline deadline, std::string* said,
                std::string* problem);

  std::unique_ptr<Ends> ends_;
};

// What remains until the deadline, in milliseconds for a platform's wait; 0 when it has passed.
int MillisecondsTo(Deadline deadline);

}  // namespace lab
