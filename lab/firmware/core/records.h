// The records that cross the mailbox, from the firmware's side. Numbers are little-endian. The
// layouts have no gaps and never change: a field added or widened here breaks every host.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>

#include "lab/firmware/core/bytes.h"

namespace orrin {

static_assert(std::endian::native == std::endian::little, "records are little-endian");

// Ends OsRecord, NetworkRecord and IpRecord of a real report.
constexpr std::uint16_t kEndMarker = 0xFFFF;

// Answer to GetTavrinVersion.
struct VersionRecord {
  char version[64];               // zero-terminated
  std::uint32_t provisionStatus;  // 2 when DASH provisioning is complete
  std::uint32_t ecAbsent;
  std::uint32_t reserved;
  std::uint32_t kvmStatus;  // 1200: the WLAN firmware authentication failed
};
static_assert(sizeof(VersionRecord) == 80 && offsetof(VersionRecord, provisionStatus) == 64 &&
              offsetof(VersionRecord, ecAbsent) == 68 && offsetof(VersionRecord, reserved) == 72 &&
              offsetof(VersionRecord, kvmStatus) == 76);

// Input of WriteOsInfo. Texts need no terminator.
struct OsRecord {
  char16_t caption[64];
  char16_t architecture[64];
  char16_t version[64];
  char hostName[256];
  char domainName[128];
  std::uint16_t osType;
  std::uint16_t endMarker;
  char serviceVersion[32];
};
static_assert(sizeof(OsRecord) == 804 && offsetof(OsRecord, architecture) == 128 &&
              offsetof(OsRecord, version) == 256 && offsetof(OsRecord, hostName) == 384 &&
              offsetof(OsRecord, domainName) == 640 && offsetof(OsRecord, osType) == 768 &&
              offsetof(OsRecord, endMarker) == 770 && offsetof(OsRecord, serviceVersion) == 772);

// Input of WriteNwInfo. All zero: the host has no network yet.
struct NetworkRecord {
  char16_t name[96];
  std::uint64_t speed;  // bits per second
  char16_t macAddress[20];
  std::uint8_t reservedAfterMac[8];
  char16_t deviceId[24];
  std::uint8_t reservedAfterDevice[80];
  std::uint16_t statusInfo;
  std::uint16_t endMarker;
  std::uint32_t addressOrigin;  // 4 DHCP, 3 static
};
static_assert(sizeof(NetworkRecord) == 384 && offsetof(NetworkRecord, speed) == 192 &&
              offsetof(NetworkRecord, macAddress) == 200 &&
              offsetof(NetworkRecord, reservedAfterMac) == 240 &&
              offsetof(NetworkRecord, deviceId) == 248 &&
              offsetof(NetworkRecord, reservedAfterDevice) == 296 &&
              offsetof(NetworkRecord, statusInfo) == 376 &&
              offsetof(NetworkRecord, endMarker) == 378 &&
              offsetof(NetworkRecord, addressOrigin) == 380);

// Input of SendIPCompleteInfomartion. Addresses are in network order.
struct IpRecord {
  std::uint8_t ipAddress[4];
  std::uint32_t localPort;  // 623 in a report; 664 or 22 announces a connection
  std::uint8_t gatewayAddress[4];
  std::uint8_t dnsAddress[4];
  std::uint8_t subnetMask[4];
  std::uint8_t remoteAddress[4];  // zero in a report
  std::uint32_t remotePort;       // sin_port, zero-extended; zero in a report
  std::uint8_t macAddress[6];
  std::uint16_t endMarker;
};
static_assert(sizeof(IpRecord) == 36 && offsetof(IpRecord, localPort) == 4 &&
              offsetof(IpRecord, gatewayAddress) == 8 && offsetof(IpRecord, dnsAddress) == 12 &&
              offsetof(IpRecord, subnetMask) == 16 && offsetof(IpRecord, remoteAddress) == 20 &&
              offsetof(IpRecord, remotePort) == 24 && offsetof(IpRecord, macAddress) == 28 &&
              offsetof(IpRecord, endMarker) == 34);

constexpr std::uint32_t kReportPort = 623;
constexpr std::uint32_t kDashPort = 664;
constexpr std::uint32_t kKvmPort = 22;

// Payload of the subscribe command. An empty path cancels the subscription.
struct SubscriptionRecord {
  char host[1024];  // zero-terminated
  char path[1024];  // zero-terminated
  std::uint32_t reserved;
  std::uint32_t port;
  std::uint32_t secure;  // 0 HTTP, else HTTPS
};
static_assert(sizeof(SubscriptionRecord) == 2060 && offsetof(SubscriptionRecord, path) == 1024 &&
              offsetof(SubscriptionRecord, reserved) == 2048 &&
              offsetof(SubscriptionRecord, port) == 2052 &&
              offsetof(SubscriptionRecord, secure) == 2056);

// Payload of the KVM trust command.
struct TrustRecord {
  std::uint8_t address[4];  // network order
  std::uint32_t port;       // host order
};
static_assert(sizeof(TrustRecord) == 8 && offsetof(TrustRecord, port) == 4);

// Answer to the requests for a region's address. Any address but zero means that the region exists;
// the mailbox end replaces it by its own. The short forms are the first 8 bytes.
struct RegionRecord {
  std::uint64_t address;
  std::uint64_t reserved;
};
static_assert(sizeof(RegionRecord) == 16 && offsetof(RegionRecord, reserved) == 8);

// Returns the record that the bytes hold, or nothing if their number is not the record's size.
template <class Record>
std::optional<Record> ReadRecord(ByteView bytes) {
  if (bytes.size() != sizeof(Record)) return std::nullopt;
  Record record;
  std::memcpy(&record, bytes.data(), sizeof record);
  return record;
}

// Returns the bytes of a record.
template <class Record>
Bytes BytesOf(const Record& record) {
  Bytes bytes(sizeof record);
  std::memcpy(bytes.data(), &record, sizeof record);
  return bytes;
}

}  // namespace orrin
