// The firmware's power commands. A command is only noted when it arrives; the action follows when
// the next DASH reply has gone out on the socket, so that the console gets its answer before the
// host goes away.
#pragma once

#include <atomic>
#include <cstdint>

namespace stewardry {

constexpr std::uint8_t kPowerNone = 0;
constexpr std::uint8_t kPowerShutdown = 1;
constexpr std::uint8_t kPowerReboot = 2;
constexpr std::uint8_t kPowerHibernate = 3;
constexpr std::uint8_t kPowerSleep = 4;

// The pending power option; one slot, a later command overwrites an earlier one. Written by the
// reader thread and, to clear it, by the delay threads; read by the reader thread. Relaxed: the
// byte stands for itself alone.
extern std::atomic<std::uint8_t> gPowerOption;

// Carries out option 1 to 4: takes the shutdown privilege, then asks the system. Not 0 when the
// system took the request; 0 after a logged failure. Any thread.
std::uint32_t ApplyPowerOption(std::uint32_t powerOption);

// Shuts the host down after five seconds' notice with a message, and forces no application closed.
// The result is ApplyPowerOption's. No flow of the service asks for it. Any thread.
std::uint32_t ShutDownWithNotice();

// Acts on the pending option once a reply has been handed to the socket: shutdown and reboot at
// once, hibernate and sleep two seconds later on a thread of their own. False if that thread could
// not be started; the option then stays pending. The reader thread.
bool ActOnPowerOption();

// Reboots at once, whatever is pending; the reader thread.
void RebootNonDash();

// Thread entries: wait two seconds, clear the pending option and act. Result 0.
std::uint32_t DelayHibernate(void* parameter);
std::uint32_t DelaySleep(void* parameter);

}  // namespace stewardry
