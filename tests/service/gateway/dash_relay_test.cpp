#include "service/gateway/dash_relay.h"

#include <gtest/gtest.h>

#include <regex>
#include <string>
#include <thread>
#include <tuple>

#include "service/actions/actions_state.h"
#include "service/actions/power_actions.h"
#include "service/gateway/gateway_state.h"
#include "service/gateway/listeners.h"
#include "service/mailbox/control_codes.h"
#include "sock/unique_sock.h"
#include "tests/fresh_state.h"
#include "tests/own_network.h"
#include "tests/service/mailbox_fixture.h"
#include "tests/tcp_client.h"

namespace stewardry {
namespace {

constexpr std::uint32_t kData = ControlCodeFor(Operation::kWriteDASHPacket).code;
constexpr std::uint32_t kAnnounce = ControlCodeFor(Operation::kSendIPCompleteInfomartion).code;
constexpr std::uint32_t kGone = ControlCodeFor(Operation::kSendCloseSocketcmd).code;
constexpr std::uint32_t kStatus = ControlCodeFor(Operation::kGetOrrinStatus).code;

constexpr PortCallback kCallbacks[] = {{664, ListenHTTPSCallback}};

class DashRelay : public MailboxTest {
 protected:
  void SetUp() override {
    if (!EnterOwnNetwork()) GTEST_SKIP() << "may not make a network namespace";
    Renew(&gGateway);
    MailboxTest::SetUp();
    OpenMailbox();
    SetPortCallbacks(kCallbacks);
    gMailboxLink->gTavrinVersionInfo.Update([](auto& info) { info.provisionStatus = 2; });
  }
  void TearDown() override {
    gate::Disarm();
    if (server_) EndThread(&server_);
    MailboxTest::TearDown();
  }
  void StartServer() {
    const auto binds = [] { return CountOf(Messages(), "Bind to port 664 successful"); };
    const std::size_t before = binds();
    server_ =
        platform::CreateThread([](void*) -> std::uint32_t { return RunServer(), 0; }, nullptr);
    EXPECT_TRUE(Eventually([&] { return binds() > before; }));
  }
  // The messages of the exchange, a letter each: S status, I announcement, D data, C close.
  std::string Sequence() {
    std::string letters;
    for (const std::uint32_t code : firmware_->Codes())
      for (const auto& [known, letter] :
           {std::pair(kStatus, 'S'), {kAnnounce, 'I'}, {kData, 'D'}, {kGone, 'C'}})
        if (code == known) letters += letter;
    return letters;
  }
  // A frame of the firmware, as the reader thread passes it on.
  static void Reply(const std::string& text) {
    WriteDASHRXdata(reinterpret_cast<const std::uint8_t*>(text.data()),
                    static_cast<std::uint32_t>(text.size()));
  }

