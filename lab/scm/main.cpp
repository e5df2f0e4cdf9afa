// scm: the Linux stand-in of the service manager. `scm start` is the manager, in the foreground;
// every other command is a client of the running one.
#include <signal.h>

#include <cstdio>
#include <string>
#include <vector>

#include "lab/scm/client.h"
#include "lab/scm/controls.h"
#include "lab/scm/manager.h"

namespace {

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
  if (program.empty()) program.push_back(scm::InstalledProgram());
  if (program[0].empty()) {
    std::fputs("scm: QuillonSvc isn't installed; name a program\n", stderr);
    return 1;
  }
  return scm::Manager().Run(scm::SocketPath(), program);
}

}  // namespace

int main(int count, char** arguments) {
  signal(SIGPIPE, SIG_IGN);
  std::vector<std::string> words(arguments + 1, arguments + count);
  if (!words.empty() && words[0] == "start") return Start({words.begin() + 1, words.end()});
  const bool isStatus = words.size() == 1 && words[0] == "status";
  if (!isStatus && !scm::ParseControl(words)) return Usage();
  return scm::Ask(scm::SocketPath(), words);
}
