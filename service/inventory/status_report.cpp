// The steps of the report. The firmware relies on the order of the messages.
#include "service/inventory/status_report.h"

#include <span>
#include <string>
#include <string_view>

#include "platform/network.h"
#include "platform/socket.h"
#include "platform/thread.h"
#include "service/diagnostics/service_log.h"
#include "service/diagnostics/wmi_log.h"
#include "service/inventory/ip_config.h"
#include "service/inventory/link_watch.h"
#include "service/inventory/network_report.h"
#include "service/inventory/reports.h"
#include "service/inventory/wmi_access.h"
#include "service/mailbox/mailbox_link.h"
#include "service/mailbox/messages.h"

namespace stewardry {

platform::ProcessLifetime<Reports> gReports;

namespace {

constexpr std::uint32_t kNetworkPollMs = 100;
// The turn of the wait, about ten seconds in, that reports to the firmware that there is no network
// yet.
constexpr std::uint32_t kNoNetworkTurn = 100;

class ServiceLogLines final : public ReportLines {
  void WriteLine(std::string_view format, std::span<const FormatArg> args) override {
    ServiceLog_Write(LogHeader::kInfo, format, args);
  }
};

void ReportServiceUp() {
  LogInfo("Setting value to WriteTavrinStatus");
  (void)WriteTavrinStatus(&kServiceUp);  // logs its own failure
}

void FillDomain(OperationSysSInfo* record) {
  char domain[sizeof record->domainName] = {};
  std::uint32_t size = sizeof domain;
  if (!platform::GetComputerDnsDomain(domain, &size)) return FillText(record->domainName, "N/A");
  FillText(record->domainName, TextOf(domain));
  LogInfo("DNS domain: %s", TextOf(domain));
}

void LogOperatingSystem(const OperationSysSInfo& record) {
  LogInfo("OS Name: %ls; OS Version: %ls; OS DomainName: %s;OS Hostname: %s;OS Tavrin Version: %s",
          TextOf(record.Caption), TextOf(record.Version), TextOf(record.domainName),
          TextOf(record.hostName), TextOf(record.tavrinVersion));
}

void ReportOperatingSystem() {
  NetworkOsInformation scratch{};
  OperationSysSInfo& record = scratch.operatingSystem;
  // A part that cannot be read stays zero, and the record is sent all the same.
  (void)GetOSinformation(&record);
  (void)platform::gethostname(record.hostName, sizeof record.hostName);
  FillText(record.tavrinVersion, kServiceVersion);
  FillDomain(&record);
  LogOperatingSystem(record);
  record.endMarker = kEndMarker;
  WriteOsInfo(&record);
}

void RefreshFirmwareVersion() {
  GetTavrinVersion(&gMailboxLink->gTavrinVersionInfo);
  const auto version = [] { return TextOf(gMailboxLink->gTavrinVersionInfo.Load().version); };
  if (version().empty()) SetVersionText(&gMailboxLink->gTavrinVersionInfo, kVersionNotAvailable);
  if (version() != kVersionNotAvailable)
    gReports->gTavrinRunning.store(1, std::memory_order_relaxed);
}

void ReportNoNetwork() {
  const NetworkInfo none{};  // the end marker too is zero
  WriteNwInfo(&none);
}

bool IsWanted(const ReportMark* mark) { return mark == nullptr || mark->Holds(); }

void WaitForNetwork(const ReportMark* mark) {
  bool connected = false;
  for (std::uint32_t turn = 1; !connected && IsWanted(mark); ++turn) {
    std::uint32_t flags = 0;
    connected = platform::InternetGetConnectedState(&flags);
    platform::Sleep(kNetworkPollMs);
    if (turn == kNoNetworkTurn && IsWanted(mark)) ReportNoNetwork();
  }
}

void ReportAddress() {
  ServiceLogLines lines;
  const bool wlan = IsOnWlan();
  LogInfo("System is connected to %s", wlan ? "WLAN" : "LAN");
  LogInfo("Getting value from GetIPCompleteInfomartion");
  GetIPCompleteInfomartion(&gReports->gIPInfo, kReportPort, wlan ? kWirelessAdapter : kAnyAdapter);
  SendIpReport(&lines);
}

void ReportAdapter() {
  ServiceLogLines lines;
  SendAdapterReport(&lines);
}

// Before and after the wait for a network.
constexpr void (*kFirstSteps[])() = {ReportServiceUp, ReportOperatingSystem,
                                     RefreshFirmwareVersion};
constexpr void (*kNetworkSteps[])() = {ReportAddress, SendSystemBooted, ReportAdapter};

void RunSteps(const ReportMark* mark, std::span<void (*const)()> steps) {
  for (const auto step : steps)
    if (IsWanted(mark)) step();
}

bool ReadOperatingSystem(const platform::WbemObject& row, OperationSysSInfo* record) {
  FillText(record->Caption, WmiText(row, u"Caption"));
  record->OSType = static_cast<std::uint16_t>(WmiNumber(row, u"OSType"));
  const std::u16string architecture = WmiText(row, u"OSArchitecture");
  WmiInfo("Other type value %zd", ByteLength(architecture));
  FillText(record->OSArchitecture, architecture);
  FillText(record->Version, WmiText(row, u"Version"));
  return false;  // the first row only
}

// SMBIOS chassis types: 9 laptop, 10 notebook.
bool IsLaptop(std::uint16_t chassisType) { return chassisType == 9 || chassisType == 10; }

bool LogChassisTypes(const platform::WbemObject& enclosure) {
  platform::WbemValue types;
  if (platform::Failed(platform::GetProperty(enclosure, u"ChassisTypes", &types))) return true;
  if (types.kind != platform::WbemValue::kNumbers) return true;
  LogInfo("Chassis Types:");
  for (const std::uint32_t type : types.numbers)
    LogInfo("%s", IsLaptop(static_cast<std::uint16_t>(type)) ? "Laptop" : "Desktop detected");
  return true;
}

}  // namespace

std::uint32_t SendSystemInfo(void* given) {
  const auto* mark = static_cast<const ReportMark*>(given);
  RunSteps(mark, kFirstSteps);
  WaitForNetwork(mark);
  RunSteps(mark, kNetworkSteps);
  return 0;
}

void ResendSystemInfo(const ReportMark* mark) {
  LogInfo("ORRIN is down pass nonDASH commands");
  (void)SendSystemInfo(const_cast<ReportMark*>(mark));  // always 0; a thread's entry takes no const
}

std::uint32_t GetOSinformation(OperationSysSInfo* record) {
  const WmiQuery query{u"SELECT * FROM Win32_OperatingSystem", "GetOSinformation"};
  const bool isRead = ReadWmiRows(query, [record](const platform::WbemObject& row) {
    return ReadOperatingSystem(row, record);
  });
  return isRead ? 0 : 1;
}

void DetectChassis() {
  // Start-up goes on whatever the result.
  (void)ReadWmiRows({u"SELECT * FROM Win32_SystemEnclosure", nullptr}, LogChassisTypes);
}

}  // namespace stewardry
