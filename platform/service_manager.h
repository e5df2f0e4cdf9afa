// The service manager and the event log.
#pragma once

#include <cstdint>
#include <span>

#include "platform/guid.h"
#include "platform/handle.h"

namespace platform {

// SERVICE_STATUS: seven 32-bit fields.
struct ServiceStatus {
  std::uint32_t dwServiceType;
  std::uint32_t dwCurrentState;
  std::uint32_t dwControlsAccepted;
  std::uint32_t dwWin32ExitCode;
  std::uint32_t dwServiceSpecificExitCode;
  std::uint32_t dwCheckPoint;
  std::uint32_t dwWaitHint;
};
static_assert(sizeof(ServiceStatus) == 28);

using ServiceMainEntry = void (*)(std::uint32_t argc, char** argv);
// LPHANDLER_FUNCTION_EX.
using ControlHandler = std::uint32_t (*)(std::uint32_t control, std::uint32_t eventType,
                                         void* eventData, void* context);

// StartServiceCtrlDispatcherA with a table of one entry: runs the service main on a thread of its
// own and the control handler on the calling thread; returns true when the service has stopped.
// False with kErrorFailedServiceControllerConnect when no service manager started this process.
bool StartServiceCtrlDispatcherA(const char* name, ServiceMainEntry entry);

// SERVICE_STATUS_HANDLE; null is none. Never closed.
using ServiceStatusHandle = RawHandle;
ServiceStatusHandle RegisterServiceCtrlHandlerExA(const char* name, ControlHandler handler,
                                                  void* context);
// False for a null handle. Any thread.
bool SetServiceStatus(ServiceStatusHandle handle, const ServiceStatus& status);
// RegisterPowerSettingNotification with DEVICE_NOTIFY_SERVICE_HANDLE; kept until the process ends.
bool RegisterPowerSettingNotification(ServiceStatusHandle handle, const Guid& setting);

void CloseServiceHandle(RawHandle raw);
using ServiceHandle = Owned<struct ServiceHandleTag, CloseServiceHandle>;

// OpenSCManagerA(null, null, SC_MANAGER_ALL_ACCESS).
ServiceHandle OpenSCManagerA();

// The arguments of CreateServiceA that this service gives.
struct ServiceRegistration {
  const char* name;
  const char* displayName;
  std::uint32_t desiredAccess;
  std::uint32_t serviceType;
  std::uint32_t startType;
  std::uint32_t errorControl;
  const char* binaryPath;
  const char* dependencies;  // double-zero-terminated list
};
ServiceHandle CreateServiceA(const ServiceHandle& manager, const ServiceRegistration& registration);

// ChangeServiceConfig2A with SERVICE_CONFIG_DESCRIPTION.
bool ChangeServiceDescription(const ServiceHandle& service, const char* description);

void CloseEventSource(RawHandle raw);  // DeregisterEventSource
using EventSource = Owned<struct EventSourceTag, CloseEventSource>;

// RegisterEventSourceA on the local machine.
EventSource RegisterEventSourceA(const char* source);
// ReportEventA with category 0, no user and no binary data.
bool ReportEventA(const EventSource& source, std::uint16_t type, std::uint32_t eventId,
                  std::span<const char* const> strings);

}  // namespace platform
