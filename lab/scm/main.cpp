// scm: the Linux stand-in of the service manager. `scm start` is the manager, in the foreground;
// every other command is a client of the running one.
#include <signal.h>

#include <cstdio>
#include <fstream>
#include <string>
#include <string_view>
#include <vector>

#include "lab/local/local_socket.h"
#include "lab/scm/controls.h"
#include "lab/scm/line_stream.h"
#include "lab/scm/manager.h"

namespace {

std::string SocketPath() { return lab::LabFolder() + "/scm"; }

// Returns the program installed as QuillonSvc: the value of `binaryPath` in the lab's
// services/QuillonSvc without its quotes. Empty if none is installed.
std::string InstalledProgram() {
  constexpr std::string_view kKey = "binaryPath=";
  std::ifstream file(lab::LabFolder() + "/services/QuillonSvc");
  for (std::string line; std::getline(file, line);) {
    if (!line.starts_with(kKey)) continue;
    std::string path = line.substr(kKey.size());
    // A path with blanks is registered in quotes.
    if (path.size() > 1 && path.front() == '"' && path.back() == '"') {
      path = path.substr(1, path.size() - 2);
    }
    return path;
  }
  return {};
}

// Sends the words as one command and prints the answer. Returns the process's exit code.
int SendCommand(const std::string& socketPath, const std::vector<std::string>& words) {
  constexpr std::string_view kExit = "EXIT ";
  lab::Descriptor socket = lab::ConnectLocal(socketPath);
  if (!socket) {
    std::printf("error %u: the service has not been started (no manager at %s)\n",
                scm::kErrorServiceNotActive, socketPath.c_str());
    return 1;
  }
  scm::LineStream stream(std::move(socket));
  std::string command;
  for (const std::string& word : words) command += (command.empty() ? "" : " ") + word;
  stream.Send("CLIENT");
  stream.Send(command);
  if (!stream.Flush()) return 1;
  while (true) {
    while (const auto line = stream.Line()) {
      if (line->starts_with(kExit)) return *line == "EXIT 0" ? 0 : 1;
      std::printf("%s\n", line->c_str());
      std::fflush(stdout);  // a pipe gets the result before the stop has ended
    }
    if (stream.Read()) continue;
    std::puts("the manager has exited");
    return 1;
  }
}

int Usage() {
  std::fputs(
      "usage: scm start [PROGRAM [ARG...]]\n"
      "       scm stop | preshutdown | interrogate | status\n"
      "       scm power acdc|battery|presence N [--force]\n"
      "       scm session logon|logoff|lock|unlock [--force]\n"
      "       scm control N [--force]\n",
      stderr);
  return 1;
}

int Start(std::vector<std::string> program) {
  if (program.empty()) program.push_back(InstalledProgram());
  if (program[0].empty()) {
    std::fputs("scm: QuillonSvc is not installed; name a program\n", stderr);
    return 1;
  }
  return scm::RunManager(SocketPath(), program);
}

}  // namespace

int main(int count, char** arguments) {
  signal(SIGPIPE, SIG_IGN);
  std::vector<std::string> words(arguments + 1, arguments + count);
  if (!words.empty() && words[0] == "start") return Start({words.begin() + 1, words.end()});
  const bool isStatus = words.size() == 1 && words[0] == "status";
  if (!isStatus && !scm::ParseControl(words)) return Usage();
  return SendCommand(SocketPath(), words);
}
