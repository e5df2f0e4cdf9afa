#include "service/standby/battery_report.h"

#include <atomic>
#include <cassert>
#include <cstring>
#include <iterator>

#include "platform/device.h"
#include "platform/error.h"
#include "service/diagnostics/service_log.h"
#include "service/diagnostics/wmi_log.h"
#include "service/inventory/wmi_access.h"
#include "service/mailbox/device.h"
#include "service/mailbox/request.h"
#include "service/standby/standby_state.h"

namespace stewardry {

namespace {

// The properties of BatteryStatusRecord::values, in its order.
constexpr const char16_t* kBatteryProperties[] = {
    u"BatteryStatus", u"Status",       u"Availability",     u"StatusInfo",
    u"Chemistry",     u"ExpectedLife", u"EstimatedRunTime", u"TimeToFullCharge"};
static_assert(std::size(kBatteryProperties) == std::size(BatteryStatusRecord{}.values));

// The firmware's values for the user's presence.
constexpr std::uint32_t kUserPresent = 1;
constexpr std::uint32_t kUserAbsent = 2;

// Stores `now` as the value last reported. Returns false if it was that already.
bool NoteChange(std::atomic<std::uint32_t>* last, std::uint32_t now) {
  return last->exchange(now, std::memory_order_relaxed) != now;
}

// Returns false if the request could not be started, which ends the report.
bool ReportPresence(std::uint32_t presence) {
  LogInfo("StatusChanged of user %d", presence);
  const std::uint32_t value = presence == 0 ? kUserPresent : kUserAbsent;
  return SendRecord<Operation::kUserPresence>(value) == 0;
}

void ReportBatteryState(std::uint32_t state) {
  LogInfo("StatusChanged of Battery %d", state);
  BatteryStatusRecord record{};
  record.batteryState = state;
  (void)GetCompleteBatteryinformation(&record);  // the state counts, with or without the rest
  if (state == kBatteryIsCritical) (void)SendRecord<Operation::kBatteryCritical>(record);
  if (state == kBatteryIsDrained) (void)SendRecord<Operation::kBatteryDrained>(record);
  // No other state has a control code.
}

bool ReadBatteryRow(const platform::WbemObject& row, BatteryStatusRecord* record) {
  platform::RawVariant values[std::size(kBatteryProperties)];
  for (std::size_t i = 0; i < std::size(values); ++i)
    (void)platform::GetRawProperty(row, kBatteryProperties[i], &values[i]);  // zero on failure
  WmiInfo("Got the data successfully");
  std::memcpy(record->values, values, sizeof values);
  return true;
}

// The findings of the walk over the devices.
enum : std::uint32_t {
  kHasBattery = 1,
  kOnBatteryPower = 2,
};

bool QueryBattery(const platform::BatteryHandle& battery, std::uint32_t code, const void* input,
                  std::uint32_t inputSize, void* output, std::uint32_t outputSize) {
  std::uint32_t returned = 0;
  return platform::BatteryIoControl(battery, code, input, inputSize, output, outputSize, &returned);
}

// Returns false if the device contains no battery.
bool ReadTag(const platform::BatteryHandle& battery, std::uint32_t* tag) {
  const std::uint32_t wait = 0;  // milliseconds, for a battery to be inserted
  return QueryBattery(battery, platform::kIoctlBatteryQueryTag, &wait, sizeof wait, tag,
                      sizeof *tag) &&
         *tag != platform::kBatteryTagInvalid;
}

// Leaves *status zero if the query fails.
void ReadStatus(const platform::BatteryHandle& battery, std::uint32_t tag, std::uint32_t index,
                platform::BatteryStatus* status, std::uint32_t* flags) {
  platform::BatteryWaitStatus wait{};
  wait.tag = tag;
  if (!QueryBattery(battery, platform::kIoctlBatteryQueryStatus, &wait, sizeof wait, status,
                    sizeof *status))
    return;
  if ((status->powerState & platform::kBatteryPowerOnLine) == 0) return;
  *flags &= ~std::uint32_t{kOnBatteryPower};
  LogInfo("Battery %d BATTERY_POWER_ON_LINE", index);
}

// Returns false if there is nothing to send.
bool ReadBattery(const platform::BatteryHandle& battery, std::uint32_t index,
                 BatteryInfoRecord* record, std::uint32_t* flags) {
  std::uint32_t tag = platform::kBatteryTagInvalid;
  if (!ReadTag(battery, &tag)) return false;
  const platform::BatteryQueryInformation query{tag, platform::kBatteryInformationLevel, 0};
  if (!QueryBattery(battery, platform::kIoctlBatteryQueryInformation, &query, sizeof query,
                    &record->information, sizeof record->information))
    return false;
  LogInfo("Battery %d info", index);
  const std::uint32_t capabilities = record->information.capabilities;
  if ((capabilities & platform::kBatterySystemBattery) == 0) return true;
  if ((capabilities & platform::kBatteryIsShortTerm) == 0) {
    *flags |= kHasBattery;
    LogInfo("Battery %d GBS_HASBATTERY", index);
  }
  ReadStatus(battery, tag, index, &record->status, flags);
  return true;
}

void SendBattery(const BatteryInfoRecord& record) {
  std::uint32_t returned = 0;
  if (SendPlainRecord<Operation::kBatteryRecord>(record, &returned) != 0)
    return LogInfo("IOCTL failed");
  LogInfo("Junk : %d", returned);
}

void ReportDevice(const platform::DeviceInfoList& list, const platform::DeviceInterfaceData& data,
                  std::uint32_t index, std::uint32_t* flags) {
  const DevicePath path = ReadDevicePath(list, data);
  if (!path) return;
  const platform::BatteryHandle battery = platform::OpenBattery(path.Text());
  if (!battery) return;
  BatteryInfoRecord record{};
  if (ReadBattery(battery, index, &record, flags)) SendBattery(record);
}

// Returns the flags. Skips a device whose interface cannot be read.
std::uint32_t WalkBatteries() {
  constexpr std::uint32_t kMostBatteries = 100;
  std::uint32_t flags = kOnBatteryPower;
  const platform::DeviceInfoList list =
      platform::SetupDiGetClassDevsA(platform::kBatteryInterfaceClass);
  for (std::uint32_t index = 0; list && index < kMostBatteries; ++index) {
    platform::DeviceInterfaceData data{};
    data.cbSize = sizeof data;
    if (platform::SetupDiEnumDeviceInterfaces(list, platform::kBatteryInterfaceClass, index,
                                              &data)) {
      ReportDevice(list, data, index, &flags);
    } else if (platform::LastError() == platform::kErrorNoMoreItems) {
      break;
    }
  }
  // A machine without a battery runs on the mains.
  if ((flags & kHasBattery) == 0) flags &= ~std::uint32_t{kOnBatteryPower};
  return flags;
}

}  // namespace

void ReportPresenceAndBattery() {
  if (!gMailboxLink->gRequestDevice) return LogInfo("Failed");
  const std::uint32_t presence = gStandby->gUserPresence.load(std::memory_order_relaxed);
  if (!NoteChange(&gStandby->gLastUserPresence, presence)) return;
  if (!ReportPresence(presence)) return;
  const std::uint32_t state = gStandby->gBatteryState.load(std::memory_order_relaxed);
  if (NoteChange(&gStandby->gLastBatteryState, state)) ReportBatteryState(state);
}

std::uint32_t GetCompleteBatteryinformation(BatteryStatusRecord* record) {
  assert(record != nullptr);
  const WmiQuery query{u"SELECT * FROM Win32_Battery", "GetCompleteBatteryinformation"};
  const bool isRead = ReadWmiRows(
      query, [record](const platform::WbemObject& row) { return ReadBatteryRow(row, record); });
  return isRead ? 0 : 1;
}

std::uint32_t ReportBatteryDevices() {
  if (!gMailboxLink->gRequestDevice) {
    LogInfo("Invalid device");
    return 1;
  }
  LogInfo("Checking device");
  (void)WalkBatteries();  // the flags are not used: the firmware has the records
  return 0;
}

}  // namespace stewardry
