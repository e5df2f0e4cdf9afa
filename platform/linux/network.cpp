// The host's names, connection state, interfaces and addresses. The blocks have our own layout, but
// each entry is as large as Windows' structure: a first block that holds one entry there holds one
// here, so ordinary machines reach the "too small" path on both platforms.
#include "platform/network.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <unistd.h>

#include <algorithm>
#include <cassert>
#include <cstring>
#include <fstream>
#include <string>
#include <string_view>

#include "platform/linux/hostfacts/interfaces.h"
#include "platform/linux/lab/lab_folder.h"
#include "platform/linux/runtime/gate.h"
#include "platform/linux/runtime/last_error.h"
#include "platform/linux/runtime/utf16.h"
#include "text/code_points.h"

namespace platform {

namespace {

// Has the size of a MIB_IFROW; the table is a count and these.
struct TableRow {
  std::uint32_t index;
  std::uint32_t speed;
  char description[256];
  std::uint8_t unused[596];
};
static_assert(sizeof(TableRow) == 860);

// Has the size of an IP_ADAPTER_INFO.
struct AdapterEntry {
  std::uint32_t more;  // 1 if another entry follows
  std::uint32_t dhcpEnabled;
  char description[132];
  std::uint8_t unused[564];
};
static_assert(sizeof(AdapterEntry) == 704);

// Has the size of an IP_ADAPTER_ADDRESSES; the addresses follow, 4 bytes each: unicast, DNS
// servers, gateways.
struct AddressesEntry {
  std::uint32_t more;  // 1 if another entry follows
  std::uint32_t ifIndex;
  std::uint32_t operStatus;
  std::uint32_t ifType;
  std::uint32_t unicastCount;
  std::uint32_t dnsCount;
  std::uint32_t gatewayCount;
  std::uint32_t physicalLength;
  std::uint8_t physicalAddress[8];
  char name[256];
  std::uint8_t prefixLength;
  std::uint8_t unused[151];
};
static_assert(sizeof(AddressesEntry) == 448);

template <class Entry>
void AppendBytes(const Entry& entry, std::string* bytes) {
  bytes->append(reinterpret_cast<const char*>(&entry), sizeof entry);
}

void AppendAddresses(const std::vector<std::uint32_t>& addresses, std::string* bytes) {
  for (const std::uint32_t address : addresses) AppendBytes(address, bytes);
}

// Copies a name into a zeroed field, cut to fit and terminated.
template <std::size_t N>
void PutName(const std::string& name, char (&field)[N]) {
  std::memcpy(field, name.data(), std::min(name.size(), N - 1));
}

// Copies the bytes to the caller's block. Returns `tooSmall`, with the size needed, if they don't
// fit.
std::uint32_t FillBlock(const std::string& bytes, std::uint32_t tooSmall, void* block,
                        std::uint32_t* size) {
  const auto needed = static_cast<std::uint32_t>(bytes.size());
  if (*size < needed) {
    *size = needed;
    return tooSmall;
  }
  std::memcpy(block, bytes.data(), needed);
  return kErrorSuccess;
}

std::uint32_t CountOf(std::size_t size) { return static_cast<std::uint32_t>(size); }

std::uint32_t IfTypeOf(const Interface& interface) {
  if (interface.loopback) return kIfTypeLoopback;
  return interface.wireless ? kIfTypeWireless : kIfTypeEthernet;
}

std::string DescribeAddresses(const Interface& interface, bool more) {
  AddressesEntry entry{};
  entry.more = more ? 1 : 0;
  entry.ifIndex = interface.index;
  entry.operStatus = interface.up ? kIfOperStatusUp : kIfOperStatusDown;
  entry.ifType = IfTypeOf(interface);
  entry.unicastCount = CountOf(interface.addresses.size());
  entry.dnsCount = CountOf(interface.dnsServers.size());
  entry.gatewayCount = CountOf(interface.gateways.size());
  entry.physicalLength = CountOf(interface.hardwareAddress.size());
  assert(interface.hardwareAddress.size() <= sizeof entry.physicalAddress);
  std::copy(interface.hardwareAddress.begin(), interface.hardwareAddress.end(),
            entry.physicalAddress);
  PutName(interface.name, entry.name);
  if (!interface.addresses.empty()) entry.prefixLength = interface.addresses[0].prefixLength;
  std::string bytes;
  AppendBytes(entry, &bytes);
  for (const InterfaceAddress& address : interface.addresses) AppendBytes(address.address, &bytes);
  AppendAddresses(interface.dnsServers, &bytes);
  AppendAddresses(interface.gateways, &bytes);
  return bytes;
}

std::uint32_t MaskOf(std::uint32_t length) {
  if (length == 0) return 0;
  return htonl(length >= 32 ? 0xFFFFFFFF : ~(0xFFFFFFFF >> length));
}

// An interface that is up without an IPv4 address (a bridge's port, say) corresponds to a Windows
// adapter without IPv4, because Windows always assigns an address. The IPv4 list leaves it out.
bool HasIpv4(const Interface& interface) { return !interface.up || !interface.addresses.empty(); }

// Takes `count` addresses at *at, which it moves behind them.
std::vector<std::uint32_t> TakeAddresses(const char** at, std::uint32_t count) {
  std::vector<std::uint32_t> addresses(count);
  for (std::uint32_t& address : addresses) {
    std::memcpy(&address, *at, sizeof address);
    *at += sizeof address;
  }
  return addresses;
}

// Returns what follows the first dot of the host name.
std::string DomainOfHostName() {
  char host[256] = {};
  if (::gethostname(host, sizeof host - 1) != 0) return {};
  const char* dot = std::strchr(host, '.');
  return dot != nullptr ? dot + 1 : "";
}

std::string DomainName() {
  char domain[256] = {};
  if (::getdomainname(domain, sizeof domain - 1) != 0) return {};
  const bool set = domain[0] != 0 && std::string_view(domain) != "(none)";
  return set ? domain : DomainOfHostName();
}

}  // namespace

bool GetComputerDnsDomain(char* name, std::uint32_t* size) {
  if (gate::Fails("GetComputerNameExA")) return false;
  const std::string domain = DomainName();
  if (*size < domain.size() + 1) {
    *size = CountOf(domain.size() + 1);
    return Fail(kErrorMoreData);
  }
  std::memcpy(name, domain.c_str(), domain.size() + 1);
  *size = CountOf(domain.size());
  return true;
}

// The lab's `connected.txt` decides if it exists: "no", or the flags as a number. Without it the
// host is connected, by LAN, when any interface is up. The loopback interface counts, so that the
// whole service can run in a network namespace without any other.
bool InternetGetConnectedState(std::uint32_t* flags) {
  *flags = 0;
  if (gate::Fails("InternetGetConnectedState")) return false;
  if (std::ifstream lab(LabPath("connected.txt")); lab) return static_cast<bool>(lab >> *flags);
  const std::vector<Interface> interfaces = ListInterfaces();
  const bool connected = std::any_of(interfaces.begin(), interfaces.end(),
                                     [](const Interface& interface) { return interface.up; });
  if (connected) *flags = kInternetConnectionLan;
  return connected;
}

std::size_t WideToAnsi(const char16_t* text, std::size_t length, char* ansi, std::size_t size) {
  gate::Note("WideCharToMultiByte");
  if (size == 0) return 0;
  std::string narrow = Utf16ToUtf8({text, length});
  narrow.resize(stewardry::Utf8PrefixLength(narrow, size - 1));
  std::memcpy(ansi, narrow.c_str(), narrow.size() + 1);
  return narrow.size();
}

std::uint32_t GetIfTable(void* block, std::uint32_t* size) {
  if (const std::uint32_t error = gate::Enter("GetIfTable")) return error;
  const std::vector<Interface> interfaces = ListInterfaces();
  std::string bytes;
  AppendBytes(CountOf(interfaces.size()), &bytes);
  for (const Interface& interface : interfaces) {
    TableRow row{};
    row.index = interface.index;
    row.speed = interface.speed;
    PutName(interface.name, row.description);
    AppendBytes(row, &bytes);
  }
  return FillBlock(bytes, kErrorInsufficientBuffer, block, size);
}

std::vector<IfRow> ReadIfTable(const void* block) {
  std::uint32_t count;
  std::memcpy(&count, block, sizeof count);
  std::vector<IfRow> rows;
  const char* at = static_cast<const char*>(block) + sizeof count;
  for (TableRow entry; count > 0; --count, at += sizeof entry) {
    std::memcpy(&entry, at, sizeof entry);
    rows.push_back({std::string(entry.description, std::strlen(entry.description) + 1), entry.index,
                    entry.speed});
  }
  return rows;
}

std::uint32_t GetAdaptersInfo(void* block, std::uint32_t* size) {
  if (const std::uint32_t error = gate::Enter("GetAdaptersInfo")) return error;
  std::vector<Interface> interfaces = ListInterfaces();
  std::erase_if(interfaces, [](const Interface& i) { return i.loopback; });  // as on Windows
  if (interfaces.empty()) return kErrorNoData;
  std::string bytes;
  for (const Interface& interface : interfaces) {
    AdapterEntry entry{};
    entry.more = &interface != &interfaces.back() ? 1 : 0;
    entry.dhcpEnabled = interface.dynamic ? 1 : 0;
    PutName(interface.name, entry.description);
    AppendBytes(entry, &bytes);
  }
  return FillBlock(bytes, kErrorBufferOverflow, block, size);
}

std::vector<AdapterInfo> ReadAdaptersInfo(const void* block) {
  std::vector<AdapterInfo> adapters;
  const char* at = static_cast<const char*>(block);
  AdapterEntry entry;
  do {
    std::memcpy(&entry, at, sizeof entry);
    at += sizeof entry;
    adapters.push_back({entry.description, entry.dhcpEnabled != 0});
  } while (entry.more != 0);
  return adapters;
}

std::uint32_t GetAdaptersAddresses(std::uint32_t flags, void* block, std::uint32_t* size) {
  if (const std::uint32_t error = gate::Enter("GetAdaptersAddresses", "0x%x", flags)) return error;
  std::vector<Interface> interfaces = ListInterfaces();
  std::erase_if(interfaces, [](const Interface& i) { return !HasIpv4(i); });
  if (interfaces.empty()) return kErrorNoData;
  std::string bytes;
  for (const Interface& interface : interfaces)
    bytes += DescribeAddresses(interface, &interface != &interfaces.back());
  return FillBlock(bytes, kErrorBufferOverflow, block, size);
}

std::vector<AdapterAddresses> ReadAdaptersAddresses(const void* block) {
  std::vector<AdapterAddresses> adapters;
  const char* at = static_cast<const char*>(block);
  AddressesEntry entry;
  do {
    std::memcpy(&entry, at, sizeof entry);
    at += sizeof entry;
    AdapterAddresses adapter;
    adapter.length = sizeof entry;
    adapter.ifIndex = entry.ifIndex;
    adapter.adapterName = entry.name;
    adapter.operStatus = entry.operStatus;
    adapter.ifType = entry.ifType;
    adapter.unicast = TakeAddresses(&at, entry.unicastCount);
    adapter.prefixLength = entry.prefixLength;
    adapter.dnsServers = TakeAddresses(&at, entry.dnsCount);
    adapter.gateways = TakeAddresses(&at, entry.gatewayCount);
    adapter.physicalAddress.assign(entry.physicalAddress,
                                   entry.physicalAddress + entry.physicalLength);
    adapters.push_back(std::move(adapter));
  } while (entry.more != 0);
  return adapters;
}

// The block is a count and a row for each address of each interface.
std::uint32_t GetIpAddrTable(void* block, std::uint32_t* size) {
  if (const std::uint32_t error = gate::Enter("GetIpAddrTable", "%u", *size)) return error;
  constexpr std::uint32_t kReassemblySize = 65535;  // the largest IPv4 datagram
  std::string rows;
  std::uint32_t count = 0;
  for (const Interface& interface : ListInterfaces()) {
    for (const InterfaceAddress& address : interface.addresses) {
      int type = &address == &interface.addresses[0] ? kMibIpAddrPrimary : 0;
      if (interface.dynamic) type |= kMibIpAddrDynamic;
      if (!interface.up) type |= kMibIpAddrDisconnected;
      AppendBytes(IpAddrRow{address.address, interface.index, MaskOf(address.prefixLength), 1,
                            kReassemblySize, 0, static_cast<std::uint16_t>(type)},
                  &rows);
      ++count;
    }
  }
  std::string bytes;
  AppendBytes(count, &bytes);
  return FillBlock(bytes + rows, kErrorInsufficientBuffer, block, size);
}

std::uint32_t IpAddrTableRows(const void* block) {
  std::uint32_t count;
  std::memcpy(&count, block, sizeof count);
  return count;
}

IpAddrRow IpAddrTableRow(const void* block, std::uint32_t row) {
  assert(row < IpAddrTableRows(block));
  IpAddrRow read;
  std::memcpy(&read, static_cast<const char*>(block) + sizeof row + row * sizeof read, sizeof read);
  return read;
}

// Not the C library's gethostbyname, whose answer all threads share.
bool GetHostByName(const char* name, std::uint32_t* address) {
  if (gate::Fails("gethostbyname", "%s", name)) return false;
  addrinfo wanted{};
  wanted.ai_family = AF_INET;
  addrinfo* found = nullptr;
  if (::getaddrinfo(name, nullptr, &wanted, &found) != 0) return false;
  *address = reinterpret_cast<const sockaddr_in*>(found->ai_addr)->sin_addr.s_addr;
  ::freeaddrinfo(found);
  return true;
}

std::uint32_t ConvertLengthToIpv4Mask(std::uint32_t length) {
  gate::Note("ConvertLengthToIpv4Mask");
  return MaskOf(length);
}

void InetNtop(std::uint32_t address, char* text, std::size_t size) {
  gate::Note("inet_ntop");
  if (size == 0) return;
  text[0] = 0;  // the result if the text doesn't fit
  in_addr in;
  in.s_addr = address;
  ::inet_ntop(AF_INET, &in, text, static_cast<socklen_t>(size));
}

}  // namespace platform
