// The host's network interfaces. WMI's adapters, the interface table, the adapter list and the
// adapter addresses all come from this list, so they agree.
//
// `adapters.txt` in the lab folder replaces the host's list: one interface a line, first its name,
// then words of these forms, in any order:
//   down wireless loopback dynamic mac=02:00:00:00:00:01 speed=1000000000 index=7
//   address=192.168.1.5/24 gateway=192.168.1.1 dns=192.168.1.1     (each as often as wanted)
// The index is the line's number if none is given. Other words are ignored.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace platform {

struct InterfaceAddress {
  std::uint32_t address;  // sin_addr form
  std::uint8_t prefixLength;
};

struct Interface {
  std::uint32_t index = 0;
  std::string name;
  bool up = true;
  bool loopback = false;
  bool wireless = false;
  bool dynamic = false;                       // an IPv4 address with a lease: DHCP
  std::uint32_t speed = 0;                    // bits per second, at most 2^32-1; 0 when unknown
  std::vector<std::uint8_t> hardwareAddress;  // empty for a loopback interface, as on Windows
  std::vector<InterfaceAddress> addresses;
  std::vector<std::uint32_t> gateways;    // sin_addr form
  std::vector<std::uint32_t> dnsServers;  // sin_addr form
};

// Returns the interfaces in the order of their indexes, loopback interfaces last. Windows lists
// them last too, and a search for any adapter that is up must not find one first. Any thread.
std::vector<Interface> ListInterfaces();

}  // namespace platform
