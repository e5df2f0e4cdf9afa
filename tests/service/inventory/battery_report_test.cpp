// What the firmware receives about batteries and the user's presence, byte for byte.
#include "service/inventory/battery_report.h"

#include <gtest/gtest.h>

#include "service/inventory/event_sink.h"
#include "tests/service/inventory/inventory_fixture.h"

namespace stewardry {
namespace {

constexpr std::uint32_t kPresence = 0x9C41A420;
constexpr std::uint32_t kCritical = 0x9C41A418;
constexpr std::uint32_t kDrained = 0x9C41A41C;
constexpr std::uint32_t kBattery = 0x9C41A414;

// Has every property; discharging.
constexpr char kInner[] =
    "BAT0 chemistry=LION designed=50000 full=45000 capacity=20000 voltage=12000 rate=-8000 "
    "cycles=120\n";
constexpr char kOuter[] = "BAT1 chemistry=PbAc full=9000 capacity=9000 online\n";

using BatteryReport = ReportTest;

TEST_F(BatteryReport, ChangedPresenceIsSentAndThenAChangedState) {
  const struct {
    const char* name;
    std::uint32_t presence, battery;
    Codes sent;
  } kRows[] = {
      {"start values", 3, 3, {}},
      {"battery event alone", 3, kBatteryIsCritical, {}},
      {"user comes", 0, kBatteryIsCritical, {kPresence, kCritical}},
      {"user stays", 0, kBatteryIsDrained, {}},
      {"user leaves", 2, kBatteryIsDrained, {kPresence, kDrained}},
      {"state without a control code", 1, 7, {kPresence}},
      {"same state", 0, 7, {kPresence}},
  };
  Codes expected;
  for (const auto& row : kRows) {
    gUserPresence = row.presence;
    gBatteryState = row.battery;
    ReportPresenceAndBattery();
    expected.insert(expected.end(), row.sent.begin(), row.sent.end());
    EXPECT_EQ(Sent(), expected) << row.name;
  }
  EXPECT_EQ(Message<std::uint32_t>(0), 1U) << "present";
  EXPECT_EQ(Message<std::uint32_t>(2), 2U) << "absent";
  EXPECT_EQ(Message<BatteryStatusRecord>(1).batteryState, kBatteryIsCritical);
  EXPECT_TRUE(InOrder(
      ServiceMessages(),
      {"StatusChanged of user 0", "StatusChanged of Battery 1", "StatusChanged of user 2",
       "StatusChanged of Battery 2", "StatusChanged of user 1", "StatusChanged of Battery 7"}));
  CloseOrrinDevice();
  gUserPresence = 5;
  ReportPresenceAndBattery();
  EXPECT_EQ(ServiceMessages().back(), "Failed");
  EXPECT_EQ(gLastUserPresence.load(), 0U) << "the change is sent once there is a mailbox";
}

TEST_F(BatteryReport, LastBatteryOfWmiFillsTheRecord) {
  Put("batteries.txt", std::string(kOuter) + kInner);
  BatteryStatusRecord record{};
  EXPECT_EQ(GetCompleteBatteryinformation(&record), 0U);
  // Availability 3, 337 minutes from full, 150 from now, time to full unknown.
  const std::uint64_t kValues[] = {1, 0, 3, 3, 6, 337, 150, 71582788};
  for (std::size_t i = 0; i < std::size(kValues); ++i) {
    EXPECT_EQ(record.values[i].type, i == 1 ? 8 : 3) << i;  // Status is a text
    EXPECT_EQ(record.values[i].value, kValues[i]) << i;
  }
  EXPECT_EQ(WmiMessages(),
            (Lines{"Connected to ROOT\\CIMV2 WMI namespace", "Got the data successfully",
                   "Got the data successfully", "closed here"}));
  BatteryStatusRecord partial{};
  gate::FailNext("Get", 0x80041002, 8);  // the first property of the last row
  EXPECT_EQ(GetCompleteBatteryinformation(&partial), 0U);
  EXPECT_EQ(partial.values[0].type, 0);
  EXPECT_EQ(partial.values[2].value, 3U);
}

TEST_F(BatteryReport, FailedRequestHasItsOwnWording) {
  const struct {
    const char* call;
    std::uint64_t skip;
    const char* line;
    std::uint32_t state;  // last reported; a request that can't be started ends the report
  } kRows[] = {
      {"CreateEventA", 0, "Error creating overlapped event for interrupt thread - with error: 8",
       3},
      {"DeviceIoControl", 0, "Asynchronous userinfo command failed for userlogged with error: 8",
       3},
      {"GetOverlappedResult", 0,
       "GetOverlappedResult failed for userinfo with error: 8 for userlogged", 1},
      {"CreateEventA", 1, "Error creating overlapped event for interrupt thread - with erro: 8", 1},
      {"DeviceIoControl", 1,
       "Asynchronous batteryinfo for battery command failed for battery with error: 8", 1},
      {"GetOverlappedResult", 1,
       "GetOverlappedResult failed for batteryinfo with error: 8 for battery", 1},
  };
  gUserPresence = 0;
  gBatteryState = kBatteryIsCritical;
  for (const auto& row : kRows) {
    gLastUserPresence = gLastBatteryState = 3;
    gate::Arm();
    gate::FailNext(row.call, 8, row.skip);
    ReportPresenceAndBattery();
    EXPECT_TRUE(InOrder(ServiceMessages(), {row.line}));
    EXPECT_EQ(gLastBatteryState.load(), row.state) << row.line;
  }
}

TEST_F(BatteryReport, EachDeviceHasARecord) {
  Put("batteries.txt",
      std::string(kInner) + kOuter + "UPS0 shortterm online\nMOUSE device\nSLOT notag\n");
  EXPECT_EQ(ReportBatteryDevices(), 0U);
  ASSERT_EQ(Sent(), (Codes(4, kBattery)));
  const auto inner = Message<BatteryInfoRecord>(0);
  EXPECT_EQ(inner.information.capabilities, 0x80000000);
  EXPECT_EQ(std::string(inner.information.chemistry, 4), "LION");
  EXPECT_EQ(inner.information.designedCapacity, 50000U);
  EXPECT_EQ(inner.information.cycleCount, 120U);
  EXPECT_EQ(inner.status.powerState, platform::kBatteryDischarging);
  EXPECT_EQ(inner.status.voltage, 12000U);
  EXPECT_EQ(inner.status.rate, -8000);
  EXPECT_EQ(Message<BatteryInfoRecord>(1).status.powerState, platform::kBatteryPowerOnLine);
  EXPECT_EQ(Message<BatteryInfoRecord>(2).information.capabilities, 0xA0000000);
  EXPECT_EQ(Message<BatteryInfoRecord>(3).status.capacity, 0U) << "no system battery, no status";
  EXPECT_EQ(ServiceMessages(),
            (Lines{"Checking device", "Battery 0 info", "Battery 0 GBS_HASBATTERY", "Junk : 0",
                   "Battery 1 info", "Battery 1 GBS_HASBATTERY", "Battery 1 BATTERY_POWER_ON_LINE",
                   "Junk : 0", "Battery 2 info", "Battery 2 BATTERY_POWER_ON_LINE", "Junk : 0",
                   "Battery 3 info", "Junk : 0"}));
}

TEST_F(BatteryReport, AtMostAHundredDevicesAreReported) {
  for (const std::size_t count : {0U, 120U}) {
    std::string batteries;
    for (std::size_t i = 0; i < count; ++i) batteries += "B" + std::to_string(i) + "\n";
    Put("batteries.txt", batteries);
    EXPECT_EQ(ReportBatteryDevices(), 0U);
    EXPECT_EQ(Sent().size(), std::min<std::size_t>(count, 100));
  }
  CloseOrrinDevice();
  EXPECT_EQ(ReportBatteryDevices(), 1U);
  EXPECT_EQ(ServiceMessages().back(), "Invalid device");
}

TEST_F(BatteryReport, FailureOfOneDeviceLeavesTheOther) {
  Put("batteries.txt", std::string(kInner) + kOuter);
  gate::FailNth(1000, 31);
  ReportBatteryDevices();
  const std::uint64_t calls = gate::Calls();
  std::size_t sent = Sent().size();
  ASSERT_EQ(sent, 2U);
  for (std::uint64_t n = 1; n <= calls; ++n) {
    gate::Arm();
    gate::FailNth(n, 31);
    EXPECT_EQ(ReportBatteryDevices(), 0U);
    const std::string hit = gate::Hit();
    const std::size_t now = Sent().size() - sent;
    sent += now;
    EXPECT_GE(now, hit.find("SetupDiGetClassDevsA") == 0 ? 0U : 1U) << hit;
    EXPECT_LE(now, 2U) << hit;
    EXPECT_EQ(CountCalls("CloseHandle") + (hit.find("CreateFileA") == 0), CountCalls("CreateFileA"))
        << hit;
  }
  StartServiceLog();
  gate::FailNext("DeviceIoControl", 31, 3);  // behind tag, information and status
  ReportBatteryDevices();
  EXPECT_TRUE(InOrder(ServiceMessages(), {"Battery 0 GBS_HASBATTERY", "IOCTL failed",
                                          "Battery 1 GBS_HASBATTERY", "Junk : 0"}));
}

// A query under way keeps a reference to its sink, and each row comes with one that is released.
TEST_F(BatteryReport, AsynchronousQueryDeliversItsRowsAndItsEnd) {
  Put("batteries.txt", std::string(kInner) + kOuter);
  ASSERT_EQ(platform::CoInitializeEx(), 0);
  {
    platform::WbemLocator locator;
    platform::WbemServices services;
    ASSERT_EQ(platform::CreateWbemLocator(&locator), 0);
    ASSERT_EQ(platform::ConnectServer(locator, u"ROOT\\CIMV2", &services), 0);
    const auto sink = EventSink::Make();
    ASSERT_EQ(platform::ExecQueryAsync(services, u"SELECT * FROM Win32_Battery", sink.get()), 0);
    EXPECT_TRUE(Eventually([&] {
      sink->AddRef();
      return sink->Release() == 1;
    })) << "the query releases its sink";
    EXPECT_TRUE(sink->IsDone());
    EXPECT_EQ(ServiceMessages(), (Lines{"Battery 1", "Battery 3", "Call complete. hResult = 0x0"}));
    EXPECT_EQ(WmiMessages(), Lines(2, "Event occurred"));
    const auto failing = EventSink::Make();
    ASSERT_EQ(platform::ExecQueryAsync(services, u"SELECT * FROM No_Such", failing.get()), 0);
    EXPECT_TRUE(Eventually([&] { return failing->IsDone(); }));
    EXPECT_EQ(ServiceMessages().back(), "Call complete. hResult = 0x80041010");
    gate::FailNext("CreateThread", 8);
    EXPECT_TRUE(platform::Failed(
        platform::ExecQueryAsync(services, u"SELECT * FROM Win32_Battery", failing.get())));
  }
  platform::CoUninitialize();
}

}  // namespace
}  // namespace stewardry
