// Records in words, for the trace.
#pragma once

#include <string>

#include "lab/firmware/core/records.h"

namespace orrin {

// Returns true if all bytes are zero, the end marker aside: the host has no network.
bool IsNoNetwork(const NetworkRecord& record);

std::string Describe(const OsRecord& record);
std::string Describe(const NetworkRecord& record);
std::string Describe(const IpRecord& record);
// Values of WriteTavrinStatus, SendSystemBooted, UserPresence, and NetworkRecord::addressOrigin.
std::string DescribeServiceStatus(std::uint32_t value);
std::string DescribeNetworkStatus(std::uint32_t value);
std::string DescribeUserPresence(std::uint32_t value);
std::string DescribeAddressOrigin(std::uint32_t value);
// The port of SendCloseSocketcmd.
std::string DescribeClosedPort(std::uint16_t port);

}  // namespace orrin
