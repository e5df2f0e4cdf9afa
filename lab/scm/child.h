// The service's process: started by the manager, watched through a descriptor, reaped alone.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

#include "lab/local/local_socket.h"

namespace scm {

// Owns one child process; one that still runs at the end is killed and reaped.
class Child {
 public:
  Child() = default;
  ~Child();
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  // Starts words[0], found through PATH, with the signals of a fresh process. False puts a sentence
  // in `problem`.
  bool Start(const std::vector<std::string>& words, std::string* problem);
  pid_t Id() const { return pid_; }
  // Readable when the process has ended; -1 without a process.
  int Watch() const { return watch_.Get(); }
  // The wait status once it has ended; nothing while it runs.
  std::optional<int> Reap();
  void Kill();

 private:
  pid_t pid_ = 0;
  lab::Descriptor watch_;
};

}  // namespace scm
