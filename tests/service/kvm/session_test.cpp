// The KVM session's states, its accept, its ends, and what they leave behind.
#include "service/kvm/session.h"

#include <gtest/gtest.h>
#include <sys/wait.h>

#include "platform/linux/lab_link.h"
#include "service/inventory/ip_config.h"
#include "tests/service/kvm/session_fixture.h"

namespace stewardry {
namespace {

constexpr std::uint32_t kStranger = 0x0A00000A;  // 10.0.0.10

class KvmSession : public KvmTest {};

// The firmware's side of the table of states, each order of its three commands.
TEST_F(KvmSession, EveryOrderOfTheFirmwaresCommandsEndsInItsState) {
  struct Row {
    const char* order;  // E enable, T trust, C close
    std::uint16_t stateBefore;
    int enabled;
    std::uint32_t trusted;
    std::uint16_t stateAfter;
    const char* sequence;
  };
  constexpr Row kRows[] = {
      {"E", 0, 1, 0, 0, ""},
      {"T", 0, 0, 0, 0, ""},
      {"C", 0, 0, 0, 2, "RC"},
      {"C", 2, 0, 0, 2, ""},
      {"ETC", 0, 0, 0, 2, "RC"},
      {"ETC", 2, 1, kStranger, 2, ""},
      {"ECT", 0, 0, 0, 2, "RC"},
      {"ECT", 2, 1, kStranger, 2, ""},
      {"TEC", 0, 0, 0, 2, "RC"},
      {"TEC", 2, 1, 0, 2, ""},
      {"TCE", 0, 1, 0, 2, "RC"},
      {"TCE", 2, 1, 0, 2, ""},
      {"CET", 0, 1, kStranger, 2, "RC"},
      {"CTE", 0, 1, 0, 2, "RC"},
      {"EET", 0, 1, kStranger, 0, ""},
      {"ETECC", 0, 0, 0, 2, "RC"},
  };
  for (const Row& row : kRows) {
    gKvmEnabled = 0;
    gKvmTrustedIP = gKvmTrustedPort = 0;
    gKvmSocketState = row.stateBefore;
    const std::size_t before = Sequence().size();
    for (const char* command = row.order; *command != 0; ++command)
      *command == 'E' ? Enable() : *command == 'T' ? Trust(kStranger) : CloseByFirmware();
    EXPECT_EQ(gKvmEnabled.load(), row.enabled) << row.order;
    EXPECT_EQ(gKvmTrustedIP.load(), row.trusted) << row.order;
    EXPECT_EQ(gKvmSocketState.load(), row.stateAfter) << row.order;
    EXPECT_EQ(Sequence().substr(before), row.sequence) << row.order << row.stateBefore;
  }
  EXPECT_TRUE(Logged("shutdown error 10038")) << "without a session there is nothing to half-close";
}

TEST_F(KvmSession, TheTrustedPeerIsOneRecordThatAShortPayloadFillsInPart) {
  Command(ORRIN_TAVRIN_CMD_KVM_IP_PORT_INFO, "\x7f");
  EXPECT_TRUE(Logged("KVM is disabled"));
  Enable();
  EXPECT_TRUE(Logged("Setting KVM Enabled to true"));
  struct Row {
    std::string payload;
    std::uint32_t address, port;
  };
  const Row rows[] = {{std::string("\x7f\0\0\1\x0c\x17\0\0", 8), 0x0100007F, 5900},
                      {"\xAA", 0x010000AA, 5900},
                      {"", 0x010000AA, 5900},
                      {std::string("\1\2\3\4\xEE", 5), 0x04030201, 0x17EE},
                      {std::string("\1\1\1\1\2\2\2\2\3\3\3", 11), 0x01010101, 0x02020202}};
  for (const Row& row : rows) {
    Command(ORRIN_TAVRIN_CMD_KVM_IP_PORT_INFO, row.payload);
    EXPECT_EQ(gKvmTrustedIP.load(), row.address);
    EXPECT_EQ(gKvmTrustedPort.load(), row.port);
  }
  EXPECT_TRUE(Logged("IP: 0x100007f & Port: 0x170c"));
}

TEST_F(KvmSession, TheHostsSideIsUpBeforeTheFirmwareHearsOfTheViewer) {
  EXPECT_EQ(TrayStatus(), "NO");
  Enable();
  Trust(kLoopbackAddress);
  ASSERT_TRUE(Listening());
  TcpClient viewer(22);
  ASSERT_TRUE(Served());
  EXPECT_EQ(Sequence(), "ASI");
  IPInfo info;
  std::memcpy(&info, firmware_->Requests().back().input.data(), sizeof info);
  EXPECT_EQ(info.localPort, 22U);
  EXPECT_EQ(info.remoteAddress, kLoopbackAddress);
  EXPECT_NE(info.remotePort, 0U);
  EXPECT_EQ(info.endMarker, 0xFFFF);
  EXPECT_EQ(TrayStatus(), "YES");
  EXPECT_EQ(gKvmSocketState.load(), kKvmSessionUp);
  EXPECT_TRUE(*gKvmAgentThread && *gKeyboardThread && *gMouseThread);
  EXPECT_EQ(Held().children, before_.children + 1);
  const std::string log = Messages();
  std::size_t at = 0;
  for (const char* line :
       {"Setting KVM Enabled to true", "New KVM starting here...",
        "ListenKVMCallback accept calling", "Attempting InitializeKeyboardMousePointers",
        "InitializeKeyboardMousePointers successful", "New KVM request arrived at Tavrin",
        "Remote address 0x100007f", "Remote port 0x", "Forwarding KVM request to Mailbox driver",
        "Response returned for KVM request from Mailbox driver", "Exiting KVM Callback"}) {
    const std::size_t found = log.find(line, at);
    EXPECT_NE(found, std::string::npos) << line;
    if (found != std::string::npos) at = found;
  }
}

TEST_F(KvmSession, TheEndGoesInItsOrder) {
  Enable();
  ASSERT_TRUE(Listening());
  const Holdings idle = Held();
  TcpClient viewer(22);
  ASSERT_TRUE(Served());
  firmware_->SetVerdict(kRegionBack, FirmwarePeer::kHold);
  gate::Arm();
  std::thread reader(CloseByFirmware);
  ASSERT_TRUE(firmware_->Await(kRegionBack));
  EXPECT_TRUE(Eventually([&] { return Held().threads == idle.threads + 1; }))
      << "no pump may run on a region that is given back";
  EXPECT_EQ(KeyBoardBufferVirtualAddress.load(), 0U);
  EXPECT_EQ(TrayStatus(), "NO");
  EXPECT_EQ(CountCalls("shutdown"), 0U);
  firmware_->SetVerdict(kRegionBack, 0);
  platform::CancelIoEx(*gRequestDevice, nullptr);
  reader.join();
  std::string order;
  for (const std::string& call : gate::Trace())
    for (const char* kept : {"shutdown", "DeviceIoControl(0x9C41A434", "GetExitCodeProcess"})
      if (call.rfind(kept, 0) == 0) order += std::string(kept) + " ";
  EXPECT_EQ(order, "shutdown DeviceIoControl(0x9C41A434 GetExitCodeProcess ");
  EXPECT_EQ(Sequence(), "ASIRC");
  EXPECT_EQ(firmware_->Requests().back().input, std::string("\x16\0", 2));
  EXPECT_TRUE(viewer.SeesEnd()) << "half-closed";
  EXPECT_EQ(gKvmSocket.load(), 0U);
  EXPECT_EQ(gKvmEnabled.load(), 0);
  EXPECT_FALSE(*gKvmAgentProcess);
  EXPECT_EQ(Held().children, before_.children);
  EXPECT_TRUE(Logged("Terminate KVM_Agent"));
  viewer.Send("late words");
  EXPECT_TRUE(firmware_->Await(kKvmBytes)) << "the half-closed viewer is still read";
}

TEST_F(KvmSession, OnlyTheTrustedAddressComesInFromAnyPort) {
  Enable();
  Trust(kStranger);
  ASSERT_TRUE(Listening());
  {
    TcpClient wrong(22);
    EXPECT_TRUE(wrong.SeesEnd());
    EXPECT_TRUE(Eventually([&] { return Logged("KVM IP validation failed"); }));
  }
  EXPECT_EQ(Sequence(), "");
  EXPECT_EQ(gKvmEnabled.load(), 1) << "the firmware's peer can still come";
  EXPECT_EQ(TrayStatus(), "NO");
  Trust(kLoopbackAddress, 1);
  ASSERT_TRUE(Eventually([&] { return gKvmRebindCount.load() == 2; }) && Listening());
  TcpClient right(22);
  EXPECT_TRUE(Served());
}

TEST_F(KvmSession, AFirmwareThatWasDownIsToldEverythingAgainBeforeTheViewer) {
  std::ofstream(lab() + "/adapters.txt")
      << "eth0 mac=02:00:00:00:00:01 speed=1000000000 index=3 address=192.168.1.5/24\n";
  firmware_->SetStatus(2);
  Enable();
  ASSERT_TRUE(Listening());
  TcpClient viewer(22);
  ASSERT_TRUE(firmware_->Await(kAnnounce, 2));  // the report's own record is the first
  EXPECT_TRUE(Logged("ORRIN is down pass nonDASH commands"));
  IPInfo info;
  std::memcpy(&info, firmware_->Requests().back().input.data(), sizeof info);
  EXPECT_EQ(info.localPort, 22U);
  EXPECT_NE(info.ipAddress, 0U) << "the host's own address stays beside the viewer's";
}

// What fails, how it is told, and where that leaves KVM. Nothing half-built may stay.
struct FailureRow {
  const char* call;
  std::uint32_t error;
  std::uint64_t skip;
  const char* line;
  const char* sequence;
  bool ready;  // KVM stays enabled, and the next viewer needs no new enable
};
constexpr FailureRow kFailures[] = {
    {"accept", 10024, 0, "Sock_Accept failed", "", true},
    {"accept", 10035, 0, "Sock_Accept failed", "", true},
    {"CreateProcessAsUserA", 5, 0, "Launch KVM_Agent failed", "", true},
    {"region", 0, 0, "InitializeKeyboardMousePointers failed", "A", true},
    {"CreateThread", 8, 0, "KVM Agent thread failed", "AR", true},
    {"CreateThread", 8, 1, "Keyboard thread failed", "AR", true},
    {"CreateThread", 8, 2, "Mouse thread failed", "AR", true},
    {"status", 31, 0, "ORRIN Status return failed", "ASRC", false},
    {"ioctlsocket", 10022, 0, "Sock_SetBlocking failed", "ASIRC", false},
};

class KvmFailure : public KvmSession, public ::testing::WithParamInterface<FailureRow> {};

TEST_P(KvmFailure, OfAStepLeavesNothingHalfBuiltAndTheNextViewerIsServed) {
  const FailureRow& row = GetParam();
  const bool region = std::string(row.call) == "region";
  const bool status = std::string(row.call) == "status";
  Enable();
  ASSERT_TRUE(Listening());
  const Holdings idle = Held();
  if (region) firmware_->SetAnswer(kRegion, std::string(16, '\0'));
  if (status) firmware_->SetVerdict(kStatusByte, row.error);
  gate::Arm();
  gate::FailNext(row.call, row.error, row.skip);
  {
    TcpClient viewer(22);
    EXPECT_TRUE(viewer.SeesEnd());
    ASSERT_TRUE(Eventually([&] { return gKvmRebindCount.load() == 2; }) && Listening());
  }
  EXPECT_TRUE(Logged(row.line)) << row.line;
  EXPECT_EQ(Sequence(), row.sequence);
  EXPECT_EQ(gKvmEnabled.load(), row.ready ? 1 : 0);
  EXPECT_EQ(gKvmSocketState.load(), row.ready ? kKvmNoSession : kKvmSessionFinished);
  EXPECT_EQ(gKvmSocket.load(), 0U);
  EXPECT_EQ(TrayStatus(), "NO");
  EXPECT_TRUE(Eventually([&] { return Held() == idle; })) << ::testing::PrintToString(Held());
  EXPECT_FALSE(*gKvmAgentThread || *gKeyboardThread || *gMouseThread || *gKvmAgentProcess);
  EXPECT_EQ(KeyBoardBufferVirtualAddress.load(), 0U);
  gate::Arm();
  firmware_->SetAnswer(kRegion, std::string(16, '\1'));
  firmware_->SetVerdict(kStatusByte, 0);
  if (!row.ready) Enable();
  const std::size_t announced = CountOf(Sequence(), "I");
  TcpClient viewer(22);
  ASSERT_TRUE(firmware_->Await(kAnnounce, announced + 1));
  viewer.Send("x");
  EXPECT_TRUE(firmware_->Await(kKvmBytes));
}

INSTANTIATE_TEST_SUITE_P(Steps, KvmFailure, ::testing::ValuesIn(kFailures), [](const auto& row) {
  std::string name(row.param.line);
  name.erase(std::remove_if(name.begin(), name.end(), [](char c) { return !std::isalnum(c); }),
             name.end());
  return name + std::to_string(row.param.error);
});

TEST_F(KvmSession, FailuresOfTheEndAreSaidAndTheEndGoesOn) {
  Enable();
  ASSERT_TRUE(Listening());
  TcpClient viewer(22);
  ASSERT_TRUE(Served());
  // Only an agent that listens goes by its own; this one isn't ended by force.
  ASSERT_TRUE(Eventually([] { return LabText("agent.txt").find(" runs\n") != std::string::npos; }));
  gate::FailNext("shutdown", 10057);
  gate::FailEvery("GetExitCodeThread", 6);
  gate::FailNext("GetExitCodeProcess", 6);
  firmware_->SetVerdict(kRegionBack, 31);
  CloseByFirmware();
  EXPECT_TRUE(Logged("shutdown error 10057"));
  const auto agent = static_cast<pid_t>(gKvmAgentPid.load());
  EXPECT_TRUE(Eventually([&] { return ::waitpid(agent, nullptr, WNOHANG) != 0; }))
      << "the agent goes by its own";
  EXPECT_EQ(CountOf(Messages(), "GetExitCodeThread failed\n"), 3U);
  EXPECT_EQ(Sequence(), "ASIRC");
  EXPECT_EQ(gKvmEnabled.load(), 0);
  EXPECT_FALSE(*gKvmAgentProcess);
}

// A second viewer must cost the first nothing, and a new enable must find or make a listener.
TEST_F(KvmSession, ASecondViewerIsDroppedAndANewEnableListensAgainDuringTheSession) {
  Enable();
  ASSERT_TRUE(Listening());
  const Holdings idle = Held();
  auto viewer = std::make_unique<TcpClient>(22);
  ASSERT_TRUE(Served());
  {
    TcpClient second(22);
    EXPECT_TRUE(second.SeesEnd());
    ASSERT_TRUE(Eventually([&] { return Logged("New KVM connection dropped"); }));
  }
  ASSERT_TRUE(Eventually([] { return !TcpClient(22, 100).Connected(); }));
  viewer->Send("still here");
  EXPECT_TRUE(firmware_->Await(kKvmBytes));
  EXPECT_EQ(gKvmRebindCount.load(), 1);
  Enable();
  EXPECT_TRUE(Listening());
  Enable();  // a third command finds the listener and starts nothing
  EXPECT_EQ(CountOf(Messages(), "Bind to port 22 successful\n"), 2U);
  viewer.reset();
  ASSERT_TRUE(firmware_->Await(kGone));
  // The server that has lost its listener ends with its last connection, without a bind.
  EXPECT_TRUE(Eventually([&] { return Held() == idle; })) << ::testing::PrintToString(Held());
  EXPECT_EQ(gKvmRebindCount.load(), 1);
  EXPECT_EQ(gKvmEnabled.load(), 0) << "an enable during the session was for that session";
  Enable();
  TcpClient next(22);
  EXPECT_TRUE(firmware_->Await(kAnnounce, 2));
}

// Without a new enable the listener comes back when the session has gone.
TEST_F(KvmSession, AListenerKnockedAwayIsBoundAgainAfterTheSession) {
  Enable();
  ASSERT_TRUE(Listening());
  {
    TcpClient viewer(22);
    ASSERT_TRUE(Served());
    TcpClient second(22);
    EXPECT_TRUE(second.SeesEnd());
  }
  ASSERT_TRUE(Eventually([&] { return gKvmRebindCount.load() == 2; }));
  EXPECT_TRUE(Listening());
  TcpClient refused(22);
  EXPECT_TRUE(refused.SeesEnd());
  EXPECT_TRUE(Logged("KVM disabled. Incoming SSH connection dropped."));
}

TEST_F(KvmSession, TheCloseOfAnOldViewerEndsTheSessionThatIsRunning) {
  Enable();
  ASSERT_TRUE(Listening());
  TcpClient old(22);
  ASSERT_TRUE(Served());
  CloseByFirmware();
  Enable();
  TcpClient viewer(22);
  ASSERT_TRUE(firmware_->Await(kAnnounce, 2));
  ASSERT_TRUE(Eventually([] { return gKvmSocketState.load() == kKvmSessionUp; }));
  old.Reset();
  ASSERT_TRUE(firmware_->Await(kGone, 2));
  EXPECT_TRUE(viewer.SeesEnd());
  EXPECT_EQ(Sequence(), "ASIRCASIRC");
}

TEST_F(KvmSession, ManyEndsAtOnceAreOneEnd) {
  for (std::size_t round = 1; round <= 5; ++round) {
    Enable();
    ASSERT_TRUE(Listening());
    TcpClient viewer(22);
    ASSERT_TRUE(Served(round));
    std::vector<std::thread> callers;
    for (int i = 0; i < 4; ++i) callers.emplace_back(FinishKVMSession);
    viewer.Reset();
    for (std::thread& caller : callers) caller.join();
    ASSERT_TRUE(Eventually([&] { return CountOf(Messages(), "Free successful\n") == round; }));
    EXPECT_EQ(CountOf(Messages(), "Finish KVM Session\n"), round);
    EXPECT_EQ(CountOf(Sequence(), "C"), round);
  }
}

// The firmware may close while the accept waits for it. That close must not be lost, and must not
// take apart what the accept is building.
TEST_F(KvmSession, ACloseDuringTheAcceptEndsTheSessionOnceItIsBuilt) {
  for (const std::uint32_t held : {kStatusByte, kAnnounce}) {
    firmware_->SetVerdict(held, FirmwarePeer::kHold);
    Enable();
    ASSERT_TRUE(Listening());
    const std::size_t ends = CountOf(Messages(), "Finish KVM Session\n");
    const std::string before = Sequence();
    TcpClient viewer(22);
    ASSERT_TRUE(firmware_->Await(held, CountOf(before, "I") + 1));
    CloseByFirmware();
    EXPECT_EQ(CountOf(Messages(), "Finish KVM Session\n"), ends) << "the accept is not done";
    firmware_->SetVerdict(held, 0);
    platform::CancelIoEx(*gRequestDevice, nullptr);  // the held request ends
    ASSERT_TRUE(firmware_->Await(kGone, CountOf(before, "C") + 1));
    EXPECT_TRUE(viewer.SeesEnd());
    EXPECT_EQ(CountOf(Messages(), "Finish KVM Session\n"), ends + 1);
    EXPECT_EQ(gKvmEnabled.load(), 0);
    // Without an answer to the status the accept has failed, which takes the listener away.
    ASSERT_TRUE(Eventually([] { return gKvmRebindCount.load() == 2; }));
  }
}

// The firmware's answer to the close is the enable of the next session.
TEST_F(KvmSession, AnEnableThatAnswersTheCloseIsNotUndoneByTheEnd) {
  Enable();
  ASSERT_TRUE(Listening());
  auto viewer = std::make_unique<TcpClient>(22);
  ASSERT_TRUE(Served());
  firmware_->SetVerdict(kGone, FirmwarePeer::kHold);
  viewer.reset();
  ASSERT_TRUE(firmware_->Await(kGone));
  Enable();
  Trust(kLoopbackAddress);
  firmware_->SetVerdict(kGone, 0);
  platform::CancelIoEx(*gRequestDevice, nullptr);
  ASSERT_TRUE(Eventually([&] { return Logged("Free successful"); }));
  EXPECT_EQ(gKvmEnabled.load(), 1);
  EXPECT_EQ(gKvmTrustedIP.load(), kLoopbackAddress);
  TcpClient next(22);
  EXPECT_TRUE(firmware_->Await(kAnnounce, 2));
}

TEST_F(KvmSession, AfterTheBudgetEachEnableBindsOnce) {
  gKvmRebindCount = kRebindBudget;
  for (std::size_t bind = 1; bind <= 3; ++bind) {
    Enable();
    ASSERT_TRUE(Listening());
    gKvmEnabled = 0;
    EXPECT_TRUE(TcpClient(22).SeesEnd());
    ASSERT_TRUE(Eventually([&] { return Held() == before_; }));
    EXPECT_FALSE(TcpClient(22).Connected());
    EXPECT_EQ(CountOf(Messages(), "Bind to port 22 successful\n"), bind);
  }
}

TEST_F(KvmSession, AServerThreadThatCannotStartLeavesTheNextCommandItsTry) {
  gate::FailNext("CreateThread", 8);
  Enable();
  EXPECT_EQ(Held(), before_);
  Enable();
  EXPECT_TRUE(Listening());
}

// A selector that fails takes its handlers with it; the session must not stay up without a socket.
TEST_F(KvmSession, AFailedSelectorEndsTheSessionItServed) {
  Enable();
  ASSERT_TRUE(Listening());
  TcpClient viewer(22);
  ASSERT_TRUE(Served());
  gate::FailNext("WaitForMultipleObjectsEx", 6);
  viewer.Send("x");
  ASSERT_TRUE(firmware_->Await(kGone));
  EXPECT_TRUE(viewer.SeesEnd());
  EXPECT_TRUE(Eventually([&] { return Listening() && gKvmSocket.load() == 0; }));
  EXPECT_EQ(gKvmSocketState.load(), kKvmSessionFinished);
  Enable();
  TcpClient next(22);
  EXPECT_TRUE(firmware_->Await(kAnnounce, 2));
}

// Ended in turn by the viewer, by the firmware, and with an agent that has died on its own.
TEST_F(KvmSession, AHundredSessionsInARowLeaveNothingBehind) {
  Holdings idle{};
  for (std::size_t session = 1; session <= 100; ++session) {
    Enable();
    Trust(kLoopbackAddress);
    ASSERT_TRUE(Listening()) << session;
    if (session == 1) idle = Held();
    auto viewer = std::make_unique<TcpClient>(22);
    ASSERT_TRUE(firmware_->Await(kAnnounce, session));
    ASSERT_TRUE(Eventually([] { return gKvmSocketState.load() == kKvmSessionUp; }));
    viewer->Send("v");
    ASSERT_TRUE(firmware_->Await(kKvmBytes, session));
    Data("f");
    EXPECT_EQ(viewer->Receive(1), "f");
    if (session % 3 == 1) CloseByFirmware();
    if (session % 3 == 2) {
      ASSERT_EQ(::kill(static_cast<pid_t>(gKvmAgentPid.load()), SIGKILL), 0);
    }
    viewer.reset();
    ASSERT_TRUE(firmware_->Await(kGone, session));
    ASSERT_TRUE(Eventually([&] { return Held() == idle; }))
        << session << ": " << ::testing::PrintToString(Held());
  }
  EXPECT_EQ(gKvmRebindCount.load(), 1) << "a session that ends well costs no bind";
  EXPECT_EQ(gKvmSendIndex.load(), 100U);
}

}  // namespace
}  // namespace stewardry
