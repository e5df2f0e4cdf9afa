#include "lab/scm/child.h"

#include <signal.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cassert>
#include <cerrno>
#include <cstring>

extern char**
    environ;  // NOLINT(readability-redundant-declaration): not every C library declares it

namespace scm {
namespace {

// Restores the signals: the manager blocks the stop signals and ignores SIGPIPE.
int Spawn(pid_t* pid, char** words) {
  posix_spawnattr_t attributes;
  posix_spawnattr_init(&attributes);
  sigset_t none;
  sigemptyset(&none);
  sigset_t restored;
  sigemptyset(&restored);
  sigaddset(&restored, SIGPIPE);
  posix_spawnattr_setsigmask(&attributes, &none);
  posix_spawnattr_setsigdefault(&attributes, &restored);
  posix_spawnattr_setflags(&attributes,
                           POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETPGROUP);
  const int error = posix_spawnp(pid, words[0], nullptr, &attributes, words, environ);
  posix_spawnattr_destroy(&attributes);
  return error;
}

}  // namespace

Child::~Child() {
  if (pid_ == 0) return;
  Kill();
  waitpid(pid_, nullptr, 0);
}

bool Child::Start(const std::vector<std::string>& words, std::string* problem) {
  assert(pid_ == 0 && !words.empty());
  std::vector<std::string> copy = words;
  std::vector<char*> pointers;
  for (std::string& word : copy) pointers.push_back(word.data());
  pointers.push_back(nullptr);
  pid_t started = 0;
  const int error = Spawn(&started, pointers.data());
  if (error != 0) {
    *problem = words[0] + ": " + std::strerror(error);
    return false;
  }
  pid_ = started;
  watch_ = lab::Descriptor(static_cast<int>(syscall(SYS_pidfd_open, pid_, 0)));
  if (watch_) return true;
  *problem = std::string("pidfd_open: ") + std::strerror(errno);
  return false;
}

std::optional<int> Child::Reap() {
  int status = 0;
  if (pid_ == 0 || waitpid(pid_, &status, WNOHANG) != pid_) return std::nullopt;
  pid_ = 0;
  watch_.Close();
  return status;
}

void Child::Kill() {
  if (pid_ != 0) kill(pid_, SIGKILL);
}

}  // namespace scm
