#include "service/host/control.h"

#include <gtest/gtest.h>

#include <cstring>
#include <tuple>
#include <vector>

#include "service/host/resume.h"
#include "service/host/start_up.h"
#include "service/inventory/reports.h"
#include "service/inventory/status_report.h"
#include "service/kvm/kvm_state.h"
#include "service/kvm/session.h"
#include "service/kvm/shared_region.h"
#include "service/mailbox/control_codes.h"
#include "service/standby/address_watch.h"
#include "service/standby/standby_state.h"
#include "tests/service/mailbox_fixture.h"

namespace stewardry {
namespace {

using Calls = std::vector<std::string>;

std::uint32_t WaitForEver(void* event) {
  return platform::WaitForSingleObject(*static_cast<platform::Event*>(event), platform::kInfinite);
}

class Control : public MailboxTest {
 protected:
  void SetUp() override {
    MailboxTest::SetUp();
    OpenMailbox();
    Renew(&gServiceControl);
    gServiceControl->gServiceStopEvent = platform::CreateEventA(true, false);
    for (const int slot : {kServerThread, kReaderThread})
      gServiceControl->gServiceThreads[slot] = platform::CreateThread(WaitForEver, &never_);
    gate::Arm();
  }
  void TearDown() override {
    gate::Disarm();
    for (platform::Thread& thread : gServiceControl->gServiceThreads)
      if (thread) EndThread(&thread);
    MailboxTest::TearDown();
  }
  static Calls ControlCalls() {
    return CallsOf({"DeviceIoControl", "GetExitCodeThread", "TerminateThread", "CancelIoEx",
                    "SetEvent", "SetServiceStatus"});
  }
  static void Setting(const platform::Guid& guid, std::uint32_t value) {
    std::uint8_t event[24] = {};
    std::memcpy(event, &guid, sizeof guid);
    event[16] = 4;  // the size of the value
    std::memcpy(event + 20, &value, 4);
    SvcCtrlHandler(13, 0x8013, event, nullptr);
  }

