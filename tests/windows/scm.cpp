// The service manager at the command line: what a test under Wine needs of it. Each command prints
// what the manager answers and ends with 0, or with the platform's error as "error N" and 1.
#include <windows.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <type_traits>
#include <vector>

namespace {

struct CloseService {
  void operator()(SC_HANDLE handle) const { CloseServiceHandle(handle); }
};
using Service = std::unique_ptr<std::remove_pointer_t<SC_HANDLE>, CloseService>;

int Fail() {
  std::printf("error %lu\n", GetLastError());
  return 1;
}

int Print(const SERVICE_STATUS& status) {
  static constexpr const char* kStates[] = {"?", "SERVICE_STOPPED", "SERVICE_START_PENDING",
                                            "SERVICE_STOP_PENDING", "SERVICE_RUNNING"};
  std::printf("%s, accepts 0x%lx, exit %lu/%lu, check point %lu\n",
              kStates[status.dwCurrentState < std::size(kStates) ? status.dwCurrentState : 0],
              status.dwControlsAccepted, status.dwWin32ExitCode, status.dwServiceSpecificExitCode,
              status.dwCheckPoint);
  return 0;
}

int Status(SC_HANDLE service) {
  SERVICE_STATUS status;
  return QueryServiceStatus(service, &status) ? Print(status) : Fail();
}

int Control(SC_HANDLE service, unsigned long control) {
  SERVICE_STATUS status;
  return ControlService(service, control, &status) ? Print(status) : Fail();
}

int Config(SC_HANDLE service) {
  std::vector<std::byte> block(8192);
  auto* config = reinterpret_cast<QUERY_SERVICE_CONFIGA*>(block.data());
  DWORD needed = 0;
  if (!QueryServiceConfigA(service, config, static_cast<DWORD>(block.size()), &needed))
    return Fail();
  std::printf("display name: %s\ntype: %lu\nstart: %lu\nerror control: %lu\npath: %s\n",
              config->lpDisplayName, config->dwServiceType, config->dwStartType,
              config->dwErrorControl, config->lpBinaryPathName);
  for (const char* each = config->lpDependencies; each != nullptr && *each != 0;
       each += std::strlen(each) + 1)
    std::printf("depends on: %s\n", each);
  std::vector<std::byte> text(8192);
  if (!QueryServiceConfig2A(service, SERVICE_CONFIG_DESCRIPTION,
                            reinterpret_cast<BYTE*>(text.data()), static_cast<DWORD>(text.size()),
                            &needed))
    return Fail();
  const char* description =
      reinterpret_cast<const SERVICE_DESCRIPTIONA*>(text.data())->lpDescription;
  std::printf("description: %s\n", description != nullptr ? description : "");
  return 0;
}

int Run(const std::string& command, SC_HANDLE service, const char* number) {
  if (command == "start") return StartServiceA(service, 0, nullptr) ? Status(service) : Fail();
  if (command == "status") return Status(service);
  if (command == "config") return Config(service);
  if (command == "delete") return DeleteService(service) ? 0 : Fail();
  if (command == "control" && number != nullptr)
    return Control(service, std::strtoul(number, nullptr, 10));
  std::printf("unknown command\n");
  return 2;
}

}  // namespace

int main(int count, char** words) {
  if (count < 3) {
    std::printf("usage: scm start|status|config|delete NAME, scm control NAME NUMBER\n");
    return 2;
  }
  const Service manager(OpenSCManagerA(nullptr, nullptr, SC_MANAGER_ALL_ACCESS));
  if (!manager) return Fail();
  const Service service(OpenServiceA(manager.get(), words[2], SERVICE_ALL_ACCESS));
  if (!service) return Fail();
  return Run(words[1], service.get(), count > 3 ? words[3] : nullptr);
}
