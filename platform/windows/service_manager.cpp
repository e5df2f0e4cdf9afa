// Windows calls ServiceMain and HandleControl, entries of its own types, which call those of the
// one service of the process.
#include "platform/service_manager.h"

#include <atomic>
#include <bit>
#include <cassert>

#include "platform/windows/runtime/guid_cast.h"
#include "platform/windows/runtime/windows_api.h"

namespace platform {

static_assert(sizeof(ServiceStatus) == sizeof(SERVICE_STATUS) &&
              offsetof(ServiceStatus, dwServiceType) == offsetof(SERVICE_STATUS, dwServiceType) &&
              offsetof(ServiceStatus, dwCurrentState) == offsetof(SERVICE_STATUS, dwCurrentState) &&
              offsetof(ServiceStatus, dwControlsAccepted) ==
                  offsetof(SERVICE_STATUS, dwControlsAccepted) &&
              offsetof(ServiceStatus, dwWin32ExitCode) ==
                  offsetof(SERVICE_STATUS, dwWin32ExitCode) &&
              offsetof(ServiceStatus, dwServiceSpecificExitCode) ==
                  offsetof(SERVICE_STATUS, dwServiceSpecificExitCode) &&
              offsetof(ServiceStatus, dwCheckPoint) == offsetof(SERVICE_STATUS, dwCheckPoint) &&
              offsetof(ServiceStatus, dwWaitHint) == offsetof(SERVICE_STATUS, dwWaitHint));

static_assert(kServiceWin32OwnProcessType == SERVICE_WIN32_OWN_PROCESS &&
              kServiceStopped == SERVICE_STOPPED && kServiceStartPending == SERVICE_START_PENDING &&
              kServiceStopPending == SERVICE_STOP_PENDING && kServiceRunning == SERVICE_RUNNING &&
              kServiceAcceptStop == SERVICE_ACCEPT_STOP &&
              kServiceAcceptPreshutdown == SERVICE_ACCEPT_PRESHUTDOWN);
static_assert(kServiceAllAccess == SERVICE_ALL_ACCESS && kServiceAutoStart == SERVICE_AUTO_START &&
              kServiceErrorNormal == SERVICE_ERROR_NORMAL);
static_assert(kControlStop == SERVICE_CONTROL_STOP &&
              kControlInterrogate == SERVICE_CONTROL_INTERROGATE &&
              kControlPowerEvent == SERVICE_CONTROL_POWEREVENT &&
              kControlSessionChange == SERVICE_CONTROL_SESSIONCHANGE &&
              kControlPreshutdown == SERVICE_CONTROL_PRESHUTDOWN);
static_assert(kSessionLogon == WTS_SESSION_LOGON && kSessionLogoff == WTS_SESSION_LOGOFF &&
              kSessionLock == WTS_SESSION_LOCK && kSessionUnlock == WTS_SESSION_UNLOCK);
static_assert(sizeof(PowerBroadcastSetting) == sizeof(POWERBROADCAST_SETTING) &&
              offsetof(PowerBroadcastSetting, dataLength) ==
                  offsetof(POWERBROADCAST_SETTING, DataLength) &&
              offsetof(PowerBroadcastSetting, data) == offsetof(POWERBROADCAST_SETTING, Data));
static_assert(kEventError == EVENTLOG_ERROR_TYPE && kEventWarning == EVENTLOG_WARNING_TYPE &&
              kEventInformation == EVENTLOG_INFORMATION_TYPE);

namespace {

// Written before the registration of the entry that reads them, read on a thread of Windows.
// Release and acquire, because Windows documents no order between the two.
std::atomic<ServiceMainEntry> gServiceMain{nullptr};
std::atomic<ControlHandler> gControlHandler{nullptr};

void WINAPI ServiceMain(DWORD argc, char** argv) {
  gServiceMain.load(std::memory_order_acquire)(argc, argv);
}

DWORD WINAPI HandleControl(DWORD control, DWORD eventType, void* eventData, void* context) {
  return gControlHandler.load(std::memory_order_acquire)(control, eventType, eventData, context);
}

SERVICE_STATUS_HANDLE StatusHandle(ServiceStatusHandle handle) {
  return static_cast<SERVICE_STATUS_HANDLE>(handle);
}

SC_HANDLE ScHandle(const ServiceHandle& handle) { return static_cast<SC_HANDLE>(handle.Raw()); }

}  // namespace

bool StartServiceCtrlDispatcherA(const char* name, ServiceMainEntry entry) {
  assert(entry != nullptr);
  gServiceMain.store(entry, std::memory_order_release);
  const SERVICE_TABLE_ENTRYA table[] = {{const_cast<char*>(name), ServiceMain}, {nullptr, nullptr}};
  return ::StartServiceCtrlDispatcherA(table) != FALSE;
}

ServiceStatusHandle RegisterServiceCtrlHandlerExA(const char* name, ControlHandler handler,
                                                  void* context) {
  assert(handler != nullptr);
  gControlHandler.store(handler, std::memory_order_release);
  return ::RegisterServiceCtrlHandlerExA(name, HandleControl, context);
}

bool SetServiceStatus(ServiceStatusHandle handle, const ServiceStatus& status) {
  auto mirrored = std::bit_cast<SERVICE_STATUS>(status);
  return ::SetServiceStatus(StatusHandle(handle), &mirrored) != FALSE;
}

bool RegisterPowerSettingNotification(ServiceStatusHandle handle, const Guid& setting) {
  const GUID guid = WindowsGuid(setting);
  return ::RegisterPowerSettingNotification(handle, &guid, DEVICE_NOTIFY_SERVICE_HANDLE) != nullptr;
}

void CloseServiceHandle(RawHandle raw) { ::CloseServiceHandle(static_cast<SC_HANDLE>(raw)); }

ServiceHandle OpenSCManagerA() {
  return ServiceHandle(::OpenSCManagerA(nullptr, nullptr, SC_MANAGER_ALL_ACCESS));
}

ServiceHandle CreateServiceA(const ServiceHandle& manager,
                             const ServiceRegistration& registration) {
  return ServiceHandle(::CreateServiceA(
      ScHandle(manager), registration.name, registration.displayName, registration.desiredAccess,
      registration.serviceType, registration.startType, registration.errorControl,
      registration.binaryPath, nullptr, nullptr, registration.dependencies, nullptr, nullptr));
}

bool ChangeServiceDescription(const ServiceHandle& service, const char* description) {
  SERVICE_DESCRIPTIONA record{const_cast<char*>(description)};
  return ::ChangeServiceConfig2A(ScHandle(service), SERVICE_CONFIG_DESCRIPTION, &record) != FALSE;
}

void CloseEventSource(RawHandle raw) { ::DeregisterEventSource(raw); }

EventSource RegisterEventSourceA(const char* source) {
  return EventSource(::RegisterEventSourceA(nullptr, source));
}

bool ReportEventA(const EventSource& source, std::uint16_t type, std::uint32_t eventId,
                  std::span<const char* const> strings) {
  return ::ReportEventA(source.Raw(), type, 0, eventId, nullptr, static_cast<WORD>(strings.size()),
                        0, const_cast<const char**>(strings.data()), nullptr) != FALSE;
}

}  // namespace platform
