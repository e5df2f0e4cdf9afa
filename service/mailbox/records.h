// The records that cross the mailbox: little-endian, without gaps, transferred whole. The firmware
// reads them by offset, so a field never moves; each offset is asserted below. The members are
// ordered so that each has its natural alignment without padding and without a packing pragma.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <type_traits>

namespace stewardry {

// The end marker of a record with content. The record of a host without a network has 0 there.
constexpr std::uint16_t kEndMarker = 0xFFFF;

// The operating system, 804 bytes. A text that fills its field has no terminator; the rest of a
// field is zero.
struct OperationSysSInfo {
  char16_t Caption[64];         // Win32_OperatingSystem.Caption
  char16_t OSArchitecture[64];  // Win32_OperatingSystem.OSArchitecture
  char16_t Version[64];         // Win32_OperatingSystem.Version
  char hostName[256];           // gethostname
  char domainName[128];         // DNS domain; empty without one, "N/A" if the query failed
  std::uint16_t OSType;         // Win32_OperatingSystem.OSType, its low 16 bits
  std::uint16_t endMarker;
  char tavrinVersion[32];  // kServiceVersion
};
static_assert(sizeof(OperationSysSInfo) == 804);
static_assert(offsetof(OperationSysSInfo, Caption) == 0);
static_assert(offsetof(OperationSysSInfo, OSArchitecture) == 128);
static_assert(offsetof(OperationSysSInfo, Version) == 256);
static_assert(offsetof(OperationSysSInfo, hostName) == 384);
static_assert(offsetof(OperationSysSInfo, domainName) == 640);
static_assert(offsetof(OperationSysSInfo, OSType) == 768);
static_assert(offsetof(OperationSysSInfo, endMarker) == 770);
static_assert(offsetof(OperationSysSInfo, tavrinVersion) == 772);

// The values of NetworkInfo::addressOrigin.
constexpr std::uint32_t kAddressOriginStatic = 3;
constexpr std::uint32_t kAddressOriginDhcp = 4;

// The adapter that carries the host's connection, 384 bytes. All zero, end marker included, means
// that the host has no network yet.
struct NetworkInfo {
  char16_t Name[96];           // cut at 192 bytes
  std::uint64_t Speed;         // bits per second
  char16_t MACAddress[20];     // "AA:BB:CC:DD:EE:FF"
  std::uint8_t reserved[8];    // zero
  char16_t DeviceID[24];       // Win32_NetworkAdapter.DeviceID
  std::uint8_t reserved2[80];  // zero
  std::uint16_t StatusInfo;    // Win32_NetworkAdapter.StatusInfo, its low 16 bits
  std::uint16_t endMarker;
  std::uint32_t addressOrigin;  // kAddressOriginDhcp or kAddressOriginStatic
};
static_assert(sizeof(NetworkInfo) == 384);
static_assert(offsetof(NetworkInfo, Name) == 0);
static_assert(offsetof(NetworkInfo, Speed) == 192);
static_assert(offsetof(NetworkInfo, MACAddress) == 200);
static_assert(offsetof(NetworkInfo, reserved) == 240);
static_assert(offsetof(NetworkInfo, DeviceID) == 248);
static_assert(offsetof(NetworkInfo, reserved2) == 296);
static_assert(offsetof(NetworkInfo, StatusInfo) == 376);
static_assert(offsetof(NetworkInfo, endMarker) == 378);
static_assert(offsetof(NetworkInfo, addressOrigin) == 380);

// The host's IPv4 configuration, or the announcement of a connection, 36 bytes. Addresses have
// sin_addr form: four bytes in network order.
struct IPInfo {
  std::uint32_t ipAddress;
  std::uint32_t localPort;       // 623 in a report; 664 or 22 in an announcement
  std::uint32_t gatewayAddress;  // first gateway, or 0
  std::uint32_t dnsAddress;      // first DNS server, or 0
  std::uint32_t subnetMask;
  std::uint32_t remoteAddress;  // the peer; 0 in a report
  std::uint32_t remotePort;     // the peer's sin_port (network order), zero-extended; 0 in a report
  std::uint8_t macAddress[6];
  std::uint16_t endMarker;
};
static_assert(sizeof(IPInfo) == 36);
static_assert(offsetof(IPInfo, ipAddress) == 0);
static_assert(offsetof(IPInfo, localPort) == 4);
static_assert(offsetof(IPInfo, gatewayAddress) == 8);
static_assert(offsetof(IPInfo, dnsAddress) == 12);
static_assert(offsetof(IPInfo, subnetMask) == 16);
static_assert(offsetof(IPInfo, remoteAddress) == 20);
static_assert(offsetof(IPInfo, remotePort) == 24);
static_assert(offsetof(IPInfo, macAddress) == 28);
static_assert(offsetof(IPInfo, endMarker) == 34);

// The firmware's answer to GetTavrinVersion, 80 bytes.
struct TavrinVersionInfo {
  char version[64];               // zero-terminated
  std::uint32_t provisionStatus;  // kProvisioned: DASH provisioning is complete
  std::uint32_t uECAbsent;
  std::uint32_t dummy;
  std::uint32_t KVMStatus;  // 1200: the WLAN firmware authentication failed
};
static_assert(sizeof(TavrinVersionInfo) == 80);
static_assert(offsetof(TavrinVersionInfo, provisionStatus) == 64);
static_assert(offsetof(TavrinVersionInfo, uECAbsent) == 68);
static_assert(offsetof(TavrinVersionInfo, dummy) == 72);
static_assert(offsetof(TavrinVersionInfo, KVMStatus) == 76);

constexpr std::uint32_t kProvisioned = 2;

// The content of WriteSensorInfo, 32 bytes.
struct SensorInfo {
  std::uint8_t bytes[32];
};

// The scratch area of one report, zeroed as a whole. Its records are sent one by one.
struct NetworkOsInformation {
  NetworkInfo network;
  OperationSysSInfo operatingSystem;
  std::uint8_t tail[4];
};
static_assert(sizeof(NetworkOsInformation) == 384 + 804 + 4);
static_assert(offsetof(NetworkOsInformation, operatingSystem) == 384);

// Fills a text field from offset 0 with as much of `text` as it holds, and zeroes behind it. A text
// as long as the field has no terminator.
template <class Char, std::size_t N>
void FillText(Char (&field)[N], std::type_identity_t<std::basic_string_view<Char>> text) {
  for (std::size_t i = 0; i < N; ++i) field[i] = i < text.size() ? text[i] : Char{};
}

// Returns the text of a field: up to its first zero, or all of it.
template <class Char, std::size_t N>
std::basic_string<Char> TextOf(const Char (&field)[N]) {
  return {field, std::find(field, field + N, Char{})};
}

}  // namespace stewardry