  platform::Thread server_;
  DashSlot& slot_ = gGateway->dash;
};

TEST_F(DashRelay, ConnectionIsAnnouncedBeforeItsBytesAndClosedBeforeTheNextOne) {
  StartServer();
  const std::string sent(400'000, 's');  // several reads, with the peer's close behind the last
  gate::FailNext("accept", platform::kWsaEConnReset);  // an earlier peer has gone
  {
    TcpClient first(664);
    ASSERT_TRUE(firmware_->Await(kAnnounce));
    TcpClient second(664);  // replaces the first
    second.Send(sent);
    ASSERT_TRUE(firmware_->Await(kData));
    EXPECT_TRUE(first.SeesEnd());
    gActions->gPowerOption.store(kPowerReboot);
    for (const std::uint32_t error : {std::uint32_t{platform::kWsaEWouldBlock}, 10054U}) {
      gate::FailNext("send", error);
      Reply("lost");
    }
    EXPECT_EQ(gActions->gPowerOption.load(), kPowerReboot) << "no reply has reached a socket";
    Reply("answer");
    EXPECT_EQ(second.Receive(6), "answer");
    EXPECT_EQ(gActions->gPowerOption.load(), kPowerNone);
  }
  EXPECT_TRUE(Logged("Sockwrite Failed in WriteDASHRXdata because of block"));
  EXPECT_TRUE(Logged("SockWrite Failed in WriteDASHRXdata"));
  ASSERT_TRUE(firmware_->Await(kGone, 2));
  EXPECT_EQ(std::regex_replace(Sequence(), std::regex("D+"), "D"), "SICSIDC");
  EXPECT_TRUE(firmware_->Inputs(kData) == sent);
  ASSERT_TRUE(Eventually([] { return Logged("Selector remove called for HTTPS callback"); }));
  EXPECT_EQ(slot_.gHttpsSocketState.load(), kHttpsClosed);
  EXPECT_EQ(slot_.gHttpsSocket.load(), 0U);
}

// A selector that is destroyed under a connection leaves nothing that a later accept uses. A server
// that stops on request logs nothing.
TEST_F(DashRelay, EndedServerLeavesAClearSlotAndTheNextOneServesUntilItsStop) {
  StartServer();
  TcpClient first(664);
  first.Send("x");
  ASSERT_TRUE(firmware_->Await(kData));
  EndThread(&server_);
  EXPECT_TRUE(first.SeesEnd());
  EXPECT_EQ(slot_.gHttpsSocketState.load(), kHttpsClosed);
  EXPECT_EQ(slot_.gHttpsHandler, nullptr);
  StartServer();
  TcpClient second(664);
  second.Send("x");
  ASSERT_TRUE(firmware_->Await(kData, 2));
  ASSERT_TRUE(Eventually([] { return Messages().ends_with("Exiting HTTPS Callback\n"); }));
  const std::string before = Messages();
  AskServerToStop();
  EXPECT_EQ(platform::WaitForSingleObject(server_, 60'000), 0U);
  EXPECT_EQ(Messages(), before);
  EXPECT_TRUE(second.SeesEnd());
}

// The mark of a thread that was ended within a use.
TEST(SlotMark, UseThatNeverEndsIsGivenUp) {
  static SlotMark mark;
  static const auto* use = new SlotMark::Use(&mark);
  EXPECT_TRUE(use != nullptr && mark.InUse());
  mark.AwaitEndOfUse();
  EXPECT_FALSE(mark.InUse());
}

// The reader writes while the server thread replaces and closes. Log and trace are off: they would
// order the two threads.
TEST_F(DashRelay, RepliesAndClosesOnTwoThreadsKeepToTheirSockets) {
  StartServer();
  ServiceLog_Close();
  gate::Disarm();
  std::atomic<bool> stop{false};
  std::thread reader([&] {
    while (!stop) Reply("r");
  });
  for (int i = 0; i < 30; ++i) {
    TcpClient client(664);
    client.Send("x");
    EXPECT_EQ(client.Receive(1), "r");
  }
  stop = true;
  reader.join();
}

// The callbacks without a server thread: the test makes the calls of a pass.
class DashCallbacks : public DashRelay {
 protected:
  void SetUp() override {
    DashRelay::SetUp();
    if (IsSkipped()) return;
    Addr any;
    Addr_InitAny(&any, 664);
    ASSERT_EQ(Sock_CreateListener(&listener_.sock, any), RESULT_OK);
    owned_.Reset(listener_.sock);
    ASSERT_EQ(Selector_Init(&selector_), RESULT_OK);
  }
  void TearDown() override {
    Selector_Destroy(&selector_);
    DashRelay::TearDown();
  }
  bool Accept(Selector* selector) {
    return ListenHTTPSCallback(selector, &listener_, SELECTOR_READ, 0) != 0;
  }

  Handler listener_{};
  UniqueSock owned_;
  Selector selector_;
};

TEST_F(DashCallbacks, FailedSetUpClosesTheAcceptedSocketAndReportsTheEndOfTheConnection) {
  Selector none;  // takes no handler
  const std::tuple<const char*, const char*, Selector*> kRows[] = {
      {"Selector_AddHandler failed", "none", &none},
      {"Sock_SetBlocking failed", "ioctlsocket", &selector_}};
  for (const auto& [line, failing, selector] : kRows) {
    TcpClient client(664);
    const std::string before = Sequence();
    gate::FailNext(failing, 10022);
    EXPECT_FALSE(Accept(selector)) << line;
    EXPECT_TRUE(client.SeesEnd()) << line;
    EXPECT_TRUE(Logged(line)) << line;
    EXPECT_EQ(Sequence(), before + "SIC") << line;
    EXPECT_EQ(slot_.gHttpsSocketState.load(), kHttpsClosed) << line;
    EXPECT_EQ(slot_.gHttpsHandler, nullptr) << line;
  }
}

// One rebind for each such peer would end the process.
TEST_F(DashCallbacks, PeerThatHasGoneLeavesTheListenerAndALivePeerHasKeepAlive) {
  gate::FailNext("accept", platform::kWsaEConnReset);
  gate::FailNext("accept", platform::kWsaEWouldBlock);
  EXPECT_TRUE(Accept(&selector_)) << "no connection is pending";
  EXPECT_FALSE(Logged("Sock_Accept failed"));
  TcpClient client(664);
  ASSERT_TRUE(Accept(&selector_));
  int on = 0;
  socklen_t size = sizeof on;
  ::getsockopt(static_cast<int>(slot_.gHttpsHandler->sock), SOL_SOCKET, SO_KEEPALIVE, &on, &size);
  EXPECT_EQ(on, 1);
}

TEST_F(DashCallbacks, EventThatEndsTheConnectionClearsTheSlotWithItsLineAndMessages) {
  const std::tuple<std::uint32_t, const char*, const char*, const char*> kRows[] = {
      {SELECTOR_WRITE, "none", "Unexpected write event in HTTPS callback", "SI"},
      {SELECTOR_READ, "recv", "Sockread failed or client closed the connection for HTTPS callback",
       "SIC"},
      {SELECTOR_READ | SELECTOR_READ_CLOSE, "none", "SELECTOR_READ_CLOSE called", "SIDC"}};
  for (const auto& [mask, failing, line, sequence] : kRows) {
    const std::string before = Sequence();
    TcpClient client(664);
    ASSERT_TRUE(Accept(&selector_));
    Handler* handler = slot_.gHttpsHandler;
    EXPECT_EQ(HTTPSCallback(&selector_, handler, SELECTOR_READ, 0), 1) << "nothing to read";
    auto* foreign = new Handler{};
    foreign->sock = kInvalidSock;
    EXPECT_EQ(ListenHTTPSCallback(&selector_, foreign, SELECTOR_REMOVE, 0), 1);
    EXPECT_EQ(slot_.gHttpsSocketState.load(), kHttpsOpen) << "another handler was released";
    client.Send("last words");
    gate::FailNext(failing, 10054);
    const auto call = [&, events = mask] { return HTTPSCallback(&selector_, handler, events, 0); };
    ASSERT_TRUE(Eventually([&] { return call() == 0; })) << "once the bytes have arrived";
    EXPECT_TRUE(Logged(line)) << line;
    EXPECT_EQ(Selector_RemoveHandler(&selector_, handler), RESULT_OK);
    EXPECT_EQ(slot_.gHttpsSocketState.load(), kHttpsClosed);
    EXPECT_EQ(slot_.gHttpsHandler, nullptr);
    EXPECT_EQ(Sequence(), before + sequence) << line;
  }
}

}  // namespace
}  // namespace stewardry
