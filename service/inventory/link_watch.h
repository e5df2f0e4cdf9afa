// The watch on the wireless network: it reports a new address to the firmware when a laptop moves,
// and answers whether the host is connected by WLAN. Wired links are not watched.
#pragma once

#include <cstdint>
#include <string>

#include "platform/wlan.h"
#include "service/diagnostics/log_file.h"

namespace stewardry {

// The trace of the changes: bare texts without line ends or times, which run together.
inline constexpr char kChangeLogPath[] = STEWARDRY_FIXED_LOG_FOLDER STEWARDRY_CHANGE_LOG_FILE;

// Requests WlanNotificationCallback for changes of the wireless network. Returns 0, or 1 after a
// logged failure; the service then runs without this watch. Called once, at the end of start-up.
std::uint32_t WlanRegisterWifiNotification();

// Handles a change of the wireless network. A connection with a new address sends the IP record and
// the adapter record; anything else is only written to the trace. Called on a thread of the
// platform's, also while the service stops.
void WlanNotificationCallback(const platform::WlanNotification& data, void* context);

// Returns whether a wireless interface is connected; false if that cannot be found out. Any thread.
bool IsOnWlan();

// IsOnWlan with the opposite sense: returns 0 if it is true, else 1.
std::uint32_t WlanIsConnected();

// Returns the log text of a wireless interface's state (WLAN_INTERFACE_STATE).
std::string WlanStateText(std::uint32_t state);

// Sends the connection word (none, LAN or WLAN) to the firmware; sends nothing if the platform
// reports no connection at all. Any thread.
void SendSystemBooted();

}  // namespace stewardry
