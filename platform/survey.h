// Read-only questions about the host, for the tool that administrators run: the service manager,
// TCP sockets and their owners, processes, event entries, and the service's registration.
// The service does not use them. Nothing here changes the host. Every call may block for as long as
// the system's service that answers it; callers run it on a thread that they can abandon.
//
// Each call returns true, or false with the last error set (kErrorAccessDenied without the rights).
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace platform {

constexpr std::uint32_t kErrorServiceDoesNotExist = 1060;  // ERROR_SERVICE_DOES_NOT_EXIST

// What the service manager says of a service.
struct ServiceView {
  std::uint32_t state = 0;      // kServiceRunning and its like in platform/service_manager.h
  std::uint32_t processId = 0;  // 0 if no process runs
  std::uint32_t exitCode = 0;   // of the last run
  std::string binaryPath;       // the registered command line
};
// Fails with kErrorServiceDoesNotExist if it is not registered. In the lab a service whose manager
// does not run is stopped.
bool ViewService(const char* name, ServiceView* view);

// One name and its value as text: numbers in decimal, lists separated by commas, bytes in hex.
struct NamedText {
  std::string name, text;
};
// Stores everything that is registered of a service (its registry key, with the keys below it as
// "key\name"; in the lab the file below services/).
bool ViewServiceRegistration(const char* name, std::vector<NamedText>* values);

// One TCP socket over IPv4 whose local port was asked for.
struct SocketView {
  bool isListening = false;
  std::uint32_t localAddress = 0;  // the first octet is the lowest byte
  std::uint16_t localPort = 0;
  std::uint32_t remoteAddress = 0;
  std::uint16_t remotePort = 0;
  std::uint32_t processId = 0;  // 0 if the owner cannot be seen
};
bool ViewSockets(const std::vector<std::uint16_t>& localPorts, std::vector<SocketView>* sockets);

// One process. `started` is in seconds since 1970-01-01 00:00 UTC.
struct ProcessView {
  std::uint32_t processId = 0;
  std::string name;  // of the executable, without its folder
  std::int64_t started = 0;
};
bool ViewProcess(std::uint32_t processId, ProcessView* view);
// Stores the processes whose executable has this name, in any case of letters, without extension;
// in the lab those of this lab.
bool FindProcesses(const char* name, std::vector<ProcessView>* processes);

// One entry of the event log. `time` is in seconds since 1970-01-01 00:00 UTC, 0 if unknown.
struct EventView {
  std::int64_t time = 0;
  std::uint16_t type = 0;  // kEventError and its like
  std::uint32_t id = 0;
  std::vector<std::string> strings;
};
// Stores the newest `most` entries of a source, the newest first.
bool ViewEvents(const char* source, std::size_t most, std::vector<EventView>* events);

}  // namespace platform
