#include "service/host/install.h"

#include <cstdio>
#include <cstring>

#include "platform/error.h"
#include "platform/process.h"
#include "platform/service_manager.h"
#include "service/diagnostics/format.h"
#include "service/host/event_entries.h"

namespace stewardry {

namespace {

constexpr char kDescription[] = "Corvane Stewardy Service";
constexpr char kDependencies[] = "Tcpip\0Tavrin-MailBoxDrv\0";  // the literal adds the second end

}  // namespace

void SvcInstall() {
  char szPath[platform::kMaxPath];
  if (platform::GetModuleFileNameA(szPath) == 0) {
    std::printf("Cannot install service (%u)\n", platform::LastError());
    return;
  }
  // The manager runs the registered text as a command line. Without quotes a blank in the path
  // would end the program's name, and C:\Program.exe might start instead.
  const char* quote = std::strchr(szPath, ' ') != nullptr ? "\"" : "";
  char command[sizeof szPath + 2];
  FormatTo(command, sizeof command, "%s%s%s", quote, static_cast<const char*>(szPath), quote);
  const platform::ServiceHandle manager = platform::OpenSCManagerA();
  if (!manager) {
    std::printf("OpenSCManager failed with error (%u)\n", platform::LastError());
    return;
  }
  std::printf("OpenSCManager successful\n");
  const platform::ServiceHandle service = platform::CreateServiceA(
      manager, {kServiceName, kServiceName, platform::kServiceAllAccess,
                platform::kServiceWin32OwnProcessType, platform::kServiceAutoStart,
                platform::kServiceErrorNormal, command, kDependencies});
  if (!service) {
    std::printf("CreateService failed with error (%u)\n", platform::LastError());
    return;
  }
  if (!platform::ChangeServiceDescription(service, kDescription))  // a fixed text
    std::printf("ChangeServiceConfig2 failed");
  std::printf("Service installed successfully\n");
}

}  // namespace stewardry
