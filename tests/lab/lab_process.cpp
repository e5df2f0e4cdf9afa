#include "tests/lab/lab_process.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>

extern char** environ;

namespace labtest {
namespace {

constexpr int kPatience = 10000;  // milliseconds

}  // namespace

LabFolder::LabFolder() {
  std::string pattern = (std::filesystem::temp_directory_path() / "labtest-XXXXXX").string();
  if (!mkdtemp(pattern.data())) std::abort();
  path_ = pattern;
  setenv("STEWARDRY_LAB", path_.c_str(), 1);
}

LabFolder::~LabFolder() {
  std::error_code ignored;  // what can't be removed is no fault of the programs
  std::filesystem::remove_all(path_, ignored);
}

LabProcess::LabProcess(const std::vector<std::string>& words) {
  signal(SIGPIPE, SIG_IGN);
  int in[2];
  int out[2];
  if (pipe2(in, O_CLOEXEC) != 0 || pipe2(out, O_CLOEXEC) != 0) std::abort();
  input_ = lab::Descriptor(in[1]);
  outputEnd_ = lab::Descriptor(out[0]);
  std::vector<std::string> copy = words;
  std::vector<char*> pointers;
  for (std::string& word : copy) pointers.push_back(word.data());
  pointers.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, in[0], STDIN_FILENO);
  posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
  EXPECT_EQ(posix_spawn(&pid_, pointers[0], &actions, nullptr, pointers.data(), environ), 0);
  posix_spawn_file_actions_destroy(&actions);
  close(in[0]);
  close(out[1]);
}

LabProcess::~LabProcess() {
  if (pid_ <= 0) return;
  kill(pid_, SIGKILL);
  waitpid(pid_, nullptr, 0);
}

void LabProcess::Type(const std::string& line) {
  const std::string bytes = line + "\n";
  EXPECT_EQ(write(input_.Get(), bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
}

void LabProcess::Signal(int number) { kill(pid_, number); }

bool LabProcess::Prints(const std::string& text) {
  while (output_.find(text) == std::string::npos) {
    if (!ReadMore(kPatience)) return false;
  }
  return true;
}

bool LabProcess::ReadMore(int milliseconds) {
  pollfd ready{outputEnd_.Get(), POLLIN, 0};
  if (poll(&ready, 1, milliseconds) <= 0) return false;
  char bytes[4096];
  const ssize_t count = read(outputEnd_.Get(), bytes, sizeof(bytes));
  if (count > 0) output_.append(bytes, static_cast<std::size_t>(count));
  return count > 0;
}

int LabProcess::ExitCode() {
  while (ReadMore(kPatience)) {
  }
  int status = 0;
  for (int waited = 0; waited < kPatience; waited += 10) {
    if (waitpid(pid_, &status, WNOHANG) == pid_) {
      pid_ = 0;
      return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    usleep(10000);
  }
  return -1;
}

}  // namespace labtest
