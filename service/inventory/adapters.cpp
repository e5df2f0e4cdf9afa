// The search for the connected adapter. The three sources have the same name for it, so only whole
// names are compared.
#include "service/inventory/adapters.h"

#include <algorithm>
#include <cassert>
#include <cstring>
#include <string>

#include "platform/error.h"
#include "service/diagnostics/wmi_log.h"
#include "service/inventory/wmi_access.h"

namespace stewardry {

namespace {

constexpr std::uint64_t kSpeedOfFailure = 1;
constexpr std::uint32_t kNetConnected = 2;  // Win32_NetworkAdapter.NetConnectionStatus

struct Adapter {
  std::u16string name;
  std::u16string macAddress;
  std::u16string deviceId;
  std::uint32_t statusInfo;
  std::uint32_t connectionStatus;
};

Adapter ReadAdapter(const platform::WbemObject& row) {
  Adapter adapter;
  adapter.name = WmiText(row, u"Name");
  adapter.macAddress = WmiText(row, u"MACAddress");
  adapter.deviceId = WmiText(row, u"DeviceID");
  adapter.statusInfo = WmiNumber(row, u"StatusInfo");
  adapter.connectionStatus = WmiNumber(row, u"NetConnectionStatus");
  return adapter;
}

// Returns the whole name, however long, since the searches compare it.
std::string AnsiName(const std::u16string& name) {
  std::string ansi(name.size() * 3 + 1, '\0');  // no ANSI code page has more bytes for a unit
  ansi.resize(platform::WideToAnsi(name.data(), name.size(), ansi.data(), ansi.size()));
  return ansi;
}

void LogIdentity(const Adapter& adapter) {
  WmiInfo("Status info: %d", adapter.statusInfo);
  WmiInfo("MAC info: %ls,%zd", adapter.macAddress, ByteLength(adapter.macAddress));
  WmiInfo("Device ID: %ls", adapter.deviceId);
  WmiInfo("Network name: %ls,%zd", adapter.name,
          std::min(ByteLength(adapter.name), sizeof NetworkInfo::Name));
}

void FillRecord(const Adapter& adapter, NetworkInfo* record) {
  LogIdentity(adapter);
  const std::string name = AnsiName(adapter.name);
  record->Speed = GetAdapterSpeed(name.c_str());
  const bool dhcp = IsAdapterDhcpEnabled(name.c_str());
  record->addressOrigin = dhcp ? kAddressOriginDhcp : kAddressOriginStatic;
  WmiInfo("Address Origin: %s", dhcp ? "DHCP" : "Static");
  WmiInfo("Speed: %llu", record->Speed);
  FillText(record->Name, adapter.name);
  FillText(record->MACAddress, adapter.macAddress);
  FillText(record->DeviceID, adapter.deviceId);
  record->StatusInfo = static_cast<std::uint16_t>(adapter.statusInfo);
}

}  // namespace

std::uint64_t SpeedInTable(std::span<const platform::IfRow> rows, const char* name) {
  for (const platform::IfRow& row : rows) {
    if (std::strcmp(row.description.c_str(), name) != 0) continue;
    WmiInfo("\tDescription:\t%s", row.description);
    WmiInfo("\tindex: %d, Speed:\t %ld", row.index, row.speed);
    // A filter or a virtual twin of the same name may come first, without a speed.
    if (row.speed != 0) return row.speed;
  }
  return 0;
}

std::uint32_t GetNetworkinformation(NetworkInfo* record) {
  assert(record != nullptr);
  const WmiQuery query{u"SELECT * FROM Win32_NetworkAdapter", "GetNetworkinformation"};
  const bool isRead = ReadWmiRows(query, [record](const platform::WbemObject& row) {
    const Adapter adapter = ReadAdapter(row);
    if (adapter.connectionStatus != kNetConnected) return true;
    FillRecord(adapter, record);
    return false;
  });
  return isRead ? 0 : 1;
}

std::uint64_t GetAdapterSpeed(const char* name) {
  std::uint32_t size = platform::kIfTableSize;
  const platform::HeapBlock table =
      AllocateFor(platform::GetIfTable, platform::kErrorInsufficientBuffer, &size);
  if (!table) {
    WmiInfo("Error allocating memory needed to call GetIfTable");
    return kSpeedOfFailure;
  }
  if (const std::uint32_t error = platform::GetIfTable(table.Raw(), &size); error != 0) {
    WmiInfo("GetIfTable failed with error: %d", error);
    return kSpeedOfFailure;
  }
  return SpeedInTable(platform::ReadIfTable(table.Raw()), name);
}

bool IsAdapterDhcpEnabled(const char* name) {
  std::uint32_t size = platform::kAdapterInfoSize;
  const platform::HeapBlock list =
      AllocateFor(platform::GetAdaptersInfo, platform::kErrorBufferOverflow, &size);
  if (!list) {
    WmiInfo("Error allocating memory needed to call GetAdaptersinfo");
    return true;
  }
  if (const std::uint32_t error = platform::GetAdaptersInfo(list.Raw(), &size); error != 0) {
    WmiInfo("GetAdaptersInfo failed with error: %d", error);
    return false;
  }
  for (const platform::AdapterInfo& adapter : platform::ReadAdaptersInfo(list.Raw())) {
    if (adapter.description != name) continue;
    WmiInfo("\tAdapter Description: \t%s", adapter.description);
    return adapter.dhcpEnabled;
  }
  return false;
}

platform::HeapBlock AllocateFor(FillBlock fill, std::uint32_t tooSmall, std::uint32_t* size) {
  assert(fill != nullptr && *size > 0);
  const std::uint32_t first = *size;
  platform::HeapBlock block = platform::HeapAlloc(first);
  if (!block) return block;
  if (fill(block.Raw(), size) == tooSmall) {
    block.Reset();  // before the second allocation, so that the two never coexist
    return platform::HeapAlloc(*size);
  }
  *size = first;  // whatever the call has stored there
  return block;
}

}  // namespace stewardry