 private:
  platform::Event never_ = platform::CreateEventA(true, false);
};

// Meanwhile the watch reports a change to a firmware that doesn't answer.
TEST_F(Control, StopEndsWatchAndThreadsInOrderWithoutTheFirmwareAndClosesTheLog) {
  constexpr std::uint32_t kBooted = ControlCodeFor(Operation::kSendSystemBooted).code;
  const std::ptrdiff_t before = Held().threads;
  Put("adapters.txt", "eth0 mac=02:00:00:00:00:01 index=3 address=192.168.1.5/24\n");
  firmware_->SetVerdict(kBooted, FirmwarePeer::kHold);
  ASSERT_EQ(RegisterNetworkEvent(), 1U);
  SendDatagram(lab() + "/addresses", "change");
  ASSERT_TRUE(firmware_->Await(kBooted));
  gate::Arm();
  gReports->gTavrinRunning = 1;
  EXPECT_EQ(SvcCtrlHandler(1, 0, nullptr, nullptr), 0U);
  Calls calls = ControlCalls();
  std::erase_if(calls, [](const std::string& call) { return call.starts_with("DeviceIo"); });
  EXPECT_EQ(calls, (Calls{"SetServiceStatus(16 3 1 0 0 1 0)", "GetExitCodeThread()",
                          "TerminateThread(exitCode=259)", "GetExitCodeThread()",
                          "TerminateThread(exitCode=259)", "CancelIoEx()", "SetEvent()",
                          "SetServiceStatus(16 3 1 0 0 2 0)"}));
  ASSERT_TRUE(Eventually([&] { return Held().threads == before - 2; })) << "the watch has ended";
  EXPECT_LE(firmware_->Requests().size(), 2U) << "the watch's own";
  EXPECT_EQ(gReports->gTavrinRunning.load(), 0U);
  EXPECT_EQ(gStandby->gIpChangeHandle.load(), nullptr);
  LogInfo("after the close");
  EXPECT_FALSE(Logged("after the close"));
}

// No thread can be ended from outside here.
TEST_F(Control, NextResumeEndsTheOlderReport) {
  gMailboxLink->gTavrinVersionInfo.Update([](auto& info) { info.provisionStatus = kProvisioned; });
  Put("connected.txt", "no");
  gate::FailEvery("TerminateThread", 5);
  const std::ptrdiff_t before = Held().threads;
  for (int i = 0; i < 3; ++i) ResumeReport();
  EXPECT_TRUE(Eventually([&] { return Held().threads == before + 1; }));
}

TEST_F(Control, PreshutdownReportsToTheFirmwareAndLeavesTheServiceRunning) {
  gReports->gTavrinRunning = 1;
  gate::FailNext("CancelIoEx", 1168);
  SvcCtrlHandler(15, 0, nullptr, nullptr);
  EXPECT_EQ(ControlCalls(),
            (Calls{"DeviceIoControl(0x9C41A460, in 2, out 0)", "GetExitCodeThread()",
                   "TerminateThread(exitCode=259)", "GetExitCodeThread()",
                   "TerminateThread(exitCode=259)", "CancelIoEx()"}));
  EXPECT_EQ(gReports->gTavrinRunning.load(), 1U);
  EXPECT_TRUE(Logged("CancelIO called preshutdown\nCancelIoEx failed 1168"));
}

TEST_F(Control, PowerEventStoresItsValue) {
  const std::tuple<int, const char*, std::uint32_t> kRows[] = {
      {1, "GUID_BATTERY_PERCENTAGE_REMAINING Event", 3},
      {2, "Battery is Critical 17", 1},
      {4, "Battery is Drained 17", 2},
      {10, "GUID_BATTERY_PERCENTAGE_REMAINING Event", 2}};
  for (const auto& [flag, line, state] : kRows) {
    std::ofstream(lab() + "/battery.txt") << "0 " << flag << " 17";
    Setting(platform::kGuidBatteryPercentageRemaining, 17);
    EXPECT_TRUE(Logged(line));
    EXPECT_EQ(gStandby->gBatteryState.load(), state);
  }
  EXPECT_EQ(CountOf(Messages(), "Battery is "), 2U);
  Setting(platform::kGuidGlobalUserPresence, 2);
  gate::FailNext("GetSystemPowerStatus", 5);
  Setting(platform::kGuidGlobalUserPresence, 0);
  EXPECT_EQ(gStandby->gUserPresence.load(), 2U);
  SvcCtrlHandler(13, 0, nullptr, nullptr);  // without data nothing is read
}

// A logon must never stop a part of the service.
TEST_F(Control, LogonWritesItsLinesAndKeepsTheSession) {
  for (std::uint32_t event = 4; event <= 9; ++event) SvcCtrlHandler(14, event, nullptr, nullptr);
  gKvm->gKeyboardMouseReady = 1;
  gKvm->gKvmSocketState = kKvmSessionUp;
  gKvm->gKvmEnabled = 1;
  for (const std::uint64_t region : {0, 0x10000}) {
    gServiceControl->gSessionLogonCount = 1;
    gKvm->KeyBoardBufferVirtualAddress = region;
    SvcCtrlHandler(14, 5, nullptr, nullptr);
  }
  SvcCtrlHandler(14, 5, nullptr, nullptr);
  EXPECT_TRUE(gKvm->gKvmSocketState == kKvmSessionUp && gKvm->gKvmEnabled == 1);
  const std::string side = FileText(kKeyboardMouseLog);
  const std::pair<const char*, std::size_t> kLines[] = {{"WTS_SESSION_LOGOFF", 1},
                                                        {"WTS_SESSION_LOCK", 1},
                                                        {"WTS_SESSION_UNLOCK", 1},
                                                        {": disabled: KVM", 1},
                                                        {": enabled: KVM", 3},
                                                        {"Requested Terminate KVM session\n", 1},
                                                        {"Keyboard ring buffer invalid\n", 1},
                                                        {"terminated and Reboot initiated\n", 3}};
  for (const auto& [line, count] : kLines) EXPECT_EQ(CountOf(side, line), count) << line;
  EXPECT_EQ(CallsOf({"TerminateThread", "SetEvent", "CreateThread", "DeviceIoControl"}), Calls{});
}

}  // namespace
}  // namespace stewardry
