// From the adapter list to the IP record. The record is built aside and stored as a whole, so a
// search that finds nothing leaves the last one as it was.
#include "service/inventory/ip_config.h"

#include <algorithm>
#include <cassert>
#include <vector>

#include "platform/error.h"
#include "platform/network.h"
#include "platform/socket.h"
#include "service/diagnostics/wmi_log.h"
#include "service/inventory/adapters.h"

namespace stewardry {

namespace {

using Adapters = std::vector<platform::AdapterAddresses>;

constexpr std::uint32_t kAddressFlags =
    platform::kGaaFlagSkipAnycast | platform::kGaaFlagSkipMulticast |
    platform::kGaaFlagSkipFriendlyName | platform::kGaaFlagIncludeGateways;
constexpr std::uint32_t kFamilyInet = platform::kAfInet;

std::uint32_t FillAddresses(void* block, std::uint32_t* size) {
  return platform::GetAdaptersAddresses(kAddressFlags, block, size);
}

bool Fits(const platform::AdapterAddresses& adapter, bool wireless) {
  if (adapter.operStatus != platform::kIfOperStatusUp) return false;
  return !wireless || adapter.ifType != platform::kIfTypeEthernet;
}

const platform::AdapterAddresses* FindAdapter(const Adapters& adapters, bool wireless) {
  if (wireless) WmiInfo("Inside WLAN condition");
  for (const platform::AdapterAddresses& adapter : adapters) {
    if (Fits(adapter, wireless)) return &adapter;
    WmiInfo("\tOperStatus: %ld", adapter.operStatus);
  }
  WmiInfo("not found");
  return nullptr;
}

void LogAdapter(const platform::AdapterAddresses& adapter) {
  WmiInfo("\tOperStatus: %d", adapter.operStatus);
  WmiInfo("\tLength of the IP_ADAPTER_ADDRESS struct: %ld", adapter.length);
  WmiInfo("\tIfIndex (IPv4 interface): %u", adapter.ifIndex);
  WmiInfo("\tAdapter name: %s", adapter.adapterName);
}

void FillSubnet(const platform::AdapterAddresses& adapter, IPInfo* record) {
  if (adapter.prefixLength == 0) return;
  WmiInfo("Length of mask: %d", adapter.prefixLength);
  record->subnetMask = platform::ConvertLengthToIpv4Mask(adapter.prefixLength);
  WmiInfo("\tIPV4 Subnet: 0x%x", record->subnetMask);
  WmiInfo("\tIPV4 Mask:%s", AddressText(record->subnetMask).text);
}

void FillAddress(const platform::AdapterAddresses& adapter, IPInfo* record) {
  if (!adapter.unicast.empty()) {
    record->ipAddress = adapter.unicast.front();
    WmiInfo("\tIPV4 address: 0x%x", record->ipAddress);
    WmiInfo("\tIPV4: %s", AddressText(record->ipAddress).text);
    WmiInfo("\tIPV4 address Network byte order: 0x%x", record->ipAddress);
    FillSubnet(adapter, record);
  }
  WmiInfo("\tNumber of Unicast Addresses: %d", adapter.unicast.size());
}

void FillDnsServer(const platform::AdapterAddresses& adapter, IPInfo* record) {
  if (adapter.dnsServers.empty()) return;
  record->dnsAddress = adapter.dnsServers.front();
  WmiInfo("\tIPV4 DNSserver:%s", AddressText(record->dnsAddress).text);
  WmiInfo("\tIPV4 DNSServer Network byte order: 0x%x", record->dnsAddress);
}

void FillGateway(const platform::AdapterAddresses& adapter, IPInfo* record) {
  if (adapter.gateways.empty()) return;
  record->gatewayAddress = adapter.gateways.front();
  WmiInfo("\tIPV4 Gateway:%s", AddressText(record->gatewayAddress).text);
  WmiInfo("\tIPV4 Gateway Network byte order: 0x%x", record->gatewayAddress);
}

void FillMacAddress(const platform::AdapterAddresses& adapter, IPInfo* record) {
  if (adapter.physicalAddress.empty()) return;
  WmiInfo("\tPhysical address: ");
  for (const std::uint8_t byte : adapter.physicalAddress) WmiInfo("%.2X", byte);
  // An adapter may have up to 8 bytes; the record has room for 6.
  std::copy_n(adapter.physicalAddress.begin(),
              std::min(adapter.physicalAddress.size(), sizeof record->macAddress),
              record->macAddress);
}

IPInfo DescribeAdapter(const platform::AdapterAddresses& adapter) {
  IPInfo record{};
  LogAdapter(adapter);
  FillAddress(adapter, &record);
  FillDnsServer(adapter, &record);
  FillGateway(adapter, &record);
  FillMacAddress(adapter, &record);
  return record;
}

}  // namespace

void GetIPCompleteInfomartion(SharedRecord<IPInfo>* out, std::uint32_t port, std::uint32_t wlan) {
  assert(out != nullptr);
  std::uint32_t size = platform::kAdapterAddressesSize;
  const platform::HeapBlock list =
      AllocateFor(FillAddresses, platform::kErrorBufferOverflow, &size);
  if (!list) return WmiInfo("Memory allocation failed for IP_ADAPTER_ADDRESSES struct");
  WmiInfo("Inside GetIPCompleteInfomartion");
  WmiInfo("Memory allocated for GetAdapterAddresses = %d bytes", size);
  WmiInfo("Calling GetAdaptersAddresses function with family = %lu", kFamilyInet);
  IPInfo record{};
  if (FillAddresses(list.Raw(), &size) == 0) {
    const Adapters adapters = platform::ReadAdaptersAddresses(list.Raw());
    const auto* adapter = FindAdapter(adapters, wlan == kWirelessAdapter);
    if (adapter == nullptr) return;
    record = DescribeAdapter(*adapter);
  }
  record.localPort = port;
  out->Store(record);
}

}  // namespace stewardry
