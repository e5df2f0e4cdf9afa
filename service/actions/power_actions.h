// The firmware's power commands. A command is only noted when it arrives. The action follows the
// next DASH reply on the socket, so that the console gets its answer before the host shuts down.
#pragma once

#include <cstdint>

namespace stewardry {

constexpr std::uint8_t kPowerNone = 0;
constexpr std::uint8_t kPowerShutdown = 1;
constexpr std::uint8_t kPowerReboot = 2;
constexpr std::uint8_t kPowerHibernate = 3;
constexpr std::uint8_t kPowerSleep = 4;

// Enables the shutdown privilege and performs option 1 to 4. Returns non-zero if the system
// accepted the request, 0 after a logged failure. Any thread.
std::uint32_t ApplyPowerOption(std::uint32_t powerOption);

// Shuts the host down after five seconds' notice with a message, and closes no application by
// force. Returns as ApplyPowerOption does. No flow of the service calls it. Any thread.
std::uint32_t ShutDownWithNotice();

// Performs the pending option once a reply has been handed to the socket: shutdown and reboot at
// once, hibernate and sleep two seconds later on a thread of their own. Returns false if that
// thread could not be started; the option then stays pending. Reader thread only.
bool ActOnPowerOption();

// Reboots at once, whatever option is pending. Reader thread only.
void RebootNonDash();

// Thread entries: wait two seconds, clear the pending option and act. Return 0.
std::uint32_t DelayHibernate(void* parameter);
std::uint32_t DelaySleep(void* parameter);

}  // namespace stewardry
