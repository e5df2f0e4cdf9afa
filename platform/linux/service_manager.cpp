// The service manager's stand-in. A manager listens on the lab's socket `scm` for lines: the
// service sends "SERVICE name", "POWERSETTING {guid}" and "STATUS" with the seven fields. The
// manager sends "CONTROL control eventType hexdata|-", which the service answers with "RESULT n".
// Installed services are files under the lab's services/, the event log is eventlog.txt.
#include "platform/service_manager.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cassert>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "platform/linux/lab/lab_folder.h"
#include "platform/linux/runtime/descriptor.h"
#include "platform/linux/runtime/gate.h"
#include "platform/linux/runtime/last_error.h"
#include "platform/thread.h"

namespace platform {

namespace {

// The dispatcher's connection to the manager.
struct Connection {
  // Written by the dispatching thread before it starts the service main.
  int descriptor = -1;
  int stopped = -1;  // an eventfd, readable once the service has reported SERVICE_STOPPED
  ServiceMainEntry entry = nullptr;

  std::mutex lock;  // guards the lines that are sent, and all below
  ControlHandler handler = nullptr;
  void* context = nullptr;
};

Connection& Manager() {
  static ProcessLifetime<Connection> connection;
  return *connection;
}

bool SendLine(Connection& manager, const std::string& line) {
  const std::string whole = line + "\n";
  std::lock_guard guard(manager.lock);
  return ::send(manager.descriptor, whole.data(), whole.size(), MSG_NOSIGNAL) ==
         static_cast<ssize_t>(whole.size());
}

std::vector<std::uint8_t> FromHex(std::string_view text) {
  auto digit = [](char c) {
    return c >= '0' && c <= '9' ? c - '0' : c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1;
  };
  std::vector<std::uint8_t> bytes;
  for (std::size_t i = 0; i + 1 < text.size(); i += 2) {
    if (digit(text[i]) < 0 || digit(text[i + 1]) < 0) return {};
    bytes.push_back(static_cast<std::uint8_t>(digit(text[i]) * 16 + digit(text[i + 1])));
  }
  return bytes;
}

// Ignores any other line: a person may type them.
void HandleLine(Connection& manager, const std::string& line) {
  unsigned control = 0, eventType = 0;
  char hex[512] = "";
  if (std::sscanf(line.c_str(), "CONTROL %u %u %511s", &control, &eventType, hex) < 2) return;
  ControlHandler handler;
  void* context;
  {
    std::lock_guard guard(manager.lock);
    handler = manager.handler;
    context = manager.context;
  }
  std::vector<std::uint8_t> data = FromHex(hex);
  data.resize(data.size() + 64);  // a handler that reads more than was sent finds zeroes
  const std::uint32_t result =
      handler != nullptr ? handler(control, eventType, data.data(), context) : 0;
  SendLine(manager, "RESULT " + std::to_string(result));
}

// Delivers controls until the service has stopped or the manager has closed the connection.
void Dispatch(Connection& manager) {
  std::string text;
  for (;;) {
    pollfd fds[2] = {{manager.descriptor, POLLIN, 0}, {manager.stopped, POLLIN, 0}};
    if (::poll(fds, 2, -1) < 0 && errno != EINTR) return;
    if (fds[0].revents != 0) {
      char part[512];
      const ssize_t n = ::recv(manager.descriptor, part, sizeof part, 0);
      if (n <= 0) return;
      text.append(part, static_cast<std::size_t>(n));
      for (std::size_t end; (end = text.find('\n')) != std::string::npos; text.erase(0, end + 1))
        HandleLine(manager, text.substr(0, end));
    }
    if (fds[1].revents != 0) return;
  }
}

std::uint32_t RunServiceMain(void* name) {
  char* arguments[] = {static_cast<char*>(name), nullptr};
  const ServiceMainEntry entry = Manager().entry;
  if (entry != nullptr) entry(1, arguments);
  return 0;
}

}  // namespace

bool StartServiceCtrlDispatcherA(const char* name, ServiceMainEntry entry) {
  if (gate::Fails("StartServiceCtrlDispatcherA", "%s", name)) return false;
  Connection& manager = Manager();
  manager.descriptor = ConnectLabSocket(LabPath("scm"));
  if (manager.descriptor < 0) return Fail(kErrorFailedServiceControllerConnect);
  manager.stopped = ::eventfd(0, EFD_CLOEXEC);
  manager.entry = entry;
  SendLine(manager, std::string("SERVICE ") + name);
  const Thread main = CreateThread(RunServiceMain, const_cast<char*>(name));
  if (!main) return false;
  Dispatch(manager);
  return true;
}

ServiceStatusHandle RegisterServiceCtrlHandlerExA(const char* name, ControlHandler handler,
                                                  void* context) {
  if (gate::Fails("RegisterServiceCtrlHandlerExA", "%s", name)) return nullptr;
  Connection& manager = Manager();
  std::lock_guard guard(manager.lock);
  manager.handler = handler;
  manager.context = context;
  return &manager;
}

bool SetServiceStatus(ServiceStatusHandle handle, const ServiceStatus& status) {
  char fields[120];
  std::snprintf(fields, sizeof fields, "%u %u %u %u %u %u %u", status.dwServiceType,
                status.dwCurrentState, status.dwControlsAccepted, status.dwWin32ExitCode,
                status.dwServiceSpecificExitCode, status.dwCheckPoint, status.dwWaitHint);
  if (gate::Fails("SetServiceStatus", "%s", fields)) return false;
  if (handle == nullptr) return Fail(kErrorInvalidHandle);
  Connection& manager = Manager();
  assert(handle == &manager);
  const bool sent = SendLine(manager, std::string("STATUS ") + fields);
  if (status.dwCurrentState != kServiceStopped) return sent;
  const std::uint64_t one = 1;
  [[maybe_unused]] ssize_t written = ::write(manager.stopped, &one, sizeof one);
  return sent;
}

bool RegisterPowerSettingNotification(ServiceStatusHandle handle, const Guid& g) {
  char text[64];
  std::snprintf(text, sizeof text, "{%08X-%04X-%04X-%02X%02X-%02X%02X%02X%02X%02X%02X}", g.data1,
                g.data2, g.data3, g.data4[0], g.data4[1], g.data4[2], g.data4[3], g.data4[4],
                g.data4[5], g.data4[6], g.data4[7]);
  if (gate::Fails("RegisterPowerSettingNotification", "%s", text)) return false;
  if (handle == nullptr) return Fail(kErrorInvalidHandle);
  return SendLine(Manager(), std::string("POWERSETTING ") + text);
}

void CloseServiceHandle(RawHandle raw) {
  gate::Note("CloseServiceHandle");
  if (raw != &Manager()) delete static_cast<std::string*>(raw);  // the name of a service
}

ServiceHandle OpenSCManagerA() {
  if (gate::Fails("OpenSCManagerA")) return ServiceHandle();
  return ServiceHandle(&Manager());  // only its address is used
}

ServiceHandle CreateServiceA(const ServiceHandle&, const ServiceRegistration& registration) {
  if (gate::Fails("CreateServiceA", "%s", registration.name)) return ServiceHandle();
  ::mkdir(LabPath("services").c_str(), 0755);
  const std::string path = LabPath("services/") + registration.name;
  const Descriptor file(::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644));
  if (!file && errno == EEXIST) return Fail(kErrorServiceExists, ServiceHandle());
  if (!file) return FailFromErrno(ServiceHandle());
  std::string dependencies;
  for (const char* at = registration.dependencies; *at != 0; at += std::strlen(at) + 1)
    dependencies += (dependencies.empty() ? "" : ",") + std::string(at);
  ::dprintf(file.Value(),
            "displayName=%s\ndesiredAccess=0x%X\nserviceType=%u\nstartType=%u\nerrorControl=%u\n"
            "binaryPath=%s\ndependencies=%s\n",
            registration.displayName, registration.desiredAccess, registration.serviceType,
            registration.startType, registration.errorControl, registration.binaryPath,
            dependencies.c_str());
  return ServiceHandle(new std::string(std::string("services/") + registration.name));
}

bool ChangeServiceDescription(const ServiceHandle& service, const char* description) {
  if (gate::Fails("ChangeServiceConfig2A", "%s", description)) return false;
  AppendLabLine(*static_cast<std::string*>(service.Raw()),
                std::string("description=") + description);
  return true;
}

void CloseEventSource(RawHandle raw) {
  gate::Note("DeregisterEventSource");
  delete static_cast<std::string*>(raw);
}

EventSource RegisterEventSourceA(const char* source) {
  if (gate::Fails("RegisterEventSourceA", "%s", source)) return EventSource();
  return EventSource(new std::string(source));
}

bool ReportEventA(const EventSource& source, std::uint16_t type, std::uint32_t eventId,
                  std::span<const char* const> strings) {
  char head[64];
  std::snprintf(head, sizeof head, " type=%u id=0x%X", type, eventId);
  std::string line = *static_cast<std::string*>(source.Raw()) + head;
  for (const char* text : strings) line += std::string(" [") + text + "]";
  if (gate::Fails("ReportEventA", "%s", line.c_str())) return false;
  AppendLabLine("eventlog.txt", line);
  return true;
}

}  // namespace platform
