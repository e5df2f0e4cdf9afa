// The service manager and the event log.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "platform/guid.h"
#include "platform/handle.h"

namespace platform {

constexpr std::uint32_t kServiceWin32OwnProcessType = 0x10;  // SERVICE_WIN32_OWN_PROCESS

constexpr std::uint32_t kServiceStopped = 1;       // SERVICE_STOPPED
constexpr std::uint32_t kServiceStartPending = 2;  // SERVICE_START_PENDING
constexpr std::uint32_t kServiceStopPending = 3;   // SERVICE_STOP_PENDING
constexpr std::uint32_t kServiceRunning = 4;       // SERVICE_RUNNING

constexpr std::uint32_t kServiceAcceptStop = 0x1;           // SERVICE_ACCEPT_STOP
constexpr std::uint32_t kServiceAcceptPreshutdown = 0x100;  // SERVICE_ACCEPT_PRESHUTDOWN

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

// The controls that a handler receives.
constexpr std::uint32_t kControlStop = 1;            // SERVICE_CONTROL_STOP
constexpr std::uint32_t kControlInterrogate = 4;     // SERVICE_CONTROL_INTERROGATE
constexpr std::uint32_t kControlPowerEvent = 13;     // SERVICE_CONTROL_POWEREVENT
constexpr std::uint32_t kControlSessionChange = 14;  // SERVICE_CONTROL_SESSIONCHANGE
constexpr std::uint32_t kControlPreshutdown = 15;    // SERVICE_CONTROL_PRESHUTDOWN

// The event types of kControlSessionChange.
constexpr std::uint32_t kSessionLogon = 5;   // WTS_SESSION_LOGON
constexpr std::uint32_t kSessionLogoff = 6;  // WTS_SESSION_LOGOFF
constexpr std::uint32_t kSessionLock = 7;    // WTS_SESSION_LOCK
constexpr std::uint32_t kSessionUnlock = 8;  // WTS_SESSION_UNLOCK

// POWERBROADCAST_SETTING, the event data of kControlPowerEvent.
struct PowerBroadcastSetting {
  Guid powerSetting;
  std::uint32_t dataLength;
  std::uint8_t data[4];  // dataLength bytes follow; Windows declares one
};
static_assert(sizeof(PowerBroadcastSetting) == 24 && offsetof(PowerBroadcastSetting, data) == 20);

// Power settings: GUID_ACDC_POWER_SOURCE, GUID_BATTERY_PERCENTAGE_REMAINING and
// GUID_GLOBAL_USER_PRESENCE.
inline constexpr Guid kGuidAcdcPowerSource = {
    0x5D3E9A59, 0xE9D5, 0x4B00, {0xA6, 0xBD, 0xFF, 0x34, 0xFF, 0x51, 0x65, 0x48}};
inline constexpr Guid kGuidBatteryPercentageRemaining = {
    0xA7AD8041, 0xB45A, 0x4CAE, {0x87, 0xA3, 0xEE, 0xCB, 0xB4, 0x68, 0xA9, 0xE1}};
inline constexpr Guid kGuidGlobalUserPresence = {
    0x786E8A1D, 0xB427, 0x4344, {0x92, 0x07, 0x09, 0xE7, 0x0B, 0xDC, 0xBE, 0xA9}};

using ServiceMainEntry = void (*)(std::uint32_t argc, char** argv);
// LPHANDLER_FUNCTION_EX.
using ControlHandler = std::uint32_t (*)(std::uint32_t control, std::uint32_t eventType,
                                         void* eventData, void* context);

// Runs the service main on a thread of its own and the control handler on the calling thread.
// Blocks until the service has stopped. Returns false with kErrorFailedServiceControllerConnect if
// no service manager started this process.
bool StartServiceCtrlDispatcherA(const char* name, ServiceMainEntry entry);

// SERVICE_STATUS_HANDLE; never closed.
using ServiceStatusHandle = RawHandle;
// Registers the control handler. Returns null on failure.
ServiceStatusHandle RegisterServiceCtrlHandlerExA(const char* name, ControlHandler handler,
                                                  void* context);
// Reports a status. Returns false for a null handle.
bool SetServiceStatus(ServiceStatusHandle handle, const ServiceStatus& status);
// Registers the service for a power setting until the process exits.
bool RegisterPowerSettingNotification(ServiceStatusHandle handle, const Guid& setting);

void CloseServiceHandle(RawHandle raw);
using ServiceHandle = Owned<struct ServiceHandleTag, CloseServiceHandle>;

// Opens the local service manager with all access.
ServiceHandle OpenSCManagerA();

constexpr std::uint32_t kServiceAllAccess = 0xF01FF;  // SERVICE_ALL_ACCESS
constexpr std::uint32_t kServiceAutoStart = 2;        // SERVICE_AUTO_START
constexpr std::uint32_t kServiceErrorNormal = 1;      // SERVICE_ERROR_NORMAL

// The arguments of CreateServiceA that are set.
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
// Registers a service. Fails with kErrorServiceExists if it is registered.
ServiceHandle CreateServiceA(const ServiceHandle& manager, const ServiceRegistration& registration);

// Sets the description of a service.
bool ChangeServiceDescription(const ServiceHandle& service, const char* description);

void CloseEventSource(RawHandle raw);  // DeregisterEventSource
using EventSource = Owned<struct EventSourceTag, CloseEventSource>;

constexpr std::uint16_t kEventError = 1;        // EVENTLOG_ERROR_TYPE
constexpr std::uint16_t kEventWarning = 2;      // EVENTLOG_WARNING_TYPE
constexpr std::uint16_t kEventInformation = 4;  // EVENTLOG_INFORMATION_TYPE

// Opens an event source on the local machine.
EventSource RegisterEventSourceA(const char* source);
// Writes an entry of category 0 without user and binary data; `type` is one of the three above.
bool ReportEventA(const EventSource& source, std::uint16_t type, std::uint32_t eventId,
                  std::span<const char* const> strings);

}  // namespace platform
