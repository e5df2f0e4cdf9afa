// The DASH relay between consoles and a firmware, on a listener of the test's own.
#include "service/gateway/dash_relay.h"

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>
#include <thread>

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

constexpr std::uint16_t kOpen = 1, kClosed = 2;  // of gHttpsSocketState

// Returns a handler of the listen callback, on a free port, that nobody owns yet.
Handler* MakeListener(std::uint16_t* port) {
  auto* handler = new Handler{};
  Addr any;
  Addr_InitAny(&any, 0);
  EXPECT_EQ(Sock_CreateListener(&handler->sock, any), RESULT_OK);
  sockaddr_in address{};
  socklen_t size = sizeof address;
  ::getsockname(static_cast<int>(handler->sock), reinterpret_cast<sockaddr*>(&address), &size);
  *port = ntohs(address.sin_port);
  handler->eventMask = SELECTOR_READ | SELECTOR_EXCEPTION;
  handler->callback = ListenHTTPSCallback;
  return handler;
}

// A server thread as the service has one: one selector with one listener, until the run fails.
std::uint32_t Serve(void* listener) {
  struct Owner {
    Selector selector;
    ~Owner() { Selector_Destroy(&selector); }
  } owner;
  EXPECT_EQ(Selector_Init(&owner.selector), RESULT_OK);
  EXPECT_EQ(Selector_AddHandler(&owner.selector, static_cast<Handler*>(listener)), RESULT_OK);
  while (Selector_Run(&owner.selector, 10'000'000, false) == RESULT_TIME_OUT) {
  }
  return 0;
}

class DashRelay : public MailboxTest {
 protected:
  void SetUp() override {
    MailboxTest::SetUp();
    OpenMailbox();
    gTavrinVersionInfo.Update([](TavrinVersionInfo& info) { info.provisionStatus = 2; });
  }
  void TearDown() override {
    gate::Disarm();
    if (server_) EndThread(&server_);
    MailboxTest::TearDown();
  }
  // Starts a server thread and returns its port.
  std::uint16_t StartServer() {
    std::uint16_t port = 0;
    Handler* listener = MakeListener(&port);
    EXPECT_EQ(Sock_SetBlocking(listener->sock, false), RESULT_OK);
    server_ = platform::CreateThread(Serve, listener);
    return port;
  }
  // The messages of the exchange, a letter each: S status, I announcement, D data, C close.
  std::string Sequence() {
    std::string letters;
    for (const std::uint32_t code : firmware_->Codes())
      letters += code == kStatus     ? 'S'
                 : code == kAnnounce ? 'I'
                 : code == kData     ? 'D'
                 : code == kGone     ? 'C'
                                     : '?';
    return letters;
  }
  // A frame of the firmware, as the reader thread passes it on.
  static void Reply(const std::string& text) {
    WriteDASHRXdata(reinterpret_cast<const std::uint8_t*>(text.data()),
                    static_cast<std::uint32_t>(text.size()));
  }

  platform::Thread server_;
};

