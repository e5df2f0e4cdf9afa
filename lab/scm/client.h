// The client's side of the manager's socket, and what `scm start` starts by default.
#pragma once

#include <string>
#include <vector>

namespace scm {

// The manager's socket in the lab folder.
std::string SocketPath();
// The program installed as QuillonSvc: the value of `binaryPath` in the lab's services/QuillonSvc,
// without the quotes around it. Empty when nothing is installed.
std::string InstalledProgram();

// Sends the words as one command, prints what comes back. Result: the process's exit code.
int Ask(const std::string& socketPath, const std::vector<std::string>& words);

}  // namespace scm
