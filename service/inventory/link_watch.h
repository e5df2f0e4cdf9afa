// Watches the wireless network, so that the firmware learns the host's new address when a laptop
// moves, and answers whether the host is connected by WLAN. Wired links aren't watched.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>

#include "platform/wlan.h"

namespace stewardry {

// The trace of the changes: bare texts without line ends or times, which run together.
inline constexpr char kChangeLogPath[] =
    "C:\\ProgramData\\Corvane\\Stewardry\\tavrinwifichange.log";

// The client handle of the WLAN service, null until it is first needed; then it stays open for the
// process's life. Whoever needs it first opens it: those who come at once take turns, so that one
// handle is opened and none is lost. Stored with release and loaded with acquire, since what the
// platform keeps behind the handle was written by the thread that opened it.
extern std::atomic<platform::WlanHandle> gWlanHandle;

// Asks to be told of changes, once, at the end of start-up. 0, or 1 on a failure, which is logged;
// the service then runs without this watch.
std::uint32_t WlanRegisterWifiNotification();

// A change of the wireless network. A connection with a new address sends the IP record and the
// adapter record; anything else only leaves its trace. Called on a thread of the platform's, also
// while the service stops.
void WlanNotificationCallback(const platform::WlanNotification& data, void* context);

// 0 if a wireless interface is connected, 1 if none is or it can't be found out. Note the sense:
// zero means wireless. Any thread.
std::uint32_t WlanIsConnected();

// What the logs say of a wireless interface's state (WLAN_INTERFACE_STATE).
std::string WlanStateText(std::uint32_t state);

// Works out the connection word (none, LAN or WLAN) and sends it to the firmware; sends nothing if
// the host has no connection at all. Any thread.
void SendSystemBooted();

}  // namespace stewardry