TEST_F(DashRelay, ExchangeIsAnnouncedBeforeItsBytesAndEndsWithTheClose) {
  {
    TcpClient client(StartServer());
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
  ASSERT_TRUE(Eventually([] { return Logged("Selector remove called for HTTPS callback"); }));
  EXPECT_EQ(gHttpsSocketState.load(), kClosed);
  EXPECT_EQ(gHttpsSocket.load(), 0U);
}

TEST_F(DashRelay, SecondPeerReplacesTheFirstWhoseCloseComesBeforeTheAnnouncement) {
  const std::uint16_t port = StartServer();
  TcpClient first(port);
  ASSERT_TRUE(firmware_->Await(kAnnounce));
  TcpClient second(port);
  ASSERT_TRUE(firmware_->Await(kAnnounce, 2));
  EXPECT_EQ(Sequence(), "SICSI");
  EXPECT_TRUE(first.SeesEnd());
  second.Send("x");
  ASSERT_TRUE(firmware_->Await(kData));
  Reply("y");
  EXPECT_EQ(second.Receive(1), "y");
  EXPECT_FALSE(Logged("Selector remove called for HTTPS callback"));
}

TEST_F(DashRelay, PowerOptionWaitsForAReplyThatReachesASocket) {
  gPowerOption.store(kPowerReboot);
  Reply("nobody");
  EXPECT_TRUE(Logged("Socket is closed"));
  TcpClient client(StartServer());
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

// A selector that is destroyed under a connection must leave nothing that a later accept acts on.
TEST_F(DashRelay, EndedServerLeavesAnEmptySlotAndTheNextOneServes) {
  TcpClient first(StartServer());
  ASSERT_TRUE(firmware_->Await(kAnnounce));
  ASSERT_TRUE(Eventually([] { return gHttpsSocketState.load() == kOpen; }));
  EndThread(&server_);
  EXPECT_TRUE(first.SeesEnd());
  EXPECT_EQ(gHttpsSocketState.load(), kClosed);
  EXPECT_EQ(gHttpsHandler, nullptr);
  TcpClient second(StartServer());
  second.Send("x");
  ASSERT_TRUE(firmware_->Await(kData));
}

// The reader writes while the server thread replaces and closes: nothing may reach a socket number
// that has been given to somebody else.
TEST_F(DashRelay, RepliesAndClosesOnTwoThreadsMeetOnNoForeignSocket) {
  const std::uint16_t port = StartServer();
  std::atomic<bool> stop{false};
  std::thread reader([&] {
    while (!stop) Reply("r");
  });
  for (int i = 0; i < 30; ++i) {
    TcpClient client(port);
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
    listener_ = MakeListener(&port_);
  }
  void TearDown() override {
    CloseListener();
    Selector_Destroy(&selector_);
    DashRelay::TearDown();
  }
  void CloseListener() {
    if (listener_ != nullptr) ListenHTTPSCallback(&selector_, listener_, SELECTOR_REMOVE, 0);
    listener_ = nullptr;
  }
  bool Accept() { return ListenHTTPSCallback(&selector_, listener_, SELECTOR_READ, 0) != 0; }
  bool Call(std::uint32_t mask) { return HTTPSCallback(&selector_, gHttpsHandler, mask, 0) != 0; }

  std::uint16_t port_ = 0;
  Handler* listener_ = nullptr;
  Selector selector_;
};

TEST_F(DashCallbacks, FailedAcceptClosesTheConnectionAndReportsTheEndOfAnAnnouncedOne) {
  const struct {
    const char* line;
    const char* sequence;
    std::function<void()> arrange;
  } kRows[] = {// The selector does not exist yet and takes no handler.
               {"Selector_AddHandler failed", "SIC", [] {}},
               {"Sock_SetBlocking failed", "SIC",
                [&] {
                  ASSERT_EQ(Selector_Init(&selector_), RESULT_OK);
                  gate::FailNext("ioctlsocket", 10022);
                }},
               {"Sock_Accept failed", "", [] { gate::FailNext("accept", 10022); }},
               {"ORRIN Status return failed", "S", [&] { firmware_->SetStatus(0); }},
               {"Provisioning not done. Incoming HTTPS connection dropped.", "",
                [] { gTavrinVersionInfo.Store({}); }}};
  for (const auto& row : kRows) {
    TcpClient client(port_);
    const std::string before = Sequence();
    row.arrange();
    EXPECT_FALSE(Accept()) << row.line;
    CloseListener();  // as the selector does then; a connection that was not accepted ends with it
    EXPECT_TRUE(client.SeesEnd()) << row.line;
    EXPECT_TRUE(Logged(row.line)) << row.line;
    EXPECT_EQ(Sequence(), before + row.sequence) << row.line;
    EXPECT_NE(gHttpsSocketState.load(), kOpen) << row.line;
    EXPECT_EQ(gHttpsHandler, nullptr) << row.line;
    listener_ = MakeListener(&port_);
  }
}

TEST_F(DashCallbacks, ConnectionOutlivesItsListenerAndAReadOfNothing) {
  ASSERT_EQ(Selector_Init(&selector_), RESULT_OK);
  TcpClient client(port_);
  ASSERT_TRUE(Accept());
  CloseListener();
  EXPECT_TRUE(Call(SELECTOR_READ));
  EXPECT_EQ(gHttpsSocketState.load(), kOpen);
  Reply("reply");
  EXPECT_EQ(client.Receive(5), "reply");
}

TEST_F(DashCallbacks, EventThatEndsTheConnectionIsAnsweredWithItsLineAndMessages) {
  ASSERT_EQ(Selector_Init(&selector_), RESULT_OK);
  const struct {
    std::uint32_t mask;
    const char* failing;
    const char* line;
    const char* sequence;
  } kRows[] = {{SELECTOR_WRITE, "none", "Unexpected write event in HTTPS callback", "SI"},
               {SELECTOR_READ, "recv",
                "Sockread failed or client closed the connection for HTTPS callback", "SIC"},
               {SELECTOR_READ | SELECTOR_READ_CLOSE, "none", "SELECTOR_READ_CLOSE called", "SIDC"}};
  for (const auto& row : kRows) {
    const std::string before = Sequence();
    TcpClient client(port_);
    ASSERT_TRUE(Accept());
    client.Send("last words");
    Handler* handler = gHttpsHandler;
    gate::FailNext(row.failing, 10054);
    ASSERT_TRUE(Eventually([&] { return !Call(row.mask); })) << "once the bytes have arrived";
    EXPECT_TRUE(Logged(row.line)) << row.line;
    EXPECT_EQ(Selector_RemoveHandler(&selector_, handler), RESULT_OK);
    EXPECT_EQ(gHttpsSocketState.load(), kClosed);
    EXPECT_EQ(gHttpsHandler, nullptr);
    EXPECT_EQ(Sequence(), before + row.sequence) << row.line;
  }
}

}  // namespace
}  // namespace stewardry
