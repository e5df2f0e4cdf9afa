// The tray's and the upgrade tool's end of a named pipe: a program of the user's session serves it,
// and the service connects and answers. The lab depends on nothing of the service, so the protocol
// is repeated here: a question ends with a zero byte, an answer with CR LF and the close of the
// pipe.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace lab {

// A write of this size blocks until the server reads: it exceeds the buffers of every served pipe.
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

  // Creates the pipe \\.\pipe\NAME; on Linux a socket in the lab folder. Returns false with a
  // sentence in *problem on failure, also if another program serves it.
  bool Open(const std::string& name, std::string* problem);

  // Blocks until the service has connected, sends `question` and its zero byte, and stores the
  // answer without its CR LF. May be called again at once: the service reconnects. Returns false
  // with a sentence in *problem if the deadline has passed or the answer is empty or has no CR LF.
  // Requires an open pipe.
  bool Ask(const std::string& question, Deadline deadline, std::string* answer,
           std::string* problem);

  // Returns the process id of the client that gave the last answer, 0 if it is unknown. Any user
  // may connect to the pipe.
  std::uint32_t ClientProcess() const { return clientProcess_; }

 private:
  struct Ends;
  // Serves the next connection. Stores everything that the client sends until it closes.
  bool Exchange(const std::string& question, Deadline deadline, std::string* received,
                std::string* problem);

  std::unique_ptr<Ends> ends_;
  std::uint32_t clientProcess_ = 0;
};

// Returns the milliseconds until the deadline, for a platform's wait; 0 if it has passed.
int MillisecondsTo(Deadline deadline);

// The command lines of the programs that serve pipes.
using Words = std::vector<std::string>;

// Parses a whole number from 1 to 1000000. Returns false and leaves *number unchanged otherwise.
bool ReadNumber(const std::string& word, long* number);
// Removes "--seconds N" from the words, if they contain it. Returns false if N is not a number.
bool TakeSeconds(Words* words, long* seconds);

}  // namespace lab
