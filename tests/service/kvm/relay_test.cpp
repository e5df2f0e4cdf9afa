// The KVM relay: bytes both ways, viewers that are slow, gone or refuse, and two threads on one
// socket.
#include "service/kvm/relay.h"

#include <gtest/gtest.h>
#include <sys/ioctl.h>

#include "tests/service/kvm/session_fixture.h"

namespace stewardry {
namespace {

std::string Pattern(std::size_t size) {
  std::string bytes(size, '\0');
  for (std::size_t i = 0; i < size; ++i) bytes[i] = static_cast<char>(i * 7 + i / 251);
  return bytes;
}

class KvmRelay : public KvmTest {
 protected:
  void SetUp() override {
    KvmTest::SetUp();
    if (IsSkipped()) return;
    Enable();
    ASSERT_TRUE(Listening());
    viewer_ = std::make_unique<TcpClient>(22);
    ASSERT_TRUE(Served());
  }
  void TearDown() override {
    viewer_.reset();
    KvmTest::TearDown();
  }
  static void WithoutPauses() { gate::FailEvery("Sleep(100)", gate::kFinishAtOnce); }
  // Fills the viewer's connection until it takes no byte more, also after a while.
  static void FillConnection() {
    std::uint64_t sent = 0;
    const std::string chunk(65536, 'f');
    for (int full = 0; full < 20; ++full) {
      while (Sock_Write(gKvmSocket.load(), chunk.data(), chunk.size(), &sent) == RESULT_OK)
        full = 0;
      platform::Sleep(10);
    }
  }
  // The messages behind the last line that begins like this.
  static std::string LastLine(const std::string& start) {
    const std::string log = Messages();
    const std::size_t at = log.rfind(start);
    return at == std::string::npos ? "" : log.substr(at, log.find('\n', at) - at);
  }

