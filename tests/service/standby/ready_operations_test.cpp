// The operations that no flow of the service calls, on the real platform: the results that Windows
// (or Wine) and Linux share on any machine. Each case has a service log of its own.
#include <gtest/gtest.h>

#include <string>
#include <thread>

#include "platform/battery.h"
#include "platform/socket.h"
#include "service/diagnostics/service_log.h"
#include "service/inventory/adapters.h"
#include "service/standby/address_dumps.h"
#include "service/standby/address_watch.h"
#include "service/standby/event_sink.h"
#include "service/standby/input_desktop.h"
#include "service/standby/standby_state.h"
#include "tests/eventually.h"
#include "tests/host_file.h"

namespace stewardry {
namespace {

class StandbyOperations : public testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(platform::WSAStartup(), 0);
    MakeRoomFor(path_);
    ASSERT_TRUE(ServiceLog_Start(path_.c_str(), 100 << 20));
  }
  void TearDown() override {
    ServiceLog_Close();
    platform::WSACleanup();
  }
  std::string Log() const { return HostFileText(path_); }
  bool Logged(const std::string& message) const {
    return Log().find(" M ] " + message + " <thread=") != std::string::npos;
  }

 private:
  const std::string path_ = std::string("C:\\ProgramData\\Corvane\\Stewardry\\") +
                            testing::UnitTest::GetInstance()->current_test_info()->name() + ".log";
};

TEST_F(StandbyOperations, ChosenDesktopIsCurrent) {
  // On a thread of its own: the first thread of a test program may have windows.
  std::thread([] {
    ASSERT_TRUE(EnterInteractiveDesktop());
    EXPECT_TRUE(IsWinNT() && IsInputDesktopCurrent());
    EXPECT_TRUE(LeaveInteractiveDesktop());
    ASSERT_TRUE(AttachInputDesktop());
    EXPECT_TRUE(ReturnToOldDesktop());
    platform::DesktopHandle current = nullptr;
    ASSERT_TRUE(SelectDesktop("Default", &current));
    EXPECT_TRUE(SelectDesktop(nullptr, &current));
    ObjectName name{};
    EXPECT_TRUE(ShowObjectName(&current, &name));
    EXPECT_STREQ(name.data(), "Default");
    EXPECT_FALSE(SelectDesktop("No such desktop", &current));
  }).join();
}

// WMI calls the sink through its table of functions: another order would crash the process.
TEST_F(StandbyOperations, SinkHasTheFunctionsOfWmiInTheirOrder) {
  const auto sink = EventSink::Make();
  void* same = nullptr;
  for (const platform::Guid& id : {platform::kIidUnknown, platform::kIidWbemObjectSink}) {
    EXPECT_EQ(sink->QueryInterface(id, &same), 0);
    EXPECT_EQ(same, static_cast<platform::ObjectSink*>(sink.get()));
    EXPECT_EQ(sink->Release(), 1U);
  }
  EXPECT_EQ(sink->QueryInterface(platform::kBatteryInterfaceClass, &same), platform::kNoInterface);
  EXPECT_EQ(same, nullptr);
  EXPECT_EQ(sink->Indicate(-1, nullptr), 0);
  EXPECT_EQ(sink->SetStatus(platform::kWbemStatusProgress, 0, nullptr, nullptr), 0);
  EXPECT_TRUE(Logged("Call in progress."));
  EXPECT_FALSE(sink->IsDone());

  ASSERT_FALSE(platform::Failed(platform::CoInitializeEx()));
  {
    (void)platform::CoInitializeSecurity();  // fails if this process has called it
    platform::WbemLocator locator;
    platform::WbemServices services;
    ASSERT_EQ(platform::CreateWbemLocator(&locator), 0);
    ASSERT_EQ(platform::ConnectServer(locator, u"ROOT\\CIMV2", &services), 0);
    ASSERT_EQ(platform::CoSetProxyBlanket(services), 0);
    ASSERT_EQ(
        platform::ExecQueryAsync(services, u"SELECT * FROM Win32_OperatingSystem", sink.get()), 0);
    EXPECT_TRUE(Eventually([&] { return sink->IsDone(); }));
  }
  EXPECT_TRUE(Logged("Battery 0")) << "an operating system has no BatteryStatus";
  EXPECT_TRUE(Logged("Call complete. hResult = 0x0"));
  platform::CoUninitialize();
}

// Windows counts the terminator of a description, Wine doesn't.
TEST_F(StandbyOperations, SpeedIsReadFromTheFirstRowOfTheNameThatHasOne) {
  for (const std::string& end : {std::string(), std::string(1, '\0')})
    EXPECT_EQ(
        SpeedInTable({{{"eth" + end, 1, 9}, {"eth0" + end, 2, 0}, {"eth0" + end, 3, 7}}}, "eth0"),
        7U);
}

TEST_F(StandbyOperations, AddressesAreWatchedAndDumped) {
  EXPECT_EQ(RegisterNetworkEvent(), 1U);
  EXPECT_TRUE(Logged("Success RegisterNetworkEvent"));
  UnregisterNetworkEvent();
  EXPECT_EQ(gStandby->gIpChangeHandle.load(), nullptr);
  EXPECT_EQ(DumpIpAddrTable(), 0U);
  EXPECT_NE(Log().find("127.0.0.1 <thread="), std::string::npos) << Log();
}

}  // namespace
}  // namespace stewardry
