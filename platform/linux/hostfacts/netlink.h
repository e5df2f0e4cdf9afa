// The kernel's network interfaces, over rtnetlink. It reports those of the process's network
// namespace; /sys reports those of the namespace in which it was mounted.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace platform {

struct KernelLink {
  std::uint32_t index;
  std::string name;
  bool up;  // switched on and with a carrier
  bool loopback;
  std::vector<std::uint8_t> hardwareAddress;
};

struct KernelAddress {
  std::uint32_t index;    // of its interface
  std::uint32_t address;  // sin_addr form
  std::uint8_t prefixLength;
  bool permanent;  // false for an address with a lease
};

struct KernelGateway {
  std::uint32_t index;    // of its interface
  std::uint32_t address;  // sin_addr form
};

// Return the interfaces, their IPv4 addresses, and the gateways of the default routes of the main
// table, each in the kernel's order. Empty if the kernel can't be queried. Any thread.
std::vector<KernelLink> KernelLinks();
std::vector<KernelAddress> KernelAddresses();
std::vector<KernelGateway> KernelDefaultGateways();

}  // namespace platform