  std::unique_ptr<TcpClient> viewer_;
};

TEST_F(KvmRelay, AMebibyteCrossesUnchangedBothWays) {
  const std::string big = Pattern(1 << 20);
  std::thread sender([&] { viewer_->Send(big); });
  EXPECT_TRUE(Eventually([&] { return DataSent().size() == big.size(); }));
  sender.join();
  EXPECT_TRUE(DataSent() == big);
  std::string received;
  std::thread receiver([&] { received = viewer_->Receive(big.size()); });
  for (std::size_t at = 0; at < big.size(); at += 131070) Data(big.substr(at, 131070));
  receiver.join();
  EXPECT_TRUE(received == big);
}

TEST_F(KvmRelay, AReadOfTheFullBufferIsPassedOnWholeAndTheRestWithTheNext) {
  int ends[2];
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
  const std::string bytes = Pattern(131072 + 10);
  std::thread sender([&] { ::send(ends[1], bytes.data(), bytes.size(), 0); });
  ASSERT_TRUE(Eventually([&] {
    int waiting = 0;
    return ::ioctl(ends[0], FIONREAD, &waiting) == 0 && waiting == 131072 + 10;
  }));
  sender.join();
  Handler handler{};
  handler.sock = static_cast<Sock>(ends[0]);
  for (const std::size_t size : {131072u, 10u}) {
    EXPECT_EQ(KVMCallback(nullptr, &handler, SELECTOR_READ, 0), 1);
    EXPECT_EQ(firmware_->Requests().back().input.size(), size);
  }
  EXPECT_TRUE(DataSent() == bytes);
  ::close(ends[0]);
  ::close(ends[1]);
}

TEST_F(KvmRelay, TheBooksGoOnOverSessionsAndAFrameWithoutOneIsOnlySaid) {
  Data("abc");
  EXPECT_EQ(LastLine("Send index:"),
            "Send index:0 Send buffer size: 3; Socket data size: 3; Match:Pass ; Overall size: 3");
  CloseByFirmware();
  Data("nobody");
  EXPECT_EQ(CountOf(Messages(), "Socket is closed. GetLastError: "), 1U);
  Enable();
  TcpClient next(22);
  ASSERT_TRUE(Served(2));
  Data(std::string(20, 'x'));
  EXPECT_EQ(
      LastLine("Send index:"),
      "Send index:1 Send buffer size: 14; Socket data size: 14; Match:Pass ; Overall size: 17");
}

TEST_F(KvmRelay, AViewerThatDrainsAtTheFiftiethAttemptKeepsItsSession) {
  for (int i = 0; i < 49; ++i) gate::FailNext("send", platform::kWsaEWouldBlock);
  WithoutPauses();
  Data("patience");
  EXPECT_EQ(viewer_->Receive(8), "patience");
  EXPECT_EQ(CountOf(Messages(), "Retry Count value: "), 49U);
  EXPECT_TRUE(Logged("Retry Count value: 49. GetLastError: 10035."));
  EXPECT_EQ(CountOf(Messages(), "crossed"), 0U);
  EXPECT_EQ(gKvmSocketState.load(), kKvmSessionUp);
  EXPECT_NE(LastLine("Send index:").find("Match:Pass"), std::string::npos);
}

TEST_F(KvmRelay, AViewerThatNeverReadsEndsTheSessionAfterTheLastAttempt) {
  FillConnection();
  gate::Arm();
  WithoutPauses();
  Data("unheard");
  EXPECT_EQ(CountCalls("send"), 101U);
  const auto trace = gate::Trace();
  EXPECT_EQ(std::count(trace.begin(), trace.end(), "Sleep(100)"), 100);
  const std::string log = Messages();
  const std::size_t blocked = log.find("KVM Sockwrite Failed because of block\n");
  const std::size_t crossed = log.find("socket write crossed 100 attempts; socket address ");
  const std::size_t finish = log.find("Finish KVM Session\n");
  const std::size_t books = log.find("Socket data size: 0; Match:Fail");
  EXPECT_LT(blocked, crossed);
  EXPECT_LT(crossed, finish);
  EXPECT_LT(finish, books);
  EXPECT_NE(books, std::string::npos);
  EXPECT_EQ(CountOf(log, "Retry Count value: "), 100U);
  EXPECT_EQ(Sequence(), "ASIRC");
  EXPECT_EQ(gKvmEnabled.load(), 0);
}

TEST_F(KvmRelay, ASendThatFailsHardIsTriedAgainJustTheSame) {
  gate::FailEvery("send", 10054);
  WithoutPauses();
  Data("gone");
  EXPECT_TRUE(Logged("KVM SockWrite Failed"));
  EXPECT_EQ(CountOf(Messages(), "Retry Count value: "), 100U);
  EXPECT_EQ(gKvmSocketState.load(), kKvmSessionFinished);
}

TEST_F(KvmRelay, WhatASendLeavesIsLostAndTheBooksSayFail) {
  const std::string chunk(131070, 'c');
  for (int i = 0; i < 2000 && CountOf(Messages(), "Match:Fail") == 0; ++i) {
    gate::Arm();
    gate::FailEvery("Sleep(100)", gate::kFinishAtOnce);
    Data(chunk);
  }
  const std::string line = LastLine("Send index:");
  EXPECT_NE(line.find("Match:Fail"), std::string::npos);
  EXPECT_EQ(line.find("Socket data size: 0;"), std::string::npos) << line;
  EXPECT_EQ(gKvmSocketState.load(), kKvmSessionUp);
}

// The session ends under the retries: the rest of them must end too, on no socket.
TEST_F(KvmRelay, ASessionThatEndsUnderTheRetriesIsEndedOnce) {
  FillConnection();
  gate::Arm();
  std::thread reader([] { Data("unheard"); });
  ASSERT_TRUE(Eventually([&] { return CountOf(Messages(), "Retry Count value: ") >= 2; }));
  viewer_->Reset();
  ASSERT_TRUE(firmware_->Await(kGone));
  WithoutPauses();
  reader.join();
  EXPECT_TRUE(Logged("socket write crossed 100 attempts; socket address 0"));
  EXPECT_EQ(CountOf(Messages(), "Finish KVM Session\n"), 1U);
  EXPECT_EQ(Sequence(), "ASIRC");
}

TEST_F(KvmRelay, TheLastWordsOfAViewerReachTheFirmwareBeforeTheEnd) {
  firmware_->SetVerdict(kKvmBytes, FirmwarePeer::kHold);
  viewer_->Send("hold ");
  ASSERT_TRUE(firmware_->Await(kKvmBytes));
  viewer_->Send("last words");
  viewer_.reset();
  ASSERT_TRUE(ViewerHasClosed());
  firmware_->SetVerdict(kKvmBytes, 0);
  platform::CancelIoEx(*gRequestDevice, nullptr);
  ASSERT_TRUE(firmware_->Await(kGone));
  EXPECT_EQ(DataSent(), "hold last words");
  EXPECT_EQ(Sequence(), "ASIDDRC");
  ASSERT_TRUE(Eventually([&] { return Logged("Free successful"); }));
  EXPECT_TRUE(Logged("SELECTOR_READ_CLOSE called. Client closed the connection so returned false"));
  const std::string log = Messages();
  EXPECT_LT(log.find("Selector remove called for KVM callback\nClosing handler Socket\nFreeing "
                     "handler\nFree successful\nExiting KVM Callback\n"),
            log.size());
}

TEST_F(KvmRelay, AViewerThatVanishesEndsItsSessionAndTheNextOneWorks) {
  viewer_->Reset();
  ASSERT_TRUE(firmware_->Await(kGone));
  EXPECT_EQ(Sequence(), "ASIRC");
  EXPECT_TRUE(Logged("KVM callback shutdown called"));
  Enable();
  TcpClient next(22);
  ASSERT_TRUE(firmware_->Await(kAnnounce, 2));
  next.Send("hello");
  EXPECT_TRUE(firmware_->Await(kKvmBytes));
}

TEST_F(KvmRelay, AReadThatFailsEndsTheSessionAndOneThatFindsNothingDoesNot) {
  gate::FailNext("recv", platform::kWsaEWouldBlock);
  viewer_->Send("kept");
  ASSERT_TRUE(Eventually([&] { return DataSent() == "kept"; }));
  gate::FailNext("recv", 10054);
  viewer_->Send("x");
  ASSERT_TRUE(firmware_->Await(kGone));
  EXPECT_TRUE(Logged("Sockread failed or client closed the connection for KVM callback"));
  EXPECT_TRUE(Logged("KVM Client closed the connection so returned false"));
}

TEST_F(KvmRelay, AFailedMailboxWriteLosesThatReadAndKeepsTheSession) {
  firmware_->SetVerdict(kKvmBytes, 31);
  viewer_->Send("lost");
  ASSERT_TRUE(firmware_->Await(kKvmBytes));
  ASSERT_TRUE(Eventually(
      [&] { return Logged("GetOverlappedResult failed for WriteKVMPacket with error: 31"); }));
  firmware_->SetVerdict(kKvmBytes, 0);
  viewer_->Send("kept");
  ASSERT_TRUE(firmware_->Await(kKvmBytes, 2));
  EXPECT_EQ(gKvmSocketState.load(), kKvmSessionUp);
}

// A write event isn't asked for. The guard's removal must not leave a session up without a socket.
TEST_F(KvmRelay, AnUnexpectedWriteEventRemovesTheConnectionAndEndsItsSession) {
  viewer_.reset();
  ASSERT_TRUE(Eventually([&] { return Logged("Free successful"); }));
  int ends[2];
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0);
  gKvmSocket = static_cast<Sock>(ends[0]);
  gKvmSocketState = kKvmSessionUp;
  auto* handler = new Handler{};
  handler->sock = gKvmSocket.load();
  EXPECT_EQ(KVMCallback(nullptr, handler, SELECTOR_WRITE, 0), 0);
  EXPECT_TRUE(Logged("Unexpected write event in KVM callback"));
  EXPECT_EQ(KVMCallback(nullptr, handler, SELECTOR_REMOVE, 0), 1);
  EXPECT_EQ(gKvmSocket.load(), 0U);
  EXPECT_EQ(gKvmSocketState.load(), kKvmSessionFinished);
  EXPECT_EQ(Sequence(), "ASIRCRC");
  ::close(ends[1]);
}

// The reader writes while sessions end and begin on the other thread: no frame may reach a socket
// number that has been given to somebody else.
TEST_F(KvmRelay, FramesAndClosesOnTwoThreadsDoNotMeetOnOneSocket) {
  viewer_.reset();
  ASSERT_TRUE(firmware_->Await(kGone));
  std::atomic<bool> stop{false};
  WithoutPauses();
  std::thread reader([&] {
    while (!stop) {
      if (gKvmEnabled.load() == 0) Enable();
      if (gKvmSocketState.load() == kKvmSessionUp) Data("r");
    }
  });
  std::size_t served = 0;
  for (int i = 0; i < 100 && served < 30; ++i) {
    gKvmRebindCount = 1;
    ASSERT_TRUE(Eventually([] { return gKvmEnabled.load() == 1; }) && Listening());
    TcpClient client(22);
    client.Send("x");
    if (client.Receive(1) == "r") ++served;
    TcpClient bystander(22, 50);  // takes the number that was just closed, or is dropped
  }
  stop = true;
  reader.join();
  EXPECT_EQ(served, 30U);
}

}  // namespace
}  // namespace stewardry
