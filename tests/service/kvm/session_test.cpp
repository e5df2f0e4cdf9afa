#include "service/kvm/session.h"

#include <gtest/gtest.h>

#include "service/inventory/ip_config.h"
#include "tests/service/kvm/session_fixture.h"

namespace stewardry {
namespace {

constexpr std::uint32_t kOther = 0x0A00000A;  // 10.0.0.10

class KvmSession : public KvmTest {};

TEST_F(KvmSession, CommandsInEachOrderEndInTheirState) {
  struct Row {
    const char* order;  // E enable, T trust, C close
    std::uint16_t stateBefore;
    int enabled;
    std::uint32_t trusted;
    std::uint16_t stateAfter;
    const char* sequence;
  };
  constexpr Row kRows[] = {
      {"T", 0, 0, 0, 0, ""},          {"C", 2, 0, 0, 2, ""},        {"EET", 0, 1, kOther, 0, ""},
      {"ETC", 0, 0, 0, 2, "RC"},      {"ETC", 2, 1, kOther, 2, ""}, {"ECT", 0, 0, 0, 2, "RC"},
      {"TEC", 0, 0, 0, 2, "RC"},      {"TEC", 2, 1, 0, 2, ""},      {"TCE", 0, 1, 0, 2, "RC"},
      {"CET", 0, 1, kOther, 2, "RC"}, {"ETECC", 0, 0, 0, 2, "RC"},
  };
  for (const Row& row : kRows) {
    SCOPED_TRACE(row.order);
    gKvm->gKvmEnabled = 0;
    gKvm->gKvmTrustedIP = gKvm->gKvmTrustedPort = 0;
    gKvm->gKvmSocketState = row.stateBefore;
    const std::size_t before = Sequence().size();
    for (const char* command = row.order; *command != 0; ++command)
      *command == 'E' ? Enable() : *command == 'T' ? Trust(kOther) : CloseByFirmware();
    EXPECT_EQ(gKvm->gKvmEnabled.load(), row.enabled);
    EXPECT_EQ(gKvm->gKvmTrustedIP.load(), row.trusted);
    EXPECT_EQ(gKvm->gKvmSocketState.load(), row.stateAfter);
    EXPECT_EQ(Sequence().substr(before), row.sequence);
  }
  EXPECT_TRUE(Logged("KVM is disabled"));
  EXPECT_TRUE(Logged("IP: 0xa00000a & Port: 0x1010101"));
  EXPECT_TRUE(Logged("shutdown error 10038")) << "without a session there is nothing to half-close";
  Enable();
  Command(ORRIN_TAVRIN_CMD_KVM_IP_PORT_INFO, "\1\2\3\4\5");
  EXPECT_EQ(gKvm->gKvmTrustedIP.load(), 0x04030201U);
  EXPECT_EQ(gKvm->gKvmTrustedPort.load(), 5U) << "the rest stays as it was";
}

// The host side is up before the announcement.
TEST_F(KvmSession, BeginAndEndFollowTheirOrder) {
  Enable();
  Trust(kLoopbackAddress);
  ASSERT_TRUE(Listening());
  const Holdings idle = Held();
  TcpClient viewer(22);
  ASSERT_TRUE(Served());
  EXPECT_EQ(Sequence(), "ASI");
  IPInfo info;
  std::memcpy(&info, firmware_->Requests().back().input.data(), sizeof info);
  EXPECT_EQ(info.localPort, 22U);
  EXPECT_EQ(info.remoteAddress, kLoopbackAddress);
  EXPECT_NE(info.remotePort, 0U);
  EXPECT_EQ(TrayStatus(), "YES");
  EXPECT_EQ(gKvm->gKvmSocketState.load(), kKvmSessionUp);
  EXPECT_EQ(Held().threads, idle.threads + 3);
  EXPECT_EQ(Held().children, idle.children + 1);
  EXPECT_TRUE(
      InOrder(ServiceMessages(),
              {"New KVM starting here...", "ListenKVMCallback accept calling",
               "Attempting InitializeKeyboardMousePointers",
               "InitializeKeyboardMousePointers successful", "New KVM request arrived at Tavrin",
               "Forwarding KVM request to Mailbox driver", "Response returned for KVM request"}));

  firmware_->SetVerdict(kRegionBack, FirmwarePeer::kHold);
  gate::Arm();
  gate::FailEvery("GetExitCodeThread", 6);  // a failure is logged and the end goes on
  std::thread reader(CloseByFirmware);
  ASSERT_TRUE(firmware_->Await(kRegionBack));
  EXPECT_TRUE(Eventually([&] { return Held().threads == idle.threads + 1; }))
      << "no pump may run on a region that is given back";
  EXPECT_EQ(TrayStatus(), "NO");
  EXPECT_EQ(CountCalls("shutdown"), 0U);
  EndHeldRequest(kRegionBack);
  reader.join();
  const auto calls = CallsOf({"shutdown", "DeviceIoControl", "GetExitCodeProcess"});
  ASSERT_EQ(calls.size(), 4U);  // the first gives the region back
  EXPECT_EQ(calls[1].find("shutdown"), 0U);
  EXPECT_EQ(calls[2].find("DeviceIoControl(0x9C41A434"), 0U);
  EXPECT_EQ(Sequence(), "ASIRC");
  EXPECT_EQ(firmware_->Requests().back().input, std::string("\x16\0", 2));
  EXPECT_TRUE(viewer.SeesEnd()) << "half-closed";
  EXPECT_EQ(Held().children, before_.children);
  EXPECT_EQ(CountOf(Messages(), "GetExitCodeThread failed\n"), 3U);
  EXPECT_TRUE(Logged("Terminate KVM_Agent"));
  viewer.Send("late words");
  EXPECT_TRUE(firmware_->Await(kKvmBytes)) << "the half-closed viewer is still read";
}

// A row: the call or answer that fails, its log line, and the messages up to it.
TEST_F(KvmSession, FailedStepLeavesNothingBehindAndTheNextViewerIsServed) {
  struct Row {
    std::string call;
    std::uint32_t error;
    std::uint64_t skip;
    const char* line;
    const char* sequence;
  };
  Enable();
  ASSERT_TRUE(Listening());
  const Holdings idle = Held();
  std::size_t served = 0;
  for (const Row& row : {
           Row{"accept", 10024, 0, "Sock_Accept failed", ""},
           Row{"CreateProcessAsUserA", 5, 0, "Launch KVM_Agent failed", ""},
           Row{"region", 0, 0, "InitializeKeyboardMousePointers failed", "A"},
           Row{"CreateThread", 8, 0, "KVM Agent thread failed", "AR"},
           Row{"CreateThread", 8, 1, "Keyboard thread failed", "AR"},
           Row{"CreateThread", 8, 2, "Mouse thread failed", "AR"},
           Row{"status", 31, 0, "ORRIN Status return failed", "ASRC"},
           Row{"ioctlsocket", 10022, 0, "Sock_SetBlocking failed", "ASIRC"},
       }) {
    SCOPED_TRACE(row.line);
    const std::string before = Sequence();
    EnableForAnyPeer();
    gate::Arm();
    gGateway->gKvmRebindCount = 1;
    gKvm->gKvmSocketState = kKvmNoSession;
    if (row.call == "region") firmware_->SetAnswer(kRegion, std::string(16, '\0'));
    if (row.call == "status") firmware_->SetVerdict(kStatusByte, row.error);
    gate::FailNext(row.call.c_str(), row.error, row.skip);
    EXPECT_TRUE(TcpClient(22).SeesEnd());
    ASSERT_TRUE(Eventually([] { return CountCalls("listen") == 1; }));
    EXPECT_TRUE(Logged(row.line));
    EXPECT_EQ(Sequence().substr(before.size()), row.sequence);
    // A failure before the session is up leaves KVM enabled; a later one ends the session.
    const bool wasUp = std::string_view(row.sequence).ends_with('C');
    EXPECT_EQ(gKvm->gKvmEnabled.load(), wasUp ? 0 : 1);
    EXPECT_EQ(gKvm->gKvmSocketState.load(), wasUp ? kKvmSessionFinished : kKvmNoSession);
    EXPECT_EQ(gKvm->gKvmSocket.load(), 0U);
    EXPECT_EQ(TrayStatus(), "NO");
    ExpectHeld(idle);
    EXPECT_FALSE(gKvm->gKvmAgentProcess || gKvm->KeyBoardBufferVirtualAddress.load() != 0);
    firmware_->SetAnswer(kRegion, std::string(16, '\1'));
    firmware_->SetVerdict(kStatusByte, 0);
    gate::FailNext("accept", platform::kWsaEConnReset);  // an earlier peer has gone
    auto viewer = NewViewer(CountOf(Sequence(), "I") + 1);
    viewer->Send("x");
    EXPECT_TRUE(firmware_->Await(kKvmBytes, ++served));
    viewer.reset();
    ExpectHeld(idle);
  }
}

// The first viewer stays connected, and a new enable finds or creates a listener.
TEST_F(KvmSession, EnableListensAgainAfterASecondViewerWasDropped) {
  Enable();
  ASSERT_TRUE(Listening());
  const Holdings idle = Held();
  auto viewer = NewViewer();
  EXPECT_TRUE(TcpClient(22).SeesEnd());
  ASSERT_TRUE(Eventually([] { return Logged("New KVM connection dropped") && !PortIs("0A"); }));
  viewer->Send("still here");
  EXPECT_TRUE(firmware_->Await(kKvmBytes));
  EXPECT_EQ(gGateway->gKvmRebindCount.load(), 1);
  Enable();
  EXPECT_TRUE(Listening());
  Enable();  // finds the listener and starts nothing
  EXPECT_TRUE(Eventually([] { return CountOf(Messages(), "Bind to port 22 successful\n") == 2; }));
  viewer.reset();
  ASSERT_TRUE(firmware_->Await(kClosed));
  ExpectHeld(idle);  // the server without a listener ends with its connection, without a bind
  EXPECT_EQ(gGateway->gKvmRebindCount.load(), 1);
  EXPECT_EQ(gKvm->gKvmEnabled.load(), 0) << "an enable during the session was for that session";
  NewViewer(2);
}

TEST_F(KvmSession, CloseByAnOldViewerEndsTheRunningSession) {
  const auto old = NewViewer();
  CloseByFirmware();
  const auto viewer = NewViewer(2);
  old->Reset();
  ASSERT_TRUE(firmware_->Await(kClosed, 2));
  EXPECT_TRUE(viewer->SeesEnd());
  EXPECT_EQ(Sequence(), "ASIRCASIRC");
}

TEST_F(KvmSession, ManyEndsAtOnceAreOneEnd) {
  for (std::size_t round = 1; round <= 5; ++round) {
    const auto viewer = NewViewer(round);
    std::vector<std::thread> callers;
    for (int i = 0; i < 4; ++i) callers.emplace_back(FinishKVMSession);
    viewer->Reset();
    for (std::thread& caller : callers) caller.join();
    ASSERT_TRUE(Eventually([&] { return CountOf(Messages(), "Free successful\n") == round; }));
    EXPECT_EQ(CountOf(Messages(), "Finish KVM Session\n"), round);
    EXPECT_EQ(CountOf(Sequence(), "C"), round);
  }
}

// A close, or a late name of another peer, must not be lost and must not disturb the set-up.
TEST_F(KvmSession, CloseOrAnotherPeerDuringTheAcceptEndsTheSessionOnceItIsUp) {
  for (const auto& [held, close] :
       {std::pair(kStatusByte, true), {kAnnounce, true}, {kAnnounce, false}, {kRegion, false}}) {
    firmware_->SetVerdict(held, FirmwarePeer::kHold);
    gGateway->gKvmRebindCount = 1;
    Enable();
    ASSERT_TRUE(Listening());
    const std::size_t ends = CountOf(Messages(), "Finish KVM Session\n");
    const std::string before = Sequence();
    TcpClient viewer(22);
    ASSERT_TRUE(firmware_->Await(held, 1 + CountOf(before, held == kRegion ? "A" : "I")));
    close ? CloseByFirmware() : Trust(kOther);
    EXPECT_EQ(CountOf(Messages(), "Finish KVM Session\n"), ends) << "the accept is not over";
    EndHeldRequest(held);
    ASSERT_TRUE(firmware_->Await(kClosed, CountOf(before, "C") + 1));
    EXPECT_TRUE(viewer.SeesEnd());
    EXPECT_EQ(CountOf(Messages(), "Finish KVM Session\n"), ends + 1);
    EXPECT_EQ(gKvm->gKvmEnabled.load(), 0);
    // An accept that has failed has taken the listener away.
    ASSERT_TRUE(held == kAnnounce || Eventually([] { return gGateway->gKvmRebindCount == 2; }));
  }
}

// The firmware's answer to the close is the enable of the next session.
TEST_F(KvmSession, EnableThatAnswersTheCloseHoldsAfterTheEnd) {
  auto viewer = NewViewer();
  firmware_->SetVerdict(kClosed, FirmwarePeer::kHold);
  viewer.reset();
  ASSERT_TRUE(firmware_->Await(kClosed));
  Enable();
  Trust(kLoopbackAddress);
  EndHeldRequest(kClosed);
  ASSERT_TRUE(Eventually([&] { return Logged("Free successful"); }));
  EXPECT_EQ(gKvm->gKvmEnabled.load(), 1);
  EXPECT_EQ(gKvm->gKvmTrustedIP.load(), kLoopbackAddress);
  TcpClient next(22);
  EXPECT_TRUE(firmware_->Await(kAnnounce, 2));
}

// Between the firmware's two commands any peer would be accepted.
TEST_F(KvmSession, ViewerBeforeTheTrustedPeerWaitsAndEndsIfItIsAnotherOne) {
  const auto start = std::chrono::steady_clock::now();
  Enable();
  ASSERT_TRUE(Listening());
  TcpClient viewer(22);
  ASSERT_TRUE(Served());
  EXPECT_GE(std::chrono::steady_clock::now() - start, kPeerPatience);
  Trust(kLoopbackAddress);
  EXPECT_EQ(gKvm->gKvmSocketState.load(), kKvmSessionUp);
  Trust(kOther);
  EXPECT_TRUE(viewer.SeesEnd());
  EXPECT_EQ(Sequence(), "ASIRC");
  EXPECT_EQ(gKvm->gKvmEnabled.load(), 0);
}

std::atomic<bool> gLeave{false};
std::uint32_t StayUntilLeave(void*) {
  while (!gLeave) std::this_thread::yield();
  return 0;
}

TEST_F(KvmSession, PumpThatCannotBeEndedKeepsItsRegionAndDelaysTheNextSession) {
  auto viewer = NewViewer();
  TerminateKeyboardThread();
  ASSERT_TRUE(gKvm->gKeyboardThread.Start(StayUntilLeave));
  gate::FailEvery("TerminateThread", 5);
  CloseByFirmware();
  EXPECT_EQ(Sequence(), "ASIC");
  viewer.reset();
  EXPECT_TRUE(Logged("TerminateThread for Keyboard failed"));
  EXPECT_TRUE(gKvm->gKeyboardThread.StopRequested());
  EnableForAnyPeer();
  EXPECT_TRUE(TcpClient(22).SeesEnd());
  ASSERT_TRUE(Eventually([] { return gGateway->gKvmRebindCount.load() == 2; }));
  gLeave = true;
  NewViewer(2);
  EXPECT_EQ(Sequence().substr(0, 8), "ASICRASI");
}

TEST_F(KvmSession, EnableBindsOnceAfterTheBudget) {
  gGateway->gKvmRebindCount = kRebindBudget;
  gate::FailNext("CreateThread", 8);
  Enable();
  EXPECT_EQ(Held(), before_) << "a server that cannot start leaves nothing";
  Enable();
  ASSERT_TRUE(Listening());
  gKvm->gKvmEnabled = 0;
  EXPECT_TRUE(TcpClient(22).SeesEnd());
  ExpectHeld(before_);
  EXPECT_TRUE(Logged("KVM disabled. Incoming SSH connection dropped."));
}

}  // namespace
}  // namespace stewardry
