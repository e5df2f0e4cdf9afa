// What the firmware hears of batteries and of the user's presence, byte for byte.
#include "service/inventory/battery_report.h"

#include <gtest/gtest.h>

#include "service/inventory/event_sink.h"
#include "tests/service/inventory/report_test_base.h"

namespace stewardry {
namespace {

using platform::gate::FailEvery;
using platform::gate::FailNext;

constexpr std::uint32_t kPresence = 0x9C41A420;
constexpr std::uint32_t kCritical = 0x9C41A418;
constexpr std::uint32_t kDrained = 0x9C41A41C;
constexpr std::uint32_t kBattery = 0x9C41A414;

// Full of facts; on the battery.
constexpr char kInner[] =
    "BAT0 chemistry=LION designed=50000 full=45000 capacity=20000 voltage=12000 rate=-8000 "
    "cycles=120\n";
constexpr char kOuter[] = "BAT1 chemistry=PbAc full=9000 capacity=9000 online\n";

class BatteryReport : public ReportTest {
 protected:
  void SetUp() override {
    ReportTest::SetUp();
    for (auto* value : {&gUserPresence, &gBatteryState, &gLastUserPresence, &gLastBatteryState})
      value->store(3);
  }
  static platform::RawVariant Number(std::uint64_t value) { return {3, {}, value, 0}; }
  static bool Same(const platform::RawVariant& a, const platform::RawVariant& b) {
    return std::memcmp(&a, &b, sizeof a) == 0;
  }
};

TEST_F(BatteryReport, AnUnchangedPresenceOrStateIsTold) {
  struct Row {
    const char* fault;
    std::uint32_t presence, battery;  // as the power events have left them
    Codes sent;
  };
  const Row kRows[] = {
      {"the start values", 3, 3, {}},
      {"a battery event alone", 3, kBatteryIsCritical, {}},
      {"a user who comes, and with him the state", 0, kBatteryIsCritical, {kPresence, kCritical}},
      {"a user who is there", 0, kBatteryIsDrained, {}},
      {"a user who leaves", 2, kBatteryIsDrained, {kPresence, kDrained}},
      {"a state without a control code", 1, 7, {kPresence}},
      {"the same state", 0, 7, {kPresence}},
  };
  std::size_t before = 0;
  for (const Row& row : kRows) {
    gUserPresence = row.presence;
    gBatteryState = row.battery;
    ReportPresenceAndBattery();
    const Codes all = Sent();
    EXPECT_EQ(Codes(all.begin() + static_cast<std::ptrdiff_t>(before), all.end()), row.sent)
        << row.fault;
    before = all.size();
  }
  EXPECT_EQ(Message<std::uint32_t>(0), 1U) << "the user is there";
  EXPECT_EQ(Message<std::uint32_t>(2), 2U) << "the user isn't";
  EXPECT_TRUE(InOrder(
      ServiceMessages(),
      {"StatusChanged of user 0", "StatusChanged of Battery 1", "StatusChanged of user 2",
       "StatusChanged of Battery 2", "StatusChanged of user 1", "StatusChanged of Battery 7"}));
}

TEST_F(BatteryReport, TheLastBatteryOfWmiIsntTheOneInTheRecord) {
  Put("batteries.txt", std::string(kOuter) + kInner);
  gUserPresence = 0;
  gBatteryState = kBatteryIsDrained;
  ReportPresenceAndBattery();
  const auto record = Message<BatteryStatusRecord>(1);
  // Availability 3, full for 337 minutes, 150 left, unknown to full.
  const std::uint64_t kWanted[] = {1, 0, 3, 3, 6, 337, 150, 71582788};
  for (std::size_t i = 0; i < std::size(kWanted); ++i) {
    // Status is a text: its type alone is told.
    const platform::RawVariant text{8, {}, 0, 0};
    EXPECT_TRUE(Same(record.values[i], i == 1 ? text : Number(kWanted[i]))) << i;
  }
  EXPECT_EQ(record.batteryState, 2U);
  EXPECT_EQ(record.reserved, 0U);
  EXPECT_TRUE(
      InOrder(WmiMessages(), {"Connected to ROOT\\CIMV2 WMI namespace", "Got the data successfully",
                              "Got the data successfully", "closed here"}));
}

TEST_F(BatteryReport, AWmiFailureKeepsTheStateFromTheFirmware) {
  Put("batteries.txt", kInner);
  BatteryStatusRecord record{};
  FailNext("CoInitializeSecurity", 0x80010119);
  EXPECT_EQ(GetCompleteBatteryinformation(&record), 1U);
  EXPECT_TRUE(InOrder(WmiMessages(), {"Failed to initialize security in "
                                      "GetCompleteBatteryinformation(). Error code = 0x80010119"}));
  for (const char* call :
       {"CoInitializeEx", "CoCreateInstance", "ConnectServer", "CoSetProxyBlanket", "ExecQuery"}) {
    FailNext(call, 5);
    EXPECT_EQ(GetCompleteBatteryinformation(&record), 1U) << call;
  }
  EXPECT_EQ(record.values[0].type, 0);
  FailNext("Get", 0x80041002);  // one property is missing
  EXPECT_EQ(GetCompleteBatteryinformation(&record), 0U);
  EXPECT_EQ(record.values[0].type, 0);
  EXPECT_EQ(record.values[2].value, 3U);
  FailNext("CoCreateInstance", 5);
  gUserPresence = 0;
  gBatteryState = kBatteryIsCritical;
  ReportPresenceAndBattery();
  EXPECT_EQ(Sent(), (Codes{kPresence, kCritical}));
}

TEST_F(BatteryReport, AFailedRequestHasAnothersWording) {
  struct Row {
    const char* call;
    std::uint64_t skip;  // as many that pass
    std::uint32_t error;
    const char* line;
  };
  constexpr Row kRows[] = {
      {"CreateEventA", 0, 8,
       "Error creating overlapped event for interrupt thread - with error: 8"},
      {"DeviceIoControl", 0, 21,
       "Asynchronous userinfo command failed for userlogged with error: 21"},
      {"GetOverlappedResult", 0, 995,
       "GetOverlappedResult failed for userinfo with error: 995 for userlogged"},
      {"CreateEventA", 1, 8, "Error creating overlapped event for interrupt thread - with erro: 8"},
      {"DeviceIoControl", 1, 21,
       "Asynchronous batteryinfo for battery command failed for battery with error: 21"},
      {"GetOverlappedResult", 1, 995,
       "GetOverlappedResult failed for batteryinfo with error: 995 for battery"},
  };
  for (const Row& row : kRows) {
    gLastUserPresence = gLastBatteryState = 3;
    gUserPresence = 0;
    gBatteryState = kBatteryIsCritical;
    platform::gate::Arm();
    FailNext(row.call, row.error, row.skip);
    ReportPresenceAndBattery();
    EXPECT_TRUE(InOrder(ServiceMessages(), {row.line}));
    // A request that couldn't be started ends the report.
    const bool ended = row.skip == 0 && row.call[0] != 'G';
    EXPECT_EQ(gLastBatteryState.load(), ended ? 3U : 1U) << row.line;
  }
  for (const std::uint32_t code : {kPresence, kCritical}) firmware_->SetAnswer(code, "");
  CloseOrrinDevice();
  gUserPresence = 5;
  ReportPresenceAndBattery();
  EXPECT_EQ(ServiceMessages().back(), "Failed");
  EXPECT_EQ(gLastUserPresence.load(), 0U) << "a change is told once there is a mailbox";
}

TEST_F(BatteryReport, ADevicesRecordHoldsAnothersBytes) {
  Put("batteries.txt",
      std::string(kInner) + kOuter + "UPS0 shortterm online\nMOUSE device\n" + "SLOT notag\n");
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
  EXPECT_EQ(Message<BatteryInfoRecord>(3).information.capabilities, 0U);
  EXPECT_EQ(Message<BatteryInfoRecord>(3).status.capacity, 0U) << "only a system battery has one";
  EXPECT_EQ(ServiceMessages(),
            (std::vector<std::string>{
                "Checking device", "Battery 0 info", "Battery 0 GBS_HASBATTERY", "Junk : 0",
                "Battery 1 info", "Battery 1 GBS_HASBATTERY", "Battery 1 BATTERY_POWER_ON_LINE",
                "Junk : 0", "Battery 2 info", "Battery 2 BATTERY_POWER_ON_LINE", "Junk : 0",
                "Battery 3 info", "Junk : 0"}));
}

TEST_F(BatteryReport, AMachineWithoutBatteriesOrWithTooManyOfThem) {
  Put("batteries.txt", "");
  EXPECT_EQ(ReportBatteryDevices(), 0U);
  EXPECT_TRUE(Sent().empty());
  std::string many;
  for (int i = 0; i < 120; ++i) many += "B" + std::to_string(i) + "\n";
  Put("batteries.txt", many);
  EXPECT_EQ(ReportBatteryDevices(), 0U);
  EXPECT_EQ(Sent().size(), 100U);
  CloseOrrinDevice();
  EXPECT_EQ(ReportBatteryDevices(), 1U);
  EXPECT_EQ(ServiceMessages().back(), "Invalid device");
}

TEST_F(BatteryReport, AFailureOfOneDeviceKeepsTheNextFromBeingToldOrLeaks) {
  Put("batteries.txt", std::string(kInner) + kOuter);
  platform::gate::FailNth(1000, 31);
  ReportBatteryDevices();
  const std::uint64_t calls = platform::gate::Calls();
  std::size_t sent = Sent().size();
  ASSERT_EQ(sent, 2U);
  for (std::uint64_t n = 1; n <= calls; ++n) {
    platform::gate::FailNth(n, 31);
    EXPECT_EQ(ReportBatteryDevices(), 0U);
    const std::string hit = platform::gate::Hit();
    const std::size_t now = Sent().size() - sent;
    sent += now;
    // Only a device list that can't be had tells of no battery.
    EXPECT_GE(now, hit.find("SetupDiGetClassDevsA") == 0 ? 0U : 1U) << hit;
    EXPECT_LE(now, 2U) << hit;
  }
  StartServiceLog();
  FailNext("DeviceIoControl", 31, 3);  // behind tag, information and status
  ReportBatteryDevices();
  EXPECT_TRUE(InOrder(ServiceMessages(), {"Battery 0 GBS_HASBATTERY", "IOCTL failed",
                                          "Battery 1 GBS_HASBATTERY", "Junk : 0"}));
  platform::gate::Arm();
  ReportBatteryDevices();
  EXPECT_EQ(CountCalls("LocalAlloc"), CountCalls("LocalFree"));
  EXPECT_EQ(CountCalls("CreateFileA"), CountCalls("CloseHandle"));
}

// A query under way keeps its sink alive, and each row comes with a reference that goes again.
TEST_F(BatteryReport, AnAsynchronousQueryLosesARowItsEndOrItsSink) {
  Put("batteries.txt", std::string(kInner) + kOuter);
  ASSERT_EQ(platform::CoInitializeEx(), 0);
  {
    platform::WbemLocator locator;
    platform::WbemServices services;
    ASSERT_EQ(platform::CreateWbemLocator(&locator), 0);
    ASSERT_EQ(platform::ConnectServer(locator, u"ROOT\\CIMV2", &services), 0);
    const auto sink = EventSink::Make();
    ASSERT_EQ(platform::ExecQueryAsync(services, u"SELECT * FROM Win32_Battery", sink.get()), 0);
    EXPECT_TRUE(Eventually([&] { return sink->IsDone(); }));
    EXPECT_TRUE(Eventually([&] {
      sink->AddRef();
      return sink->Release() == 1;
    })) << "the query keeps its reference";
    EXPECT_EQ(ServiceMessages(),
              (std::vector<std::string>{"Battery 1", "Battery 3", "Call complete. hResult = 0x0"}));
    EXPECT_EQ(WmiMessages(), std::vector<std::string>(2, "Event occurred"));
    // A query that can't be asked ends all the same.
    const auto failing = EventSink::Make();
    ASSERT_EQ(platform::ExecQueryAsync(services, u"SELECT * FROM No_Such", failing.get()), 0);
    EXPECT_TRUE(Eventually([&] { return failing->IsDone(); }));
    EXPECT_EQ(ServiceMessages().back(), "Call complete. hResult = 0x80041010");
    FailNext("CreateThread", 8);
    EXPECT_TRUE(platform::Failed(
        platform::ExecQueryAsync(services, u"SELECT * FROM Win32_Battery", failing.get())));
  }
  platform::CoUninitialize();
}

}  // namespace
}  // namespace stewardry
