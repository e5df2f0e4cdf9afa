// What an installer changes on the host beside files and registry values. Only the set-up program
// calls these, with administrator rights.
#pragma once

#include <cstdint>
#include <span>

namespace platform {

// How the service manager treats a registered service.
struct ServicePolicy {
  const char* program;                      // the full path, which is registered in quotes
  std::uint32_t restartDelayMs;             // after each failure
  std::uint32_t failureResetSeconds;        // after which failures no longer count
  std::uint32_t preshutdownTimeoutMs;       // how long a shutdown waits for it
  std::span<const char* const> privileges;  // all others are removed from its token
};

// Sets the policy: restart after each failure, also after an end without SERVICE_STOPPED whatever
// the exit code, and an unrestricted service SID, so that access can be granted to the service
// alone. Returns false with the last error on failure. In the lab each setting is a line of the
// service's registration.
bool SetServicePolicy(const char* name, const ServicePolicy& policy);

// Starts a registered service. Does not wait until it runs. Returns true if it runs already.
bool StartRegisteredService(const char* name);

// Runs a program of the system folder without a window and blocks until it has ended, for 30 s at
// most. Returns true if it ended with 0. The lab writes the command to setup.txt.
bool RunSystemProgram(const char* commandLine);

// Deletes a folder with everything in it. A link or another reparse point in it is removed and not
// followed. Returns true if nothing is left.
bool RemoveFolder(const char* path);

}  // namespace platform
