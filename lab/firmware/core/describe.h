// Records in words, for the trace. Everything here takes a record that already has its right size.
#pragma once

#include <string>

#include "lab/firmware/core/records.h"

namespace orrin {

// All bytes zero, or the end marker alone: what the host sends while it has no network.
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
