#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

#include "lab/local/local_socket.h"

namespace scm {

// Owns one child process. Kills and reaps it at the end if it still runs.
class Child {
 public:
  Child() = default;
  ~Child();
  Child(const Child&) = delete;
  Child& operator=(const Child&) = delete;

  // Starts words[0], found through PATH, with the default signals. Returns false with a sentence in
  // `problem` on failure. Requires that none was started.
  bool Start(const std::vector<std::string>& words, std::string* problem);
  pid_t Id() const { return pid_; }
  // Returns a descriptor that is readable once the process has exited, or -1 without a process.
  int Watch() const { return watch_.Get(); }
  // Returns the wait status once it has exited, and nothing while it runs.
  std::optional<int> Reap();
  void Kill();

 private:
  pid_t pid_ = 0;
  lab::Descriptor watch_;
};

}  // namespace scm
