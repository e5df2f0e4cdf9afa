// The host's names, connection state, interfaces and addresses. Addresses are in network byte order
// (sin_addr). A call that fills a block uses the platform's own layout; the reader below it returns
// the entries, in their order.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace platform {

// Stores the DNS domain in `name` of *size bytes, zero-terminated (GetComputerNameExA). The text is
// empty outside a domain.
bool GetComputerDnsDomain(char* name, std::uint32_t* size);

constexpr std::uint32_t kInternetConnectionLan = 0x02;  // INTERNET_CONNECTION_LAN
constexpr std::uint32_t kInternetRasInstalled = 0x10;   // INTERNET_RAS_INSTALLED

// Returns whether the host is connected, and stores the kind of connection in *flags.
bool InternetGetConnectedState(std::uint32_t* flags);

// Converts UTF-16 to the ANSI code page, at most size-1 bytes and a terminator. Returns the length.
std::size_t WideToAnsi(const char16_t* text, std::size_t length, char* ansi, std::size_t size);

constexpr std::uint32_t kIfTableSize = 864;  // sizeof(MIB_IFTABLE), with one row

// Fills a block of *size bytes, unsorted. Returns an error code; kErrorInsufficientBuffer stores
// the size that is needed.
std::uint32_t GetIfTable(void* block, std::uint32_t* size);
struct IfRow {
  // bDescr, dwDescrLen bytes, with the terminator on Windows and without it on Wine.
  std::string description;
  std::uint32_t index;  // dwIndex
  std::uint32_t speed;  // dwSpeed, bits per second
};
std::vector<IfRow> ReadIfTable(const void* block);

constexpr std::uint32_t kAdapterInfoSize = 704;  // sizeof(IP_ADAPTER_INFO)

// Fills a block of *size bytes. Returns an error code; kErrorBufferOverflow stores the size that is
// needed.
std::uint32_t GetAdaptersInfo(void* block, std::uint32_t* size);
struct AdapterInfo {
  std::string description;
  bool dhcpEnabled;
};
std::vector<AdapterInfo> ReadAdaptersInfo(const void* block);

constexpr std::uint32_t kAdapterAddressesSize = 448;      // sizeof(IP_ADAPTER_ADDRESSES)
constexpr std::uint32_t kGaaFlagSkipAnycast = 0x02;       // GAA_FLAG_SKIP_ANYCAST
constexpr std::uint32_t kGaaFlagSkipMulticast = 0x04;     // GAA_FLAG_SKIP_MULTICAST
constexpr std::uint32_t kGaaFlagSkipFriendlyName = 0x20;  // GAA_FLAG_SKIP_FRIENDLY_NAME
constexpr std::uint32_t kGaaFlagIncludeGateways = 0x80;   // GAA_FLAG_INCLUDE_GATEWAYS
constexpr std::uint32_t kIfOperStatusUp = 1;              // IfOperStatusUp
constexpr std::uint32_t kIfOperStatusDown = 2;            // IfOperStatusDown
constexpr std::uint32_t kIfTypeEthernet = 6;              // IF_TYPE_ETHERNET_CSMACD
constexpr std::uint32_t kIfTypeLoopback = 24;             // IF_TYPE_SOFTWARE_LOOPBACK
constexpr std::uint32_t kIfTypeWireless = 71;             // IF_TYPE_IEEE80211

// Fills a block of *size bytes with the IPv4 adapters (AF_INET). Returns an error code;
// kErrorBufferOverflow stores the size that is needed.
std::uint32_t GetAdaptersAddresses(std::uint32_t flags, void* block, std::uint32_t* size);
struct AdapterAddresses {
  std::uint32_t length;  // of the platform's own structure
  std::uint32_t ifIndex;
  std::string adapterName;
  std::uint32_t operStatus;            // kIfOperStatusUp or another
  std::uint32_t ifType;                // kIfTypeEthernet or another
  std::vector<std::uint32_t> unicast;  // in list order
  std::uint8_t prefixLength;           // OnLinkPrefixLength of the first unicast address
  std::vector<std::uint32_t> dnsServers;
  std::vector<std::uint32_t> gateways;
  std::vector<std::uint8_t> physicalAddress;  // at most 8 bytes
};
std::vector<AdapterAddresses> ReadAdaptersAddresses(const void* block);

constexpr std::uint32_t kIpAddrTableSize = 28;  // sizeof(MIB_IPADDRTABLE), with one row

// Fills a block of *size bytes, unsorted. Returns an error code; kErrorInsufficientBuffer stores
// the size that is needed.
std::uint32_t GetIpAddrTable(void* block, std::uint32_t* size);
// MIB_IPADDRROW.
struct IpAddrRow {
  std::uint32_t address;         // dwAddr
  std::uint32_t index;           // dwIndex, of its interface
  std::uint32_t mask;            // dwMask
  std::uint32_t broadcast;       // dwBCastAddr: 1 if the broadcast address is all ones
  std::uint32_t reassemblySize;  // dwReasmSize, bytes
  std::uint16_t unused;
  std::uint16_t type;  // wType, kMibIpAddr bits
};
static_assert(sizeof(IpAddrRow) == 24 && offsetof(IpAddrRow, type) == 22);
constexpr std::uint16_t kMibIpAddrPrimary = 0x01;       // MIB_IPADDR_PRIMARY
constexpr std::uint16_t kMibIpAddrDynamic = 0x04;       // MIB_IPADDR_DYNAMIC
constexpr std::uint16_t kMibIpAddrDisconnected = 0x08;  // MIB_IPADDR_DISCONNECTED
constexpr std::uint16_t kMibIpAddrDeleted = 0x40;       // MIB_IPADDR_DELETED
constexpr std::uint16_t kMibIpAddrTransient = 0x80;     // MIB_IPADDR_TRANSIENT
std::uint32_t IpAddrTableRows(const void* block);
IpAddrRow IpAddrTableRow(const void* block, std::uint32_t row);

// Stores the first IPv4 address of a host (gethostbyname). Returns false if it has none.
bool GetHostByName(const char* name, std::uint32_t* address);

// Returns the mask of a prefix length.
std::uint32_t ConvertLengthToIpv4Mask(std::uint32_t length);

// Stores the dotted text of an address in `text` of `size` bytes; 16 hold any.
void InetNtop(std::uint32_t address, char* text, std::size_t size);

}  // namespace platform
