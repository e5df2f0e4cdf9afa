// The state of the operations that no flow of the service calls yet.
#pragma once

#include <atomic>
#include <cstdint>

#include "platform/desktop.h"
#include "platform/handle.h"

namespace stewardry {

struct StandbyState {
  // Address watch. Written by the thread that registers or unregisters it.

  // The notification handle, null without a watch. Release and acquire: the registering thread
  // wrote what the platform keeps behind it.
  std::atomic<platform::RawHandle> gIpChangeHandle{nullptr};

  // Address watch. Written by its callbacks, on threads of the platform's.

  // How many callbacks have entered since none was at work. The first one reports and sets it back
  // to 0 with release when it leaves; a later one finds more than 0 with acquire and only counts.
  std::atomic<std::uint32_t> gIpChangeEntry{0};
  // The address that was last reported, in sin_addr form. Relaxed: only the callback at work
  // accesses it, and gIpChangeEntry orders one after the other.
  std::atomic<std::uint32_t> gLastReportedAddress{0};

  // Battery report. Written by the control handler, read by the reporting thread. 3 means not
  // known. Relaxed: neither publishes anything else.

  std::atomic<std::uint32_t> gUserPresence{3};  // of the last power event
  std::atomic<std::uint32_t> gBatteryState{3};  // of the last power event

  // Battery report. Written and read by the reporting thread. Relaxed.

  std::atomic<std::uint32_t> gLastUserPresence{3};  // last reported
  std::atomic<std::uint32_t> gLastBatteryState{3};  // last reported

  // Firmware log. Written and read by the thread that requests and captures. Relaxed.

  // The ring's address in this process, 0 without a ring.
  std::atomic<std::uint64_t> gLogBufferAddress{0};
  // 1 once the capture file has been emptied in this process.
  std::atomic<std::uint8_t> gLogFileCreated{0};
  // 1 while the next capture starts from entry 0.
  std::atomic<std::uint32_t> gLogFirstCapture{1};

  // Input desktop. Written and read by the one thread that uses that family.

  // The result of GetVersionExA; 0 before ReadWindowsVersion.
  std::uint32_t gPlatformId = 0;
  std::uint32_t gMajorVersion = 0;
  std::uint32_t gMinorVersion = 0;
  // The process's window station before, and WinSta0; the thread's desktop before, and the input
  // desktop. The platform owns the old ones. This family owns the new ones and sets them to null
  // when it closes them.
  platform::WindowStationHandle gOldWindowStation = nullptr;
  platform::WindowStationHandle gNewWindowStation = nullptr;
  platform::DesktopHandle gOldDesktop = nullptr;
  platform::DesktopHandle gNewDesktop = nullptr;
};

extern platform::ProcessLifetime<StandbyState> gStandby;

}  // namespace stewardry
