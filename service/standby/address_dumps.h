// Writes the host's address data to the logs, for the analysis of a fault. No flow of the service
// calls these operations.
#pragma once

#include <cstdint>
#include <span>

namespace stewardry {

// Logs `value`, a mark of the caller's, and the first IPv4 address of the host's own name to the
// service log. A failing step ends it without a line. Requires Sock_Start. Any thread.
void LogHostAddress(std::uint32_t value);

// Logs the table of the host's IPv4 addresses to the service log. Returns 0, or 1 after a logged
// failure. Any thread.
std::uint32_t DumpIpAddrTable();

// Logs the wireless interfaces and their profiles to the WMI log, and collects the profiles' XML
// texts in `text`: the first one replaces its content, the others are appended. What does not fit
// is cut. Once there is a profile, the text is terminated. Returns 0, or 1 if a list or a profile
// could not be read. Any thread.
std::uint32_t CollectWlanProfiles(std::span<char16_t> text);

}  // namespace stewardry
