#pragma once

#include <string>
#include <vector>

namespace scm {

// Runs the service manager: listens on `socketPath`, starts the program and serves until its
// process has exited. SIGTERM and SIGINT stop the service; a second one kills its process. Returns
// the program's exit code, 128 plus the signal that ended it, or 1 if it could not start.
//
// A connection's first line says what it is: "SERVICE name" for the service, "CLIENT" for a client.
// The service then sends POWERSETTING, STATUS and RESULT lines and receives CONTROL lines. A client
// sends one command line and receives lines of text, the last one "EXIT n".
int RunManager(const std::string& socketPath, const std::vector<std::string>& program);

}  // namespace scm
