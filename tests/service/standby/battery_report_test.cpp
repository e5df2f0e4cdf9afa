#include "service/standby/battery_report.h"

#include <gtest/gtest.h>

#include <tuple>

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
  Codes expected;
  using Row = std::tuple<std::uint32_t, std::uint32_t, Codes>;
  for (const auto& [presence, battery, sent] :
       {Row{3, 3, {}},                   // the start values
        Row{3, kBatteryIsCritical, {}},  // a battery event alone
        Row{0, kBatteryIsCritical, {kPresence, kCritical}}, Row{0, kBatteryIsDrained, {}},
        Row{2, kBatteryIsDrained, {kPresence, kDrained}},
        Row{1, 7, {kPresence}},     // a state without a control code
        Row{0, 7, {kPresence}}}) {  // the same state
    gStandby->gUserPresence = presence;
    gStandby->gBatteryState = battery;
    ReportPresenceAndBattery();
    expected.insert(expected.end(), sent.begin(), sent.end());
    EXPECT_EQ(Sent(), expected) << presence << " " << battery;
  }
  EXPECT_EQ(Message<std::uint32_t>(0), 1U) << "present";
  EXPECT_EQ(Message<std::uint32_t>(2), 2U) << "absent";
  EXPECT_EQ(Message<BatteryStatusRecord>(1).batteryState, kBatteryIsCritical);
  EXPECT_TRUE(Logged("StatusChanged of user 2") && Logged("StatusChanged of Battery 7"));
  CloseOrrinDevice();
  gStandby->gUserPresence = 5;
  ReportPresenceAndBattery();
  EXPECT_EQ(ServiceMessages().back(), "Failed");
  EXPECT_EQ(gStandby->gLastUserPresence.load(), 0U) << "the change is sent once there is a mailbox";
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
}

TEST_F(BatteryReport, EachDeviceHasARecord) {
  Put("batteries.txt",
      std::string(kInner) + kOuter + "UPS0 shortterm online\nMOUSE device\nSLOT notag\n");
  EXPECT_EQ(ReportBatteryDevices(), 0U);
  ASSERT_EQ(Sent(), (Codes(4, kBattery)));
  const auto inner = Message<BatteryInfoRecord>(0);
  EXPECT_EQ(inner.information.capabilities, 0x80000000);
  EXPECT_EQ(std::string(inner.information.chemistry, 4), "LION");
  EXPECT_EQ(inner.status.powerState, platform::kBatteryDischarging);
  EXPECT_EQ(Message<BatteryInfoRecord>(2).information.capabilities, 0xA0000000);
  EXPECT_EQ(Message<BatteryInfoRecord>(3).status.capacity, 0U) << "no system battery, no status";
  EXPECT_EQ(ServiceMessages(),
            (Lines{"Checking device", "Battery 0 info", "Battery 0 GBS_HASBATTERY", "Junk : 0",
                   "Battery 1 info", "Battery 1 GBS_HASBATTERY", "Battery 1 BATTERY_POWER_ON_LINE",
                   "Junk : 0", "Battery 2 info", "Battery 2 BATTERY_POWER_ON_LINE", "Junk : 0",
                   "Battery 3 info", "Junk : 0"}));
  CloseOrrinDevice();
  EXPECT_EQ(ReportBatteryDevices(), 1U);
  EXPECT_EQ(ServiceMessages().back(), "Invalid device");
}

TEST_F(BatteryReport, FailureOfOneDeviceDoesNotAffectTheOther) {
  Put("batteries.txt", std::string(kInner) + kOuter);
  gate::FailNth(1000, 31);
  ReportBatteryDevices();
  const std::uint64_t calls = gate::Calls();
  for (std::uint64_t n = 1; n <= calls; ++n) {
    const std::size_t before = Sent().size();
    gate::Arm();
    gate::FailNth(n, 31);
    EXPECT_EQ(ReportBatteryDevices(), 0U);
    const std::string hit = gate::Hit();
    EXPECT_GE(Sent().size() - before, hit.find("SetupDiGetClassDevsA") == 0 ? 0U : 1U) << hit;
    EXPECT_EQ(CountCalls("CloseHandle") + (hit.find("CreateFileA") == 0), CountCalls("CreateFileA"))
        << hit;
  }
}

}  // namespace
}  // namespace stewardry
