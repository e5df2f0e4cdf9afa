// Writes the host's address data to the logs, for whoever looks into a fault. No flow of the
// service runs these operations.
#pragma once

#include <cstdint>
#include <span>

namespace stewardry {

// Logs `value`, the caller's mark, and the first IPv4 address of the host's own name, to the
// service log. A failing step ends it without a line. REQUIRES: WSAStartup. Any thread.
void LogHostAddress(std::uint32_t value);

// Logs the table of the host's IPv4 addresses to the service log. 0 on success, 1 on failure. Any
// thread.
std::uint32_t DumpIpAddrTable();

// Logs the wireless interfaces and their profiles to the WMI log, and collects the profiles' XML
// texts in `text`: the first one replaces what stands there, the others are appended. What doesn't
// fit is cut, and as soon as there is a profile, the text has its terminator. 0 on success, 1 when
// a list or a profile couldn't be had. Any thread.
std::uint32_t CollectWlanProfiles(std::span<char16_t> text);

}  // namespace stewardry
