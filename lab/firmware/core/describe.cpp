#include "lab/firmware/core/describe.h"

#include <cinttypes>
#include <span>

#include "lab/firmware/core/text.h"

namespace orrin {
namespace {

struct Wording {
  std::uint32_t value;
  const char* words;
};

constexpr Wording kServiceStatus[] = {{1, "the service is up"}, {2, "the service is going down"}};
constexpr Wording kNetworkStatus[] = {
    {0, "no connection"}, {1, "connected over LAN"}, {2, "connected over WLAN"}};
constexpr Wording kUserPresenceWords[] = {{1, "a user is present"}, {2, "no user is present"}};
constexpr Wording kAddressOrigin[] = {{3, "static address"}, {4, "address from DHCP"}};
constexpr Wording kClosedPort[] = {{kDashPort, "the DASH connection has ended, port"},
                                   {kKvmPort, "the KVM connection has ended, port"}};

std::string InWords(std::span<const Wording> table, std::uint32_t value) {
  for (const Wording& row : table) {
    if (row.value == value) return Format("%s (%u)", row.words, value);
  }
  return Format("unknown value %u", value);
}

std::string EndMarkerRemark(std::uint16_t marker) {
  return marker == kEndMarker ? std::string() : Format(", end marker 0x%04x", marker);
}

std::string Quoted(const std::string& text) { return "\"" + text + "\""; }

}  // namespace

bool IsNoNetwork(const NetworkRecord& record) {
  Bytes bytes = BytesOf(record);
  bytes[offsetof(NetworkRecord, endMarker)] = 0;
  bytes[offsetof(NetworkRecord, endMarker) + 1] = 0;
  return bytes == Bytes(sizeof record);
}

std::string Describe(const OsRecord& record) {
  return Quoted(Utf8Field(record.caption)) + ", architecture " +
         Quoted(Utf8Field(record.architecture)) + ", version " + Quoted(Utf8Field(record.version)) +
         ", host " + Quoted(AsciiField(record.hostName)) + ", domain " +
         Quoted(AsciiField(record.domainName)) + Format(", type %u", record.osType) +
         ", service version " + Quoted(AsciiField(record.serviceVersion)) +
         EndMarkerRemark(record.endMarker);
}

std::string Describe(const NetworkRecord& record) {
  if (IsNoNetwork(record)) return "the host has no network yet" + EndMarkerRemark(record.endMarker);
  return Quoted(Utf8Field(record.name)) + Format(", %" PRIu64 " bit/s", record.speed) + ", MAC " +
         Utf8Field(record.macAddress) + ", device " + Quoted(Utf8Field(record.deviceId)) +
         Format(", status %u, ", record.statusInfo) + DescribeAddressOrigin(record.addressOrigin) +
         EndMarkerRemark(record.endMarker);
}

std::string Describe(const IpRecord& record) {
  const std::string host = "address " + DottedAddress(record.ipAddress) + ", mask " +
                           DottedAddress(record.subnetMask) + ", gateway " +
                           DottedAddress(record.gatewayAddress) + ", DNS " +
                           DottedAddress(record.dnsAddress) + ", MAC " +
                           HardwareAddress(record.macAddress) + EndMarkerRemark(record.endMarker);
  if (record.localPort == kReportPort) return "report: " + host + Format(", port %u", kReportPort);
  const char* kind = record.localPort == kDashPort  ? "a DASH connection"
                     : record.localPort == kKvmPort ? "a KVM connection"
                                                    : "a connection of unknown kind";
  return Format("announces %s to port %u from %s:%u; ", kind, record.localPort,
                DottedAddress(record.remoteAddress).c_str(), PortFromNetwork(record.remotePort)) +
         host;
}

std::string DescribeServiceStatus(std::uint32_t value) { return InWords(kServiceStatus, value); }
std::string DescribeNetworkStatus(std::uint32_t value) { return InWords(kNetworkStatus, value); }
std::string DescribeUserPresence(std::uint32_t value) { return InWords(kUserPresenceWords, value); }
std::string DescribeAddressOrigin(std::uint32_t value) { return InWords(kAddressOrigin, value); }
std::string DescribeClosedPort(std::uint16_t port) { return InWords(kClosedPort, port); }

}  // namespace orrin
