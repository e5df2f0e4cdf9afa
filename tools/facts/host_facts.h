// What can be seen of the host and the service from outside. Each fact names its source or says why
// it could not be seen. No fact takes longer than two seconds: a probe that does not answer is
// abandoned and reported as such.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/survey.h"
#include "tools/logs/log_reader.h"

namespace stewardry::tools {

template <typename T>
struct Fact {
  std::optional<T> value;
  std::string source;       // "service manager", "socket table", "service log", ...
  std::string why;          // if there is no value
  std::uint32_t error = 0;  // the same as a Windows number, 0 if none fits
};

// A socket with its owner's name; the name is empty if it cannot be seen.
struct OwnedSocket : platform::SocketView {
  std::string processName;
};

struct HostFacts {
  std::int64_t now = 0;          // seconds since 1970-01-01 00:00 UTC
  std::int64_t localOffset = 0;  // local time minus UTC in seconds
  Fact<platform::ServiceView> service;
  Fact<std::vector<platform::ProcessView>>
      processes;                           // that run quillonsvc, also in the foreground
  Fact<std::uint32_t> deviceInterfaces;    // present interfaces of the mailbox device
  Fact<platform::ServiceView> driver;      // its driver; the lab has none
  Fact<std::vector<OwnedSocket>> sockets;  // on ports 664 and 22
  Fact<std::vector<platform::EventView>> events;
  Fact<std::vector<LogFileView>> logFiles;

  // Returns the process of the service: the managed one, else one in the foreground, else 0.
  std::uint32_t ServiceProcess() const;
};

inline constexpr std::uint16_t kDashPort = 664, kKvmPort = 22;  // service/gateway, service/kvm
inline constexpr char kDriverName[] = "Tavrin-MailBoxDrv";  // the name in service/host/install.cpp

// Asks for all of them, in parallel. Returns within two seconds.
HostFacts GatherHostFacts();

}  // namespace stewardry::tools
