// What the kernel says of its network interfaces over rtnetlink. It answers for the network
// namespace that the process is in, which /sys doesn't: a /sys mounted elsewhere shows the
// interfaces of elsewhere.
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
  bool permanent;  // false: it has a lease and runs out
};

struct KernelGateway {
  std::uint32_t index;    // of its interface
  std::uint32_t address;  // sin_addr form
};

// The interfaces, their IPv4 addresses, and the gateways of the default routes of the main table,
// each in the kernel's order. Empty when the kernel can't be asked. Any thread.
std::vector<KernelLink> KernelLinks();
std::vector<KernelAddress> KernelAddresses();
std::vector<KernelGateway> KernelDefaultGateways();

}  // namespace platform
