// The service manager's commands that a test under Wine needs. Each prints the resulting status and
// exits with 0, or prints "error N" and exits with 1.
#include <windows.h>

#include <cstdio>
#include <cstdlib>
#include <iterator>
#include <memory>
#include <string>
#include <type_traits>

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

}  // namespace

int main(int count, char** words) {
  if (count < 3) {
    std::printf("usage: scm start|status NAME, scm control NAME NUMBER\n");
    return 2;
  }
  const std::string command = words[1];
  const Service manager(OpenSCManagerA(nullptr, nullptr, SC_MANAGER_ALL_ACCESS));
  if (!manager) return Fail();
  const Service service(OpenServiceA(manager.get(), words[2], SERVICE_ALL_ACCESS));
  if (!service) return Fail();
  SERVICE_STATUS status{};
  bool done = false;
  if (command == "control" && count > 3)
    done = ControlService(service.get(), std::strtoul(words[3], nullptr, 10), &status);
  else if (command != "start" || StartServiceA(service.get(), 0, nullptr))
    done = QueryServiceStatus(service.get(), &status);
  return done ? Print(status) : Fail();
}
