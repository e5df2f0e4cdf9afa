#include "service/standby/address_dumps.h"

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "platform/error.h"
#include "platform/network.h"
#include "platform/socket.h"
#include "platform/wlan.h"
#include "service/diagnostics/service_log.h"
#include "service/diagnostics/wmi_log.h"
#include "service/inventory/adapters.h"
#include "service/inventory/ip_config.h"
#include "service/inventory/link_watch.h"

namespace stewardry {

namespace {

struct TypeLine {
  std::uint16_t bit;  // of wType
  CheckedFormat<> line;
};
constexpr TypeLine kTypeLines[] = {
    {platform::kMibIpAddrPrimary, "\tPrimary IP Address"},
    {platform::kMibIpAddrDynamic, "\tDynamic IP Address"},
    {platform::kMibIpAddrDisconnected, "\tAddress is on disconnected interface"},
    {platform::kMibIpAddrDeleted, "\tAddress is being deleted"},
    {platform::kMibIpAddrTransient, "\tTransient address"},
};

void LogRow(std::uint32_t number, const platform::IpAddrRow& row) {
  LogInfo("\tInterface Index[% d]:\t % ld", number, row.index);
  LogInfo("\tIP Address[%d]:     \t%s", number, AddressText(row.address).text);
  LogInfo("\tSubnet Mask[%d]:    \t%s", number, AddressText(row.mask).text);
  LogInfo("\tBroadCast[%d]:      \t%s ( %ld)", number, AddressText(row.broadcast).text,
          row.broadcast);
  LogInfo("\tReassembly size[%d]:\t%ld", number, row.reassemblySize);
  LogInfo("\tType and State[%d]:", number);
  for (const TypeLine& type : kTypeLines)
    if ((row.type & type.bit) != 0) LogInfo(type.line);
}

void LogTableFailure(std::uint32_t error) {
  LogInfo("GetIpAddrTable failed with error %d", error);
  char text[512];
  if (platform::FormatMessageA(error, text, sizeof text) > 0)
    LogInfo("\tError: %s", static_cast<const char*>(text));
}

// Owns a client handle for one call, so that none stays open.
class WlanClient {
 public:
  WlanClient() : error_(platform::WlanOpenHandle(&handle_)) {}
  ~WlanClient() {
    if (error_ == 0) (void)platform::WlanCloseHandle(handle_);  // a failure has no remedy
  }
  WlanClient(const WlanClient&) = delete;
  WlanClient& operator=(const WlanClient&) = delete;
  std::uint32_t Error() const { return error_; }
  platform::WlanHandle Handle() const { return handle_; }

 private:
  platform::WlanHandle handle_ = nullptr;
  std::uint32_t error_;
};

// Collects the profiles' texts in the caller's memory.
class ProfileText {
 public:
  explicit ProfileText(std::span<char16_t> room) : room_(room) {}

  void Append(const std::u16string& xml) {
    if (room_.empty()) return;
    const std::size_t kept = std::min(xml.size(), room_.size() - 1 - length_);
    std::copy_n(xml.begin(), kept, room_.begin() + static_cast<std::ptrdiff_t>(length_));
    length_ += kept;
    room_[length_] = 0;
  }

 private:
  std::span<char16_t> room_;
  std::size_t length_ = 0;
};

bool CollectProfile(platform::WlanHandle wlan, const platform::Guid& guid, std::uint32_t number,
                    const platform::WlanProfile& profile, ProfileText* text) {
  WmiInfo("  Flags[%u]:\t    0x%x", number, profile.flags);
  if ((profile.flags & platform::kWlanProfileGroupPolicy) != 0) WmiInfo("   Group Policy");
  if ((profile.flags & platform::kWlanProfileUser) != 0) WmiInfo("   Per User Profile");
  std::u16string xml;
  if (const std::uint32_t error = platform::WlanGetProfile(wlan, guid, profile.name, &xml);
      error != 0) {
    WmiInfo("WlanGetProfile failed with error: %u", error);
    return false;
  }
  text->Append(xml);
  return true;
}

bool CollectInterface(platform::WlanHandle wlan, const platform::Guid& guid, ProfileText* text) {
  std::vector<platform::WlanProfile> profiles;
  if (const std::uint32_t error = platform::WlanGetProfileList(wlan, guid, &profiles); error != 0) {
    WmiInfo("WlanGetProfileList failed with error: %u", error);
    return false;
  }
  WmiInfo("WLAN_PROFILE_INFO_LIST for this interface");
  WmiInfo("  Num Entries: %lu", profiles.size());
  bool isComplete = true;
  std::uint32_t number = 0;
  for (const platform::WlanProfile& profile : profiles)
    isComplete = CollectProfile(wlan, guid, number++, profile, text) && isComplete;
  return isComplete;
}

void LogWlanInterface(std::uint32_t number, const platform::Guid& guid, std::uint32_t state) {
  char16_t guidText[platform::kGuidTextUnits];
  (void)platform::StringFromGUID2(guid, guidText);  // empty on failure
  WmiInfo("  Interface Index[%u]:\t %lu", number, number);
  WmiInfo("%ls", static_cast<const char16_t*>(guidText));
  WmiInfo("  Interface State[%d]:\t %s", number, WlanStateText(state));
}

}  // namespace

void LogHostAddress(std::uint32_t value) {
  char name[256];
  if (platform::gethostname(name, sizeof name) != 0) return;
  std::uint32_t address = 0;
  if (!platform::GetHostByName(name, &address)) return;
  LogInfo("Hostname: %x", value);
  LogInfo("Host IP: %s", AddressText(address).text);
}

std::uint32_t DumpIpAddrTable() {
  std::uint32_t size = platform::kIpAddrTableSize;
  const platform::HeapBlock table =
      AllocateFor(platform::GetIpAddrTable, platform::kErrorInsufficientBuffer, &size);
  if (!table) {
    LogInfo("Memory allocation failed for GetIpAddrTable");
    return 1;
  }
  std::memset(table.Raw(), 0, size);
  if (const std::uint32_t error = platform::GetIpAddrTable(table.Raw(), &size); error != 0) {
    LogTableFailure(error);
    return 1;
  }
  const std::uint32_t rows = platform::IpAddrTableRows(table.Raw());
  LogInfo("\tNum Entries: %ld", rows);
  for (std::uint32_t row = 0; row < rows; ++row)
    LogRow(row, platform::IpAddrTableRow(table.Raw(), row));
  return 0;
}

std::uint32_t CollectWlanProfiles(std::span<char16_t> text) {
  const WlanClient wlan;
  if (wlan.Error() != 0) {
    WmiInfo("WlanOpenHandle failed with error: %u", wlan.Error());
    return 1;
  }
  platform::WlanInterfaceList list;
  if (const std::uint32_t error = platform::WlanEnumInterfaces(wlan.Handle(), &list); error != 0) {
    WmiInfo("WlanEnumInterfaces failed with error: %u", error);
    return 1;
  }
  WmiInfo("WLAN_INTERFACE_INFO_LIST for this system");
  WmiInfo("Num Entries: %lu", list.states.size());
  WmiInfo("Current Index: %lu", list.index);
  ProfileText profiles(text);
  bool isComplete = true;
  for (std::uint32_t i = 0; i < list.states.size(); ++i) {
    LogWlanInterface(i, list.guids[i], list.states[i]);
    isComplete = CollectInterface(wlan.Handle(), list.guids[i], &profiles) && isComplete;
  }
  return isComplete ? 0 : 1;
}

}  // namespace stewardry
