#include "service/kvm/relay.h"

#include <gtest/gtest.h>

#include "tests/service/kvm/session_fixture.h"

namespace stewardry {
namespace {

class KvmRelay : public KvmTest {
 protected:
  void SetUp() override {
    KvmTest::SetUp();
    if (!IsSkipped()) viewer_ = NewViewer();
  }
  void TearDown() override {
    viewer_.reset();
    KvmTest::TearDown();
  }
  static void WithoutPauses() { gate::FailEvery("Sleep(100)", gate::kFinishAtOnce); }

  std::unique_ptr<TcpClient> viewer_;
};

TEST_F(KvmRelay, ManyBytesCrossUnchangedBothWays) {
  std::string big(1 << 20, '\0');
  for (std::size_t i = 0; i < big.size(); ++i) big[i] = static_cast<char>(i * 7 + i / 251);
  std::thread sender([&] { viewer_->Send(big); });
  EXPECT_TRUE(Eventually([&] { return firmware_->Inputs(kKvmBytes).size() == big.size(); }));
  sender.join();
  EXPECT_TRUE(firmware_->Inputs(kKvmBytes) == big);
  big.resize(131070);  // the largest frame
  Data(big);
  EXPECT_TRUE(viewer_->Receive(big.size()) == big);
}

TEST_F(KvmRelay, FiftiethAttemptKeepsTheSession) {
  for (int i = 0; i < 49; ++i) gate::FailNext("send", platform::kWsaEWouldBlock);
  WithoutPauses();
  Data("patience");
  EXPECT_EQ(viewer_->Receive(8), "patience");
  EXPECT_EQ(CountOf(Messages(), "Retry Count value: "), 49U);
  EXPECT_TRUE(Logged("Retry Count value: 49. GetLastError: 10035."));
  Data("abc");  // on a session that is still up
  EXPECT_TRUE(InOrder(
      ServiceMessages(),
      {"Send index:0 Send buffer size: 8; Socket data size: 8; Match:Pass ; Overall size: 8",
       "Send index:1 Send buffer size: 3; Socket data size: 3; Match:Pass ; Overall size: b"}));
  CloseByFirmware();
  Data("late");
  EXPECT_EQ(CountOf(Messages(), "Socket is closed. GetLastError: "), 1U);
}

TEST_F(KvmRelay, SessionEndsAfterTheLastAttempt) {
  WithoutPauses();
  std::size_t frames = 0;
  for (; gKvm->gKvmSocketState.load() == kKvmSessionUp; ++frames) {
    gate::Arm();
    WithoutPauses();
    Data(std::string(131070, 'u'));  // until the viewer, which reads nothing, has no room
  }
  EXPECT_EQ(CountCalls("send"), 101U);
  const auto pauses = CallsOf({"Sleep"});  // the agent's watch has its own
  EXPECT_EQ(std::count(pauses.begin(), pauses.end(), "Sleep(100)"), 100);
  EXPECT_TRUE(InOrder(
      ServiceMessages(),
      {"Retry Count value: 100. GetLastError: 10035.", "KVM Sockwrite Failed because of block",
       "socket write crossed 100 attempts; socket address ", "Finish KVM Session",
       "Send index:" + std::to_string(frames - 1) +
           " Send buffer size: 1fffe; Socket data size: 0; Match:Fail"}));
  EXPECT_EQ(Sequence(), "ASIRC");
  EXPECT_EQ(gKvm->gKvmEnabled.load(), 0);
}

// The session ends during the retries; the remaining ones fail without a socket.
TEST_F(KvmRelay, EndDuringTheRetriesIsOneEnd) {
  gate::FailEvery("send", 10054);
  std::thread reader([] { Data("unheard"); });
  ASSERT_TRUE(Eventually([&] { return CountOf(Messages(), "Retry Count value: ") >= 2; }));
  viewer_->Reset();
  ASSERT_TRUE(firmware_->Await(kClosed));
  WithoutPauses();
  reader.join();
  EXPECT_TRUE(Logged("KVM SockWrite Failed\nsocket write crossed 100 attempts; socket address 0"));
  EXPECT_EQ(CountOf(Messages(), "Finish KVM Session\n"), 1U);
  EXPECT_EQ(Sequence(), "ASIRC");
}

TEST_F(KvmRelay, LastBytesOfAViewerReachTheFirmwareBeforeTheEnd) {
  firmware_->SetVerdict(kKvmBytes, FirmwarePeer::kHold);
  viewer_->Send("hold ");
  ASSERT_TRUE(firmware_->Await(kKvmBytes));
  viewer_->Send("last words");
  viewer_.reset();
  ASSERT_TRUE(Eventually([] { return PortIs("08"); })) << "the close is behind all bytes";
  EndHeldRequest(kKvmBytes);
  ASSERT_TRUE(firmware_->Await(kClosed));
  EXPECT_EQ(firmware_->Inputs(kKvmBytes), "hold last words");
  EXPECT_EQ(Sequence(), "ASIDDRC");
  ASSERT_TRUE(Eventually([&] { return Logged("Free successful\nExiting KVM Callback"); }));
  EXPECT_TRUE(Logged("KVM Client closed the connection so returned false"));
  EXPECT_TRUE(InOrder(ServiceMessages(),
                      {"KVM callback shutdown called", "Selector remove called for KVM callback",
                       "Closing handler Socket", "Freeing handler", "Free successful"}));
}

TEST_F(KvmRelay, FailedReadEndsTheSessionAndAnEmptyOneKeepsIt) {
  gate::FailNext("recv", platform::kWsaEWouldBlock);
  viewer_->Send("kept");
  ASSERT_TRUE(Eventually([&] { return firmware_->Inputs(kKvmBytes) == "kept"; }));
  gate::FailNext("recv", 10054);
  viewer_->Send("x");
  ASSERT_TRUE(firmware_->Await(kClosed));
  EXPECT_TRUE(Logged("Sockread failed or client closed the connection for KVM callback"));
  EXPECT_TRUE(Logged("KVM Client closed the connection so returned false"));
  Handler handler{};  // an event outside the mask removes a handler too
  EXPECT_EQ(KVMCallback(nullptr, &handler, SELECTOR_WRITE, 0), 0);
  EXPECT_TRUE(Logged("Unexpected write event in KVM callback"));
  EXPECT_EQ(KVMCallback(nullptr, &handler, SELECTOR_READ_CLOSE, 0), 0);
  EXPECT_TRUE(Logged("SELECTOR_READ_CLOSE called. Client closed the connection so returned false"));
}

// The reader writes while sessions end and begin on the other thread: no frame may reach a reused
// socket number.
TEST_F(KvmRelay, FramesAndClosesOnTwoThreadsKeepToTheirSockets) {
  viewer_.reset();
  ASSERT_TRUE(firmware_->Await(kClosed));
  std::atomic<bool> stop{false};
  WithoutPauses();
  std::thread reader([&] {
    while (!stop) {
      if (gKvm->gKvmEnabled == 0) EnableForAnyPeer();
      if (gKvm->gKvmSocketState.load() == kKvmSessionUp) Data("r");
    }
  });
  int served = 0;
  EXPECT_TRUE(Eventually([&] {
    gGateway->gKvmRebindCount = 1;
    if (gKvm->gKvmEnabled.load() == 0 || !PortIs("0A")) return false;
    TcpClient client(22);
    client.Send("x");
    if (client.Receive(1) == "r") ++served;
    TcpClient bystander(22);  // gets the number that was just closed, or is dropped
    return served == 30;
  }));
  stop = true;
  reader.join();
}

}  // namespace
}  // namespace stewardry
