#include "platform/setup_actions.h"

#include <string>

#include "platform/windows/runtime/owned_handles.h"
#include "platform/windows/runtime/windows_api.h"

namespace platform {

namespace {

constexpr DWORD kProgramMs = 30'000;

ManagerHandle OpenRegistered(const char* name, DWORD access) {
  const ManagerHandle manager(::OpenSCManagerA(nullptr, nullptr, SC_MANAGER_CONNECT));
  return ManagerHandle(manager ? ::OpenServiceA(manager.get(), name, access) : nullptr);
}

LSTATUS SetValue(const char* service, const char* value, DWORD type, const void* data,
                 std::size_t size) {
  const std::string key = std::string("SYSTEM\\CurrentControlSet\\Services\\") + service;
  HKEY opened = nullptr;
  LSTATUS result =
      ::RegOpenKeyExA(HKEY_LOCAL_MACHINE, key.c_str(), 0, KEY_READ | KEY_WRITE, &opened);
  if (result != ERROR_SUCCESS) return result;
  result = ::RegSetValueExA(opened, value, 0, type, static_cast<const BYTE*>(data),
                            static_cast<DWORD>(size));
  ::RegCloseKey(opened);
  return result;
}

// Stores a text value of at most `size` bytes, or with a null text only whether there is the value.
bool HasValue(const char* service, const char* value, char* text, DWORD size) {
  const std::string key = std::string("SYSTEM\\CurrentControlSet\\Services\\") + service;
  return ::RegGetValueA(HKEY_LOCAL_MACHINE, key.c_str(), value, RRF_RT_ANY | RRF_NOEXPAND, nullptr,
                        text, text != nullptr ? &size : nullptr) == ERROR_SUCCESS;
}

// A service manager that does not know a level gets the registry value in which Windows keeps it.
// That is Wine's, which refuses some levels and accepts others without keeping them.
bool Keep(const char* service, const char* value, DWORD type, const void* data, std::size_t size) {
  return HasValue(service, value, nullptr, 0) ||
         SetValue(service, value, type, data, size) == ERROR_SUCCESS;
}

// Windows Installer quotes a path with blanks, Wine's does not. Without quotes a blank would end
// the program's name. The service manager reads the value at each start. This comes last, because
// Wine's service manager writes all values again with each level.
bool QuoteProgram(const char* service, const char* program) {
  char registered[1024] = "";
  if (HasValue(service, "ImagePath", registered, sizeof registered) && registered[0] == '"')
    return true;
  const std::string command = std::string("\"") + program + "\"";
  return SetValue(service, "ImagePath", REG_EXPAND_SZ, command.c_str(), command.size() + 1) ==
         ERROR_SUCCESS;
}

// Sets one level of the configuration, and makes sure that its registry value is there.
template <typename Info>
bool SetLevel(SC_HANDLE service, DWORD level, Info info) {
  if (::ChangeServiceConfig2A(service, level, &info)) return true;
  const DWORD error = ::GetLastError();  // of a level that the service manager does not know
  return error == ERROR_INVALID_LEVEL || error == ERROR_INVALID_PARAMETER ||
         error == ERROR_CALL_NOT_IMPLEMENTED;
}

// The layout of the value FailureActions: five 32-bit fields, then a type and a delay for each.
struct KeptActions {
  DWORD resetSeconds, rebootMessage, command, count, actionsOffset;
  struct {
    DWORD type, delayMs;
  } actions[3];
};

}  // namespace

bool SetServicePolicy(const char* name, const ServicePolicy& policy) {
  // Setting a restart needs the right to start.
  const ManagerHandle service = OpenRegistered(name, SERVICE_CHANGE_CONFIG | SERVICE_START);
  if (!service) return false;
  SC_ACTION action{SC_ACTION_RESTART, policy.restartDelayMs};
  SC_ACTION actions[] = {action, action, action};
  std::string privileges;
  for (const char* privilege : policy.privileges) privileges.append(privilege).push_back('\0');
  privileges.push_back('\0');
  const KeptActions kept{policy.failureResetSeconds,
                         0,
                         0,
                         3,
                         20,
                         {{SC_ACTION_RESTART, policy.restartDelayMs},
                          {SC_ACTION_RESTART, policy.restartDelayMs},
                          {SC_ACTION_RESTART, policy.restartDelayMs}}};
  const DWORD one = 1, preshutdown = policy.preshutdownTimeoutMs,
              sid = SERVICE_SID_TYPE_UNRESTRICTED;
  return SetLevel(
             service.get(), SERVICE_CONFIG_FAILURE_ACTIONS,
             SERVICE_FAILURE_ACTIONSA{policy.failureResetSeconds, nullptr, nullptr, 3, actions}) &&
         Keep(name, "FailureActions", REG_BINARY, &kept, sizeof kept) &&
         SetLevel(service.get(), SERVICE_CONFIG_FAILURE_ACTIONS_FLAG,
                  SERVICE_FAILURE_ACTIONS_FLAG{TRUE}) &&
         Keep(name, "FailureActionsOnNonCrashFailures", REG_DWORD, &one, sizeof one) &&
         SetLevel(service.get(), SERVICE_CONFIG_PRESHUTDOWN_INFO,
                  SERVICE_PRESHUTDOWN_INFO{preshutdown}) &&
         Keep(name, "PreshutdownTimeout", REG_DWORD, &preshutdown, sizeof preshutdown) &&
         SetLevel(service.get(), SERVICE_CONFIG_SERVICE_SID_INFO, SERVICE_SID_INFO{sid}) &&
         Keep(name, "ServiceSidType", REG_DWORD, &sid, sizeof sid) &&
         SetLevel(service.get(), SERVICE_CONFIG_REQUIRED_PRIVILEGES_INFO,
                  SERVICE_REQUIRED_PRIVILEGES_INFOA{privileges.data()}) &&
         Keep(name, "RequiredPrivileges", REG_MULTI_SZ, privileges.data(), privileges.size()) &&
         QuoteProgram(name, policy.program);
}

bool StartRegisteredService(const char* name) {
  const ManagerHandle service = OpenRegistered(name, SERVICE_START);
  return service && (::StartServiceA(service.get(), 0, nullptr) ||
                     ::GetLastError() == ERROR_SERVICE_ALREADY_RUNNING);
}

bool RunSystemProgram(const char* commandLine) {
  char folder[MAX_PATH];
  if (::GetSystemDirectoryA(folder, sizeof folder) == 0) return false;
  // The full path: the command's first word must not be searched for.
  std::string command = std::string("\"") + folder + "\\" + commandLine;
  const std::size_t end = command.find(' ', std::string(folder).size());
  command.insert(end == std::string::npos ? command.size() : end, "\"");
  STARTUPINFOA start{};
  start.cb = sizeof start;
  PROCESS_INFORMATION started{};
  if (!::CreateProcessA(nullptr, command.data(), nullptr, nullptr, FALSE, CREATE_NO_WINDOW, nullptr,
                        folder, &start, &started))
    return false;
  const Object thread(started.hThread), process(started.hProcess);
  DWORD exitCode = 1;
  return ::WaitForSingleObject(process.get(), kProgramMs) == WAIT_OBJECT_0 &&
         ::GetExitCodeProcess(process.get(), &exitCode) && exitCode == 0;
}

bool RemoveFolder(const char* path) {
  WIN32_FIND_DATAA found;
  const std::string folder = path;
  const DWORD attributes = ::GetFileAttributesA(path);
  if (attributes == INVALID_FILE_ATTRIBUTES)
    return ::GetLastError() == ERROR_FILE_NOT_FOUND || ::GetLastError() == ERROR_PATH_NOT_FOUND;
  const bool isLink = (attributes & FILE_ATTRIBUTE_REPARSE_POINT) != 0;
  const HANDLE search =
      isLink ? INVALID_HANDLE_VALUE : ::FindFirstFileA((folder + "\\*").c_str(), &found);
  if (search != INVALID_HANDLE_VALUE) {
    do {
      const std::string name = found.cFileName;
      if (name == "." || name == "..") continue;
      const std::string below = folder + "\\" + name;
      if ((found.dwFileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0)
        RemoveFolder(below.c_str());
      else
        ::DeleteFileA(below.c_str());
    } while (::FindNextFileA(search, &found));
    ::FindClose(search);
  }
  return ::RemoveDirectoryA(path) != FALSE;
}

}  // namespace platform
