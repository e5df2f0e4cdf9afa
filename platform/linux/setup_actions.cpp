#include "platform/setup_actions.h"

#include <filesystem>
#include <string>
#include <system_error>

#include "platform/linux/lab/lab_folder.h"
#include "platform/linux/runtime/gate.h"
#include "platform/linux/runtime/last_error.h"

namespace platform {

bool SetServicePolicy(const char* name, const ServicePolicy& policy) {
  if (gate::Fails("ChangeServiceConfig2A", "%s", name)) return false;
  std::string privileges;
  for (const char* privilege : policy.privileges)
    privileges += (privileges.empty() ? "" : ",") + std::string(privilege);
  AppendLabLine(std::string("services/") + name,
                "binaryPath=" + std::string(policy.program) +
                    "\nrestartDelayMs=" + std::to_string(policy.restartDelayMs) +
                    "\nfailureResetSeconds=" + std::to_string(policy.failureResetSeconds) +
                    "\npreshutdownTimeoutMs=" + std::to_string(policy.preshutdownTimeoutMs) +
                    "\nserviceSidType=1\nprivileges=" + privileges);
  return true;
}

bool StartRegisteredService(const char* name) {
  if (gate::Fails("StartServiceA", "%s", name)) return false;
  return Fail(kErrorCallNotImplemented);  // `scm start` is the lab's way
}

bool RunSystemProgram(const char* commandLine) {
  if (gate::Fails("CreateProcessA", "%s", commandLine)) return false;
  AppendLabLine("setup.txt", commandLine);
  return true;
}

bool RemoveFolder(const char* path) {
  if (gate::Fails("RemoveDirectoryA", "%s", path)) return false;
  std::error_code error;
  std::filesystem::remove_all(NativePath(path), error);  // follows no links
  return !error;
}

}  // namespace platform
