#include "platform/network.h"

#include <algorithm>
#include <bit>
#include <cassert>
#include <cstring>

#include "platform/windows/runtime/windows_api.h"
// These need windows.h.
#include <iphlpapi.h>
#include <wininet.h>

#undef InetNtop  // a macro for InetNtopA or InetNtopW

namespace platform {

namespace {

// Returns the IPv4 addresses of an address list, in its order.
template <class Entry>
std::vector<std::uint32_t> Ipv4Addresses(const Entry* entry) {
  std::vector<std::uint32_t> addresses;
  for (; entry != nullptr; entry = entry->Next) {
    const sockaddr* address = entry->Address.lpSockaddr;
    if (address == nullptr || address->sa_family != AF_INET) continue;
    addresses.push_back(reinterpret_cast<const sockaddr_in*>(address)->sin_addr.s_addr);
  }
  return addresses;
}

AdapterAddresses ReadAdapter(const IP_ADAPTER_ADDRESSES& adapter) {
  AdapterAddresses read{};
  read.length = adapter.Length;
  read.ifIndex = adapter.IfIndex;
  read.adapterName = adapter.AdapterName;
  read.operStatus = static_cast<std::uint32_t>(adapter.OperStatus);
  read.ifType = adapter.IfType;
  read.unicast = Ipv4Addresses(adapter.FirstUnicastAddress);
  if (adapter.FirstUnicastAddress != nullptr)
    read.prefixLength = adapter.FirstUnicastAddress->OnLinkPrefixLength;
  read.dnsServers = Ipv4Addresses(adapter.FirstDnsServerAddress);
  read.gateways = Ipv4Addresses(adapter.FirstGatewayAddress);
  const BYTE* bytes = adapter.PhysicalAddress;
  const ULONG known = std::min<ULONG>(adapter.PhysicalAddressLength, MAX_ADAPTER_ADDRESS_LENGTH);
  read.physicalAddress.assign(bytes, bytes + known);
  return read;
}

}  // namespace

bool GetComputerDnsDomain(char* name, std::uint32_t* size) {
  DWORD count = *size;
  const BOOL done = ::GetComputerNameExA(ComputerNameDnsDomain, name, &count);
  *size = count;
  return done != FALSE;
}

bool InternetGetConnectedState(std::uint32_t* flags) {
  DWORD found = 0;
  const BOOL connected = ::InternetGetConnectedState(&found, 0);
  *flags = found;
  return connected != FALSE;
}

std::size_t WideToAnsi(const char16_t* text, std::size_t length, char* ansi, std::size_t size) {
  if (size == 0) return 0;
  const auto* wide = reinterpret_cast<const wchar_t*>(text);
  const int count = static_cast<int>(length);
  // Converts all of it first: for a block that is too small Windows promises nothing.
  const int needed = ::WideCharToMultiByte(CP_ACP, 0, wide, count, nullptr, 0, nullptr, nullptr);
  std::string whole(static_cast<std::size_t>(needed), '\0');
  ::WideCharToMultiByte(CP_ACP, 0, wide, count, whole.data(), needed, nullptr, nullptr);
  const std::size_t kept = whole.copy(ansi, size - 1);
  ansi[kept] = '\0';
  return kept;
}

std::uint32_t GetIfTable(void* block, std::uint32_t* size) {
  ULONG bytes = *size;
  const DWORD error = ::GetIfTable(static_cast<MIB_IFTABLE*>(block), &bytes, FALSE);
  *size = bytes;
  return error;
}

std::vector<IfRow> ReadIfTable(const void* block) {
  assert(block != nullptr);
  const auto* table = static_cast<const MIB_IFTABLE*>(block);
  std::vector<IfRow> rows;
  for (DWORD row = 0; row < table->dwNumEntries; ++row) {
    const MIB_IFROW& entry = table->table[row];
    const DWORD length = std::min<DWORD>(entry.dwDescrLen, MAXLEN_IFDESCR);
    rows.push_back({std::string(reinterpret_cast<const char*>(entry.bDescr), length), entry.dwIndex,
                    entry.dwSpeed});
  }
  return rows;
}

std::uint32_t GetAdaptersInfo(void* block, std::uint32_t* size) {
  ULONG bytes = *size;
  const ULONG error = ::GetAdaptersInfo(static_cast<IP_ADAPTER_INFO*>(block), &bytes);
  *size = bytes;
  return error;
}

std::vector<AdapterInfo> ReadAdaptersInfo(const void* block) {
  std::vector<AdapterInfo> adapters;
  for (auto* entry = static_cast<const IP_ADAPTER_INFO*>(block); entry != nullptr;
       entry = entry->Next)
    adapters.push_back({entry->Description, entry->DhcpEnabled != 0});
  return adapters;
}

std::uint32_t GetAdaptersAddresses(std::uint32_t flags, void* block, std::uint32_t* size) {
  ULONG bytes = *size;
  const ULONG error = ::GetAdaptersAddresses(AF_INET, flags, nullptr,
                                             static_cast<IP_ADAPTER_ADDRESSES*>(block), &bytes);
  *size = bytes;
  return error;
}

std::vector<AdapterAddresses> ReadAdaptersAddresses(const void* block) {
  std::vector<AdapterAddresses> adapters;
  for (auto* entry = static_cast<const IP_ADAPTER_ADDRESSES*>(block); entry != nullptr;
       entry = entry->Next)
    adapters.push_back(ReadAdapter(*entry));
  return adapters;
}

static_assert(kInternetConnectionLan == INTERNET_CONNECTION_LAN &&
              kInternetRasInstalled == INTERNET_RAS_INSTALLED);
static_assert(kIfTableSize == sizeof(MIB_IFTABLE) && kAdapterInfoSize == sizeof(IP_ADAPTER_INFO) &&
              kAdapterAddressesSize == sizeof(IP_ADAPTER_ADDRESSES) &&
              kIpAddrTableSize == sizeof(MIB_IPADDRTABLE));
static_assert(kGaaFlagSkipAnycast == GAA_FLAG_SKIP_ANYCAST &&
              kGaaFlagSkipMulticast == GAA_FLAG_SKIP_MULTICAST &&
              kGaaFlagSkipFriendlyName == GAA_FLAG_SKIP_FRIENDLY_NAME &&
              kGaaFlagIncludeGateways == GAA_FLAG_INCLUDE_GATEWAYS);
static_assert(kIfOperStatusUp == IfOperStatusUp && kIfOperStatusDown == IfOperStatusDown &&
              kIfTypeEthernet == IF_TYPE_ETHERNET_CSMACD &&
              kIfTypeLoopback == IF_TYPE_SOFTWARE_LOOPBACK && kIfTypeWireless == IF_TYPE_IEEE80211);
static_assert(sizeof(IpAddrRow) == sizeof(MIB_IPADDRROW) &&
              offsetof(IpAddrRow, type) == offsetof(MIB_IPADDRROW, wType));
static_assert(kMibIpAddrPrimary == MIB_IPADDR_PRIMARY && kMibIpAddrDynamic == MIB_IPADDR_DYNAMIC &&
              kMibIpAddrDisconnected == MIB_IPADDR_DISCONNECTED &&
              kMibIpAddrDeleted == MIB_IPADDR_DELETED &&
              kMibIpAddrTransient == MIB_IPADDR_TRANSIENT);

std::uint32_t GetIpAddrTable(void* block, std::uint32_t* size) {
  ULONG bytes = *size;
  const DWORD error = ::GetIpAddrTable(static_cast<MIB_IPADDRTABLE*>(block), &bytes, FALSE);
  *size = bytes;
  return error;
}

std::uint32_t IpAddrTableRows(const void* block) {
  assert(block != nullptr);
  return static_cast<const MIB_IPADDRTABLE*>(block)->dwNumEntries;
}

IpAddrRow IpAddrTableRow(const void* block, std::uint32_t row) {
  assert(row < IpAddrTableRows(block));
  return std::bit_cast<IpAddrRow>(static_cast<const MIB_IPADDRTABLE*>(block)->table[row]);
}

bool GetHostByName(const char* name, std::uint32_t* address) {
  // Winsock keeps the result for each thread. NOLINTNEXTLINE(concurrency-mt-unsafe)
  const hostent* host = ::gethostbyname(name);
  if (host == nullptr || host->h_addrtype != AF_INET || host->h_addr_list[0] == nullptr)
    return false;
  std::memcpy(address, host->h_addr_list[0], sizeof *address);
  return true;
}

std::uint32_t ConvertLengthToIpv4Mask(std::uint32_t length) {
  ULONG mask = 0;
  ::ConvertLengthToIpv4Mask(length, &mask);
  return mask;
}

void InetNtop(std::uint32_t address, char* text, std::size_t size) {
  if (::inet_ntop(AF_INET, &address, text, size) == nullptr && size > 0) text[0] = '\0';
}

}  // namespace platform
