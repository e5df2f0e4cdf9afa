// The kernel's interfaces, completed from /sys and resolv.conf, or those of the lab.
#include "platform/linux/hostfacts/interfaces.h"

#include <arpa/inet.h>
#include <netinet/in.h>

#include <algorithm>
#include <charconv>
#include <filesystem>
#include <fstream>
#include <limits>
#include <optional>
#include <sstream>
#include <string_view>

#include "platform/linux/hostfacts/netlink.h"
#include "platform/linux/lab/lab_folder.h"

namespace platform {

namespace {

constexpr std::uint64_t kBitsPerMegabit = 1000000;
constexpr std::size_t kMostHardwareBytes = 8;  // of the contract's physical addresses

template <class Number>
std::optional<Number> ParseNumber(std::string_view text, int base = 10) {
  Number number{};
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number, base);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return number;
}

std::optional<std::uint32_t> ParseAddress(const std::string& text) {
  in_addr address;
  if (::inet_pton(AF_INET, text.c_str(), &address) != 1) return std::nullopt;
  return address.s_addr;
}

std::string SysfsText(const std::string& interface, const char* fact) {
  std::ifstream file("/sys/class/net/" + interface + "/" + fact);
  std::string text;
  std::getline(file, text);
  return text;
}

// Returns whether /sys describes the same interface: one of another network namespace may have one
// of the same name, but then the indexes differ.
bool SysfsDescribes(const KernelLink& link) {
  return SysfsText(link.name, "ifindex") == std::to_string(link.index);
}

bool IsWireless(const std::string& interface) {
  std::error_code ignored;
  const std::filesystem::path folder = "/sys/class/net/" + interface;
  return std::filesystem::exists(folder / "wireless", ignored) ||
         std::filesystem::exists(folder / "phy80211", ignored);
}

// The text is "-1" or missing if the driver knows no speed.
std::uint32_t SpeedOf(const std::string& interface) {
  const auto megabits = ParseNumber<std::uint32_t>(SysfsText(interface, "speed"));
  if (!megabits || *megabits == std::numeric_limits<std::uint32_t>::max()) return 0;
  return static_cast<std::uint32_t>(
      std::min<std::uint64_t>(*megabits * kBitsPerMegabit, 0xFFFFFFFF));
}

std::vector<std::uint32_t> ConfiguredDnsServers() {
  std::vector<std::uint32_t> servers;
  std::ifstream file("/etc/resolv.conf");
  for (std::string line; std::getline(file, line);) {
    std::istringstream words(line);
    std::string key, value;
    if (!(words >> key >> value) || key != "nameserver") continue;
    if (const auto address = ParseAddress(value)) servers.push_back(*address);
  }
  return servers;
}

Interface FromLink(const KernelLink& link) {
  Interface found;
  found.index = link.index;
  found.name = link.name;
  found.up = link.up;
  found.loopback = link.loopback;
  if (!link.loopback && link.hardwareAddress.size() <= kMostHardwareBytes)
    found.hardwareAddress = link.hardwareAddress;
  if (!SysfsDescribes(link)) return found;
  found.wireless = IsWireless(link.name);
  found.speed = SpeedOf(link.name);
  return found;
}

void AddAddresses(std::vector<Interface>* interfaces) {
  const std::vector<KernelAddress> addresses = KernelAddresses();
  const std::vector<KernelGateway> gateways = KernelDefaultGateways();
  const std::vector<std::uint32_t> servers = ConfiguredDnsServers();
  for (Interface& interface : *interfaces) {
    for (const KernelAddress& address : addresses) {
      if (address.index != interface.index) continue;
      interface.addresses.push_back({address.address, address.prefixLength});
      interface.dynamic = interface.dynamic || !address.permanent;
    }
    for (const KernelGateway& gateway : gateways)
      if (gateway.index == interface.index) interface.gateways.push_back(gateway.address);
    // This host has one list of DNS servers for all its adapters.
    if (!interface.loopback) interface.dnsServers = servers;
  }
}

std::vector<Interface> RealInterfaces() {
  std::vector<Interface> interfaces;
  for (const KernelLink& link : KernelLinks()) interfaces.push_back(FromLink(link));
  AddAddresses(&interfaces);
  return interfaces;
}

void ReadHardwareAddress(const std::string& value, Interface* interface) {
  std::istringstream parts(value);
  for (std::string part; std::getline(parts, part, ':');)
    if (const auto byte = ParseNumber<std::uint8_t>(part, 16))
      if (interface->hardwareAddress.size() < kMostHardwareBytes)
        interface->hardwareAddress.push_back(*byte);
}

void ReadInterfaceAddress(const std::string& value, Interface* interface) {
  const std::size_t slash = std::min(value.find('/'), value.size());
  const auto address = ParseAddress(value.substr(0, slash));
  if (!address) return;
  const auto length =
      ParseNumber<std::uint8_t>(std::string_view(value).substr(std::min(slash + 1, value.size())));
  interface->addresses.push_back({*address, length.value_or(0)});
}

void AddAddress(const std::string& value, std::vector<std::uint32_t>* addresses) {
  if (const auto address = ParseAddress(value)) addresses->push_back(*address);
}

using Text = const std::string&;
struct WordRow {
  std::string_view word;
  void (*read)(const std::string& value, Interface* interface);
};
constexpr WordRow kWords[] = {
    {"down", [](Text, Interface* i) { i->up = false; }},
    {"wireless", [](Text, Interface* i) { i->wireless = true; }},
    {"loopback", [](Text, Interface* i) { i->loopback = true; }},
    {"dynamic", [](Text, Interface* i) { i->dynamic = true; }},
    {"index",
     [](Text v, Interface* i) { i->index = ParseNumber<std::uint32_t>(v).value_or(i->index); }},
    {"speed", [](Text v, Interface* i) { i->speed = ParseNumber<std::uint32_t>(v).value_or(0); }},
    {"mac", ReadHardwareAddress},
    {"address", ReadInterfaceAddress},
    {"gateway", [](Text v, Interface* i) { AddAddress(v, &i->gateways); }},
    {"dns", [](Text v, Interface* i) { AddAddress(v, &i->dnsServers); }},
};

Interface ReadInterfaceLine(const std::string& line) {
  Interface interface;
  std::istringstream words(line);
  words >> interface.name;
  for (std::string word; words >> word;) {
    const std::size_t equals = std::min(word.find('='), word.size());
    for (const WordRow& row : kWords)
      if (row.word == word.substr(0, equals))
        row.read(word.substr(std::min(equals + 1, word.size())), &interface);
  }
  return interface;
}

std::vector<Interface> ReadLabInterfaces(std::istream& file) {
  std::vector<Interface> interfaces;
  std::uint32_t number = 0;
  for (std::string line; std::getline(file, line);) {
    ++number;
    Interface interface = ReadInterfaceLine(line);
    if (interface.name.empty()) continue;
    if (interface.index == 0) interface.index = number;
    interfaces.push_back(std::move(interface));
  }
  return interfaces;
}

}  // namespace

std::vector<Interface> ListInterfaces() {
  std::ifstream lab(LabPath("adapters.txt"));
  std::vector<Interface> interfaces = lab ? ReadLabInterfaces(lab) : RealInterfaces();
  std::stable_sort(interfaces.begin(), interfaces.end(),
                   [](const Interface& a, const Interface& b) {
                     if (a.loopback != b.loopback) return b.loopback;
                     return a.index < b.index;
                   });
  return interfaces;
}

}  // namespace platform
