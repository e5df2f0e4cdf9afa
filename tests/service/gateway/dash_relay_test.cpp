// The DASH relay between consoles and a firmware, on a listener of the test's own.
#include "service/gateway/dash_relay.h"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "service/actions/power_actions.h"
#include "service/inventory/ip_config.h"
#include "service/mailbox/control_codes.h"
#include "tests/service/mailbox_fixture.h"
#include "tests/tcp_client.h"

namespace stewardry {
namespace {

constexpr std::uint32_t kData = ControlCodeFor(Operation::kWriteDASHPacket).code;
constexpr std::uint32_t kAnnounce = ControlCodeFor(Operation::kSendIPCompleteInfomartion).code;
constexpr std::uint32_t kGone = ControlCodeFor(Operation::kSendCloseSocketcmd).code;
constexpr std::uint32_t kStatus = ControlCodeFor(Operation::kGetOrrinStatus).code;

// The server thread of the test: one selector with one listener, until the run fails.
struct Server {
  Sock listener = kInvalidSock;
  std::uint16_t port = 0;
  platform::Thread thread;

  static std::uint32_t Run(void* parameter) {
    struct Owner {
      Selector sel;
      ~Owner() { Selector_Destroy(&sel); }
    } owner;
    EXPECT_EQ(Selector_Init(&owner.sel), RESULT_OK);
    auto handler = std::make_unique<Handler>(Handler{});
    handler->sock = static_cast<Server*>(parameter)->listener;
    handler->eventMask = SELECTOR_READ | SELECTOR_EXCEPTION;
    handler->callback = ListenHTTPSCallback;
    EXPECT_EQ(Selector_AddHandler(&owner.sel, handler.release()), RESULT_OK);
    while (Selector_Run(&owner.sel, 10'000'000, false) == RESULT_TIME_OUT) {
    }
    return 0;
  }
  void Start() {
    Addr any;
    Addr_InitAny(&any, 0);
    ASSERT_EQ(Sock_CreateListener(&listener, any), RESULT_OK);
    ASSERT_EQ(Sock_SetBlocking(listener, false), RESULT_OK);
    sockaddr_in address{};
    socklen_t size = sizeof address;
    ::getsockname(static_cast<int>(listener), reinterpret_cast<sockaddr*>(&address), &size);
    port = ntohs(address.sin_port);
    thread = platform::CreateThread(Run, this);
  }
};

class DashRelay : public MailboxTest {
 protected:
  void SetUp() override {
    MailboxTest::SetUp();
    OpenMailbox();
    gTavrinVersionInfo.Update([](TavrinVersionInfo& info) { info.provisionStatus = 2; });
    server_.Start();
  }
  void TearDown() override {
    gate::Disarm();
    if (server_.thread) EndThread(&server_.thread);
    gTavrinVersionInfo.Store({});
    gPowerOption.store(kPowerNone);
    MailboxTest::TearDown();
  }
  // The messages of the exchange, a letter each: S status, I announcement, D data, C close.
  std::string Sequence() {
    std::string letters;
    for (const Asked& asked : firmware_->Requests())
      letters += asked.code == kStatus     ? 'S'
                 : asked.code == kAnnounce ? 'I'
                 : asked.code == kData     ? 'D'
                 : asked.code == kGone     ? 'C'
                                           : '?';
    return letters;
  }
  std::string DataSent() {
    std::string data;
    for (const Asked& asked : firmware_->Requests())
      if (asked.code == kData) data += asked.input;
    return data;
  }
  // A frame of the firmware, as the reader thread would hand it over.
  static void Reply(const std::string& text) {
    WriteDASHRXdata(reinterpret_cast<const std::uint8_t*>(text.data()),
                    static_cast<std::uint32_t>(text.size()));
  }
  bool ServerEnds() {
    const bool ended = platform::WaitForSingleObject(server_.thread, 10'000) == 0;
    if (ended) server_.thread.Reset();
    return ended;
  }

  Server server_;
};

TEST_F(DashRelay, AnExchangeIsAnnouncedBeforeItsBytesAndEndsWithTheClose) {
  {
    TcpClient client(server_.port);
    client.Send("hello");
    ASSERT_TRUE(firmware_->Await(kData));
    Reply("answer");
    EXPECT_EQ(client.Receive(6), "answer");
  }
  ASSERT_TRUE(firmware_->Await(kGone));
  EXPECT_EQ(Sequence(), "SIDC");
  const auto requests = firmware_->Requests();
  IPInfo info;
  std::memcpy(&info, requests[1].input.data(), sizeof info);
  EXPECT_EQ(info.localPort, 664U);
  EXPECT_EQ(info.remoteAddress, kLoopbackAddress);
  EXPECT_NE(info.remotePort, 0U);
  EXPECT_EQ(info.endMarker, 0xFFFF);
  EXPECT_EQ(requests[3].input, "\x98\x02");
  EXPECT_TRUE(Logged(" Size written is 6,requested 6"));
  ASSERT_TRUE(Eventually([&] { return Logged("Selector remove called for HTTPS callback"); }));
  EXPECT_EQ(gHttpsSocketState.load(), 2);
  EXPECT_EQ(gHttpsSocket.load(), 0U);
}

TEST_F(DashRelay, AMebibyteCrossesUnchangedAndAPeerThatSendsByteByByteToo) {
  std::string big(1 << 20, '\0');
  for (std::size_t i = 0; i < big.size(); ++i) big[i] = static_cast<char>(i * 7 + i / 251);
  TcpClient client(server_.port);
  client.Send(big);
  ASSERT_TRUE(Eventually([&] { return DataSent().size() == big.size(); }));
  EXPECT_EQ(DataSent(), big);
  for (const char c : {'a', 'b', 'c'}) client.Send(std::string(1, c));
  ASSERT_TRUE(Eventually([&] { return DataSent().size() == big.size() + 3; }));
  for (std::size_t at = 0; at < big.size(); at += 131070) Reply(big.substr(at, 131070));
  EXPECT_EQ(client.Receive(big.size()), big);
}

TEST_F(DashRelay, ASecondPeerReplacesTheFirstWhoseCloseComesBeforeTheAnnouncement) {
  TcpClient first(server_.port);
  ASSERT_TRUE(firmware_->Await(kAnnounce));
  TcpClient second(server_.port);
  ASSERT_TRUE(firmware_->Await(kAnnounce, 2));
  EXPECT_EQ(Sequence(), "SICSI");
  EXPECT_TRUE(first.SeesEnd());
  second.Send("x");
  ASSERT_TRUE(firmware_->Await(kData));
  Reply("y");
  EXPECT_EQ(second.Receive(1), "y");
  EXPECT_FALSE(Logged("Selector remove called for HTTPS callback"));
}

TEST_F(DashRelay, PeersThatVanishOrResetLeaveTheNextOneAWorkingRelay) {
  for (int i = 0; i < 5; ++i) {
    TcpClient client(server_.port);
    if (i % 2 == 0) client.Send("half a requ");
    if (i % 3 == 0) client.Reset();
  }
  TcpClient client(server_.port);
  client.Send("whole");
  ASSERT_TRUE(Eventually([&] { return DataSent().find("whole") != std::string::npos; }));
  Reply("fine");
  EXPECT_EQ(client.Receive(4), "fine");
}

TEST_F(DashRelay, ThePowerOptionWaitsForAReplyThatReachesASocket) {
  gPowerOption.store(kPowerReboot);
  Reply("nobody");
  EXPECT_TRUE(Logged("Socket is closed"));
  TcpClient client(server_.port);
  client.Send("x");
  ASSERT_TRUE(firmware_->Await(kData));
  gate::FailNext("send", platform::kWsaEWouldBlock);
  Reply("blocked");
  EXPECT_TRUE(Logged("Sockwrite Failed in WriteDASHRXdata because of block"));
  gate::FailEvery("send", 10054);
  Reply("failed");
  EXPECT_TRUE(Logged("SockWrite Failed in WriteDASHRXdata"));
  EXPECT_EQ(gPowerOption.load(), kPowerReboot);
  EXPECT_EQ(LabText("power.txt"), "");
  gate::Arm();
  Reply("reply");
  EXPECT_EQ(client.Receive(5), "reply");
  EXPECT_EQ(gPowerOption.load(), kPowerNone);
  EXPECT_NE(LabText("power.txt").find("reboot=true"), std::string::npos);
}

TEST_F(DashRelay, ADeadFirmwareRefusesThePeerAndAClosedSocketIsNotLeftOpen) {
  firmware_->SetStatus(0);
  TcpClient client(server_.port);
  EXPECT_TRUE(client.SeesEnd());
  EXPECT_TRUE(ServerEnds());  // the listener was the last handler
  EXPECT_TRUE(Logged("ORRIN Status return failed"));
  EXPECT_NE(gHttpsSocketState.load(), 1);
}

TEST_F(DashRelay, WithoutProvisioningNobodyIsAccepted) {
  gTavrinVersionInfo.Store({});
  TcpClient client(server_.port);
  EXPECT_TRUE(ServerEnds());
  EXPECT_TRUE(Logged("Provisioning not done. Incoming HTTPS connection dropped."));
  EXPECT_EQ(Sequence(), "");
}

TEST_F(DashRelay, AFailedStepOfTheAcceptClosesWhatWasAcceptedAndTellsTheFirmware) {
  struct Row {
    const char* call;
    const char* line;
    const char* sequence;
  };
  constexpr Row kRows[] = {{"accept", "Sock_Accept failed", ""},
                           {"ioctlsocket", "Sock_SetBlocking failed", "SIC"}};
  for (const Row& row : kRows) {
    if (!server_.thread) server_.Start();
    const std::string before = Sequence();
    gate::Arm();
    gate::FailNext(row.call, 10022);
    TcpClient client(server_.port);
    EXPECT_TRUE(ServerEnds()) << row.call;
    EXPECT_TRUE(client.SeesEnd()) << row.call;
    EXPECT_TRUE(Logged(row.line)) << row.line;
    EXPECT_EQ(Sequence(), before + row.sequence);
    EXPECT_NE(gHttpsSocketState.load(), 1);
  }
}

// A selector that is destroyed under a connection must leave nothing that a later accept acts on.
TEST_F(DashRelay, AnEndedServerLeavesNoSlotBehindAndTheNextOneServes) {
  TcpClient first(server_.port);
  ASSERT_TRUE(firmware_->Await(kAnnounce));
  ASSERT_TRUE(Eventually([&] { return gHttpsSocketState.load() == 1; }));
  EndThread(&server_.thread);
  EXPECT_TRUE(first.SeesEnd());
  EXPECT_EQ(gHttpsSocketState.load(), 2);
  EXPECT_EQ(gHttpsHandler, nullptr);
  server_.Start();
  TcpClient second(server_.port);
  ASSERT_TRUE(firmware_->Await(kAnnounce, 2));
  second.Send("x");
  ASSERT_TRUE(firmware_->Await(kData));
}

TEST_F(DashRelay, AFailedMailboxWriteLosesThatReadAndKeepsTheConnection) {
  TcpClient client(server_.port);
  ASSERT_TRUE(firmware_->Await(kAnnounce));
  firmware_->SetVerdict(kData, 31);
  client.Send("lost");
  ASSERT_TRUE(firmware_->Await(kData));
  ASSERT_TRUE(Eventually(
      [&] { return Logged("GetOverlappedResult failed for WriteDASHPacket with error: 31"); }));
  firmware_->SetVerdict(kData, 0);
  client.Send("kept");
  ASSERT_TRUE(firmware_->Await(kData, 2));
}

// The reader writes while the server thread replaces and closes: nothing may reach a socket number
// that has been given to somebody else.
TEST_F(DashRelay, RepliesAndClosesOnTwoThreadsDoNotMeetOnOneSocket) {
  std::atomic<bool> stop{false};
  std::thread reader([&] {
    while (!stop) Reply("r");
  });
  for (int i = 0; i < 30; ++i) {
    TcpClient client(server_.port);
    client.Send("x");
    EXPECT_EQ(client.Receive(1), "r");
  }
  stop = true;
  reader.join();
}

}  // namespace
}  // namespace stewardry
