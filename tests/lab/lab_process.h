// A real program of the lab, which finds the test's lab folder through STEWARDRY_LAB. Waits have no
// bound here, because ctest has one: a bounded receive would fail in a test that is paused.
#pragma once

#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <utility>
#include <vector>

#include "lab/local/local_socket.h"

class LabProcess {
 public:
  explicit LabProcess(std::vector<std::string> words) {
    int ends[2] = {-1, -1};
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
    terminal_ = lab::Descriptor(ends[0]);
    std::vector<char*> pointers;
    for (std::string& word : words) pointers.push_back(word.data());
    pointers.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, ends[1], STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, ends[1], STDOUT_FILENO);
    EXPECT_EQ(posix_spawn(&pid_, pointers[0], &actions, nullptr, pointers.data(), environ), 0);
    posix_spawn_file_actions_destroy(&actions);
    close(ends[1]);
  }
  LabProcess(const LabProcess&) = delete;
  LabProcess& operator=(const LabProcess&) = delete;
  ~LabProcess() {
    if (pid_ <= 0) return;
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }

  // Waits until the output holds the text. Returns false at the end of the output.
  bool Prints(const std::string& text) {
    while (output_.find(text) == std::string::npos) {
      if (!ReadMore()) return false;
    }
    return true;
  }
  // Waits for the end of the output, then for the end of the program. Returns -1 after a signal.
  int ExitCode() {
    while (ReadMore()) {
    }
    int status = 0;
    waitpid(std::exchange(pid_, 0), &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  }

 private:
  bool ReadMore() {
    char bytes[4096];
    const ssize_t count = read(terminal_.Get(), bytes, sizeof bytes);
    if (count > 0) output_.append(bytes, static_cast<std::size_t>(count));
    return count > 0;
  }

  pid_t pid_ = 0;
  lab::Descriptor terminal_;  // the far end is the program's standard input and output
  std::string output_;
};
