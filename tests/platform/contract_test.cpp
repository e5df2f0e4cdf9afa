// What the rest of the house relies on and both platforms must give alike. No case here names a
// platform or looks behind the contract; a case that fails on one side only is a fault of that
// side.
#include <gtest/gtest.h>

#include <array>
#include <bit>
#include <cerrno>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "platform/error.h"
#include "platform/event.h"
#include "platform/file.h"
#include "platform/mutex.h"
#include "platform/network.h"
#include "platform/process.h"
#include "platform/socket.h"
#include "platform/thread.h"

namespace platform {
namespace {

constexpr std::uint32_t kSoon = 50;              // long enough to see that something doesn't happen
constexpr std::uint32_t kLate = 10000;           // only a fault takes as long
constexpr std::uint32_t kLoopback = 0x0100007F;  // 127.0.0.1 in network byte order

class Prepared : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    ASSERT_TRUE(PrepareProcess());
    ASSERT_EQ(WSAStartup(), 0);
  }
  static void TearDownTestSuite() { WSACleanup(); }
};

// ---- Events, mutexes, threads

using EventContract = Prepared;

TEST_F(EventContract, AutoResetLetsOneWaitThroughAndManualResetEveryOne) {
  const Event automatic = CreateEventA(false, true);
  EXPECT_EQ(WaitForSingleObject(automatic, 0), kWaitObject0);
  EXPECT_EQ(WaitForSingleObject(automatic, 0), kWaitTimeout);
  const Event manual = CreateEventA(true, true);
  EXPECT_EQ(WaitForSingleObject(manual, 0), kWaitObject0);
  EXPECT_EQ(WaitForSingleObject(manual, 0), kWaitObject0);
  EXPECT_TRUE(ResetEvent(manual));
  EXPECT_EQ(WaitForSingleObject(manual, kSoon), kWaitTimeout);
}

TEST_F(EventContract, SetReachesAThreadThatWaitsWithoutBound) {
  Event event = CreateEventA(false, false);
  const Thread waiter = CreateThread(
      [](void* shared) { return WaitForSingleObject(*static_cast<Event*>(shared), kInfinite); },
      &event);
  EXPECT_EQ(WaitForSingleObject(waiter, kSoon), kWaitTimeout);
  EXPECT_TRUE(SetEvent(event));
  EXPECT_EQ(WaitForSingleObject(waiter, kLate), kWaitObject0);
  EXPECT_EQ(WaitForSingleObject(event, 0), kWaitTimeout);
}

TEST_F(EventContract, LastErrorIsTheThreadsOwn) {
  SetLastError(kErrorDiskFull);
  const Thread other = CreateThread(
      [](void*) -> std::uint32_t {
        SetLastError(kErrorAccessDenied);
        return LastError();
      },
      nullptr);
  EXPECT_EQ(WaitForSingleObject(other, kLate), kWaitObject0);
  SetLastError(kErrorDiskFull);
  EXPECT_EQ(LastError(), kErrorDiskFull);
  std::uint32_t theirs = 0;
  EXPECT_TRUE(GetExitCodeThread(other, &theirs));
  EXPECT_EQ(theirs, kErrorAccessDenied);
}

// What a thread of these tests is given.
struct Shared {
  Event started = CreateEventA(true, false);
  Event never = CreateEventA(true, false);
  Mutex mutex = CreateMutexA(nullptr);
  SocketEvent sockets = WSACreateEvent();
  WakeEvent wake = CreateWakeEvent();
};

using MutexContract = Prepared;

TEST_F(MutexContract, ADeadHoldersMutexIsTakenAsAbandonedOnceAndThenWorks) {
  const ThreadEntry returnsWithIt = [](void* shared) {
    return WaitForSingleObject(static_cast<Shared*>(shared)->mutex, kLate);
  };
  const ThreadEntry isTerminatedWithIt = [](void* shared) {
    WaitForSingleObject(static_cast<Shared*>(shared)->mutex, kLate);
    SetEvent(static_cast<Shared*>(shared)->started);
    return WaitForSingleObject(static_cast<Shared*>(shared)->never, kInfinite);
  };
  for (const ThreadEntry entry : {returnsWithIt, isTerminatedWithIt}) {
    Shared shared;
    const Thread holder = CreateThread(entry, &shared);
    if (entry == isTerminatedWithIt) {
      ASSERT_EQ(WaitForSingleObject(shared.started, kLate), kWaitObject0);
      EXPECT_EQ(WaitForSingleObject(shared.mutex, kSoon), kWaitTimeout);
      ASSERT_TRUE(TerminateThread(holder, 1));
    }
    ASSERT_EQ(WaitForSingleObject(holder, kLate), kWaitObject0);
    EXPECT_EQ(WaitForSingleObject(shared.mutex, kLate), kWaitAbandoned);
    EXPECT_TRUE(ReleaseMutex(shared.mutex));
    EXPECT_EQ(WaitForSingleObject(shared.mutex, 0), kWaitObject0);
    EXPECT_TRUE(ReleaseMutex(shared.mutex));
  }
}

TEST_F(MutexContract, OneNameIsOneMutex) {
  const std::string name = "StewardryContract" + std::to_string(GetCurrentProcessId());
  Mutex first = CreateMutexA(name.c_str());
  const Mutex second = CreateMutexA(name.c_str());
  ASSERT_EQ(WaitForSingleObject(second, 0), kWaitObject0);
  const Thread stranger = CreateThread(
      [](void* mutex) { return WaitForSingleObject(*static_cast<Mutex*>(mutex), 0); }, &first);
  EXPECT_EQ(WaitForSingleObject(stranger, kLate), kWaitObject0);
  std::uint32_t result = 0;
  EXPECT_TRUE(GetExitCodeThread(stranger, &result));
  EXPECT_EQ(result, kWaitTimeout);
  EXPECT_TRUE(ReleaseMutex(second));
}

using ThreadContract = Prepared;

TEST_F(ThreadContract, ExitCodeIsStillActiveUntilTheEndAndThenTheEntrysResult) {
  Shared shared;
  const Thread thread = CreateThread(
      [](void* given) -> std::uint32_t {
        return WaitForSingleObject(static_cast<Shared*>(given)->started, kInfinite) + 0xFFFFFFF0;
      },
      &shared);
  std::uint32_t code = 0;
  EXPECT_TRUE(GetExitCodeThread(thread, &code));
  EXPECT_EQ(code, kStillActive);
  SetEvent(shared.started);
  ASSERT_EQ(WaitForSingleObject(thread, kLate), kWaitObject0);
  EXPECT_TRUE(GetExitCodeThread(thread, &code));
  EXPECT_EQ(code, 0xFFFFFFF0);
  EXPECT_TRUE(TerminateThread(thread, 5)) << "a thread that has ended is a success";
}

TEST_F(ThreadContract, AThreadIsEndedOutOfAnyKindOfWait) {
  const struct {
    const char* name;
    ThreadEntry wait;
  } kCases[] = {
      {"sleep", [](void*) { return Sleep(kInfinite), 0U; }},
      {"event",
       [](void* s) { return WaitForSingleObject(static_cast<Shared*>(s)->never, kInfinite); }},
      {"mutex",
       [](void* s) { return WaitForSingleObject(static_cast<Shared*>(s)->mutex, kInfinite); }},
      {"sockets",
       [](void* s) {
         const Shared& shared = *static_cast<Shared*>(s);
         return WaitForMultipleObjectsEx(shared.sockets, shared.wake, kInfinite).result;
       }},
  };
  for (const auto& testCase : kCases) {
    SCOPED_TRACE(testCase.name);
    Shared shared;
    ASSERT_EQ(WaitForSingleObject(shared.mutex, 0), kWaitObject0);
    const Thread thread = CreateThread(testCase.wait, &shared);
    EXPECT_EQ(WaitForSingleObject(thread, kSoon), kWaitTimeout);
    EXPECT_TRUE(TerminateThread(thread, 77));
    ASSERT_EQ(WaitForSingleObject(thread, kLate), kWaitObject0);
    std::uint32_t code = 0;
    EXPECT_TRUE(GetExitCodeThread(thread, &code));
    EXPECT_EQ(code, 77U);
    EXPECT_TRUE(ReleaseMutex(shared.mutex));
  }
}

// ---- Files

// A folder of its own below the common application data folder. The contract removes files only,
// so the empty folder stays.
class FileContract : public Prepared {
 protected:
  void SetUp() override {
    char data[kMaxPath];
    ASSERT_TRUE(GetCommonAppDataFolder(data));
    folder_ = std::string(data) + "\\stewardry-contract";
    CreateDirectoryA(folder_.c_str());
    for (const char* name : {"one.txt", "two.txt"}) RemoveFile(Path(name).c_str());
  }
  void TearDown() override {
    for (const char* name : {"one.txt", "two.txt"}) RemoveFile(Path(name).c_str());
  }
  // The names are the process's own: other tests use the folder at the same time.
  std::string Path(const std::string& name) const {
    return folder_ + "\\" + std::to_string(GetCurrentProcessId()) + "-" + name;
  }
  // Opens, writes, closes.
  bool Write(const std::string& name, const char* mode, const std::string& text) const {
    const Stream stream = OpenStream(Path(name).c_str(), mode);
    return stream && WriteStream(stream, text.data(), text.size()) && FlushStream(stream);
  }
  std::int64_t Size(const std::string& name) const {
    const Stream stream = OpenStream(Path(name).c_str(), "a+t");
    return stream ? SeekToEnd(stream) : -1;
  }

  std::string folder_;
};

TEST_F(FileContract, EachLineEndTakesTwoBytesInEveryMode) {
  const struct {
    const char* mode;
    bool startsAnew;
  } kCases[] = {{"w", true}, {"w+t", true}, {"a+t", false}, {"a+", false}};
  for (const auto& testCase : kCases) {
    SCOPED_TRACE(testCase.mode);
    ASSERT_TRUE(Write("one.txt", "w", "old\n"));
    EXPECT_TRUE(Write("one.txt", testCase.mode, "a\nbc\r\n\n"));
    // "a\r\n", "bc\r\r\n", "\r\n": a return of the writer's own stays.
    EXPECT_EQ(Size("one.txt"), (testCase.startsAnew ? 0 : 5) + 3 + 5 + 2);
  }
}

TEST_F(FileContract, SizeIsToldBehindWhatIsNotFlushedYet) {
  const Stream stream = OpenStream(Path("one.txt").c_str(), "w+t");
  ASSERT_TRUE(stream);
  EXPECT_EQ(SeekToEnd(stream), 0);
  EXPECT_TRUE(WriteStream(stream, "ab\n", 3));
  EXPECT_EQ(SeekToEnd(stream), 4);
  const Stream other = OpenStream(Path("one.txt").c_str(), "a+t");
  ASSERT_TRUE(other) << "a stream is shared with other openers";
  EXPECT_TRUE(WriteStream(other, "c", 1) && FlushStream(other));
  EXPECT_EQ(SeekToEnd(stream), 5);
}

TEST_F(FileContract, AppendFileGoesOnAtTheEndWithItsBytesAsTheyAre) {
  for (int round = 0; round < 2; ++round) {
    const AppendFile file = OpenAppendFile(Path("one.txt").c_str());
    ASSERT_TRUE(file);
    EXPECT_TRUE(WriteFile(file, "x\ny", 3));
    EXPECT_TRUE(WriteFile(file, "\n", 1));
  }
  EXPECT_EQ(Size("one.txt"), 8);
}

TEST_F(FileContract, WhatIsThereOrMissingIsToldByItsNumber) {
  SetLastError(0);
  EXPECT_FALSE(CreateDirectoryA(folder_.c_str()));
  EXPECT_EQ(LastError(), kErrorAlreadyExists);
  EXPECT_FALSE(CreateDirectoryA(Path("none\\child").c_str()));
  EXPECT_EQ(LastError(), kErrorPathNotFound);
  EXPECT_FALSE(RemoveFile(Path("one.txt").c_str()));
  EXPECT_EQ(LastError(), kErrorFileNotFound);
  EXPECT_FALSE(RenameFile(Path("one.txt").c_str(), Path("two.txt").c_str()));
  EXPECT_EQ(LastError(), kErrorFileNotFound);
  EXPECT_FALSE(OpenAppendFile(Path("none\\one.txt").c_str()));
  EXPECT_EQ(LastError(), kErrorPathNotFound);
  int number = 0;
  EXPECT_FALSE(OpenStream(Path("none\\one.txt").c_str(), "a+t", &number));
  EXPECT_EQ(number, ENOENT);
}

TEST_F(FileContract, RenameNeverReplacesAFile) {
  ASSERT_TRUE(Write("one.txt", "w", "1"));
  ASSERT_TRUE(Write("two.txt", "w", "22"));
  EXPECT_FALSE(RenameFile(Path("one.txt").c_str(), Path("two.txt").c_str()));
  EXPECT_EQ(LastError(), kErrorAlreadyExists);
  EXPECT_EQ(Size("two.txt"), 2);
  EXPECT_TRUE(RemoveFile(Path("two.txt").c_str()));
  EXPECT_TRUE(RenameFile(Path("one.txt").c_str(), Path("two.txt").c_str()));
  EXPECT_EQ(Size("two.txt"), 1);
}

// ---- Texts that are cut

using TextContract = Prepared;

TEST_F(TextContract, NoTextPassesTheEndOfItsBlock) {
  const struct {
    std::size_t size;
    std::string expected;
  } kCases[] = {{1, ""}, {5, "Ethe"}, {9, "Ethernet"}, {16, "Ethernet"}};
  for (const auto& testCase : kCases) {
    std::vector<char> block(17, '#');
    EXPECT_EQ(WideToAnsi(u"Ethernet 2", 8, block.data(), testCase.size), testCase.expected.size());
    EXPECT_STREQ(block.data(), testCase.expected.c_str());
    EXPECT_EQ(block[testCase.size], '#');
  }
  char whole[512];
  const std::size_t length = FormatMessageA(kErrorAccessDenied, whole, sizeof(whole));
  ASSERT_GT(length, 4U);
  EXPECT_EQ(length, std::strlen(whole));
  char cut[6] = "#####";
  EXPECT_EQ(FormatMessageA(kErrorAccessDenied, cut, 5), 4U);
  EXPECT_EQ(std::string(cut), std::string(whole, 4));
  EXPECT_EQ(FormatMessageA(0xEFFFFFFF, whole, sizeof(whole)), 0U) << "an error without a text";
}

TEST_F(TextContract, ReadLineNeverGivesMoreThanItsBlockHoldsAndEnds) {
  const CommandPipe pipe = OpenCommandPipe("ver");
  ASSERT_TRUE(pipe);
  std::string all;
  char piece[6] = {0, 0, 0, 0, 0, '#'};
  while (ReadLine(pipe, piece, 5)) {
    EXPECT_LT(std::strlen(piece), 5U);
    all += piece;
  }
  EXPECT_EQ(piece[5], '#');
  EXPECT_GT(all.size(), 5U);
}

TEST_F(TextContract, MasksAndAddressesAreInNetworkByteOrder) {
  const struct {
    std::uint32_t length;
    const char* mask;
  } kCases[] = {{0, "0.0.0.0"}, {1, "128.0.0.0"}, {22, "255.255.252.0"}, {32, "255.255.255.255"}};
  char text[16];
  for (const auto& testCase : kCases) {
    InetNtop(ConvertLengthToIpv4Mask(testCase.length), text, sizeof(text));
    EXPECT_STREQ(text, testCase.mask);
  }
  InetNtop(kLoopback, text, sizeof(text));
  EXPECT_STREQ(text, "127.0.0.1");
}

// ---- Sockets

SockAddrIn Loopback(std::uint32_t port) {
  const auto high = static_cast<std::uint8_t>(port >> 8);
  const auto low = static_cast<std::uint8_t>(port);
  SockAddrIn address{kAfInet, 0, kLoopback, {}};
  address.port = std::bit_cast<std::uint16_t>(std::array{high, low});
  return address;
}

// A listener and one connection to it, both ends non-blocking, on a port that was free. One socket
// at a time is selected.
class SocketContract : public Prepared {
 protected:
  void SetUp() override {
    listener_ = socket(kAfInet, kSockStream, kIpprotoTcp);
    ASSERT_NE(listener_, kInvalidSocket);
    for (std::uint32_t i = 0; i < 1000; ++i) {
      address_ = Loopback(20000 + (GetCurrentProcessId() * 7 + i) % 10000);
      if (bind(listener_, &address_, sizeof(address_)) == 0) break;
    }
    ASSERT_EQ(listen(listener_, 5), 0);
    near_ = socket(kAfInet, kSockStream, kIpprotoTcp);
    ASSERT_EQ(connect(near_, &address_, sizeof(address_)), 0);
    far_ = accept(listener_, &peer_);
    ASSERT_NE(far_, kInvalidSocket);
    ASSERT_EQ(SetNonBlocking(near_, true), 0);
    ASSERT_EQ(SetNonBlocking(far_, true), 0);
  }
  void TearDown() override {
    if (watched_ != kInvalidSocket) Select(0);
    for (const SocketValue sock : {listener_, near_, far_})
      if (sock != kInvalidSocket) closesocket(sock);
  }
  void Select(std::uint32_t events) {
    if (!MustSelect(selection_, events)) return;
    EXPECT_EQ(WSAEventSelect(watched_, sockets_, &selection_, events), 0);
  }
  void Watch(SocketValue sock) {
    if (watched_ != kInvalidSocket) Select(0);
    watched_ = sock;
    selection_ = {};
  }
  // One pass of a selector: what the watched socket has to tell.
  std::uint32_t News(std::uint32_t events, std::uint32_t milliseconds = kLate) {
    Select(events);
    const SocketWait wait = WaitForMultipleObjectsEx(sockets_, wake_, milliseconds);
    EXPECT_NE(wait.result, kWaitFailed);
    result_ = wait.result;
    woken_ = wait.woken;
    std::uint32_t told = 0;
    if (wait.signalled == 0 || !MayHaveNews(selection_)) return 0;
    EXPECT_EQ(WSAEnumNetworkEvents(watched_, sockets_, &selection_, &told), 0);
    return told;
  }
  void CloseFar() { closesocket(std::exchange(far_, kInvalidSocket)); }

  SockAddrIn address_{}, peer_{};
  SocketEvent sockets_ = WSACreateEvent();
  WakeEvent wake_ = CreateWakeEvent();
  SocketValue listener_ = kInvalidSocket, near_ = kInvalidSocket, far_ = kInvalidSocket;
  SocketValue watched_ = kInvalidSocket;
  SocketSelection selection_{};
  std::uint32_t result_ = 0;
  bool woken_ = false;
};

constexpr std::uint32_t kReading = kFdRead | kFdAccept | kFdClose;
constexpr std::uint32_t kWriting = kFdWrite | kFdConnect;

TEST_F(SocketContract, AcceptTellsThePeerInNetworkByteOrder) {
  EXPECT_EQ(peer_.family, kAfInet);
  EXPECT_EQ(peer_.address, kLoopback);
  EXPECT_NE(peer_.port, 0);
  EXPECT_NE(peer_.port, address_.port);
}

TEST_F(SocketContract, DataThatAReadLeavesIsToldAgain) {
  char byte;
  Watch(near_);
  EXPECT_EQ(News(kReading, kSoon), 0U);
  ASSERT_EQ(send(far_, "ab", 2), 2);
  EXPECT_EQ(News(kReading), kFdRead);
  ASSERT_EQ(recv(near_, &byte, 1), 1);
  EXPECT_EQ(News(kReading), kFdRead) << "one byte is left";
  ASSERT_EQ(recv(near_, &byte, 1), 1);
  EXPECT_EQ(News(kReading, kSoon), 0U);
  EXPECT_EQ(result_, kWaitTimeout) << "what was told must not end the next wait";
}

TEST_F(SocketContract, OnlyWhatASocketIsSelectedForIsTold) {
  Watch(near_);
  ASSERT_EQ(send(far_, "a", 1), 1);
  EXPECT_EQ(News(0, kSoon), 0U);
  EXPECT_EQ(News(kFdOob, kSoon), 0U);
  EXPECT_EQ(News(kReading), kFdRead);
}

TEST_F(SocketContract, DataBeforeACloseIsToldAsReadAndTheCloseIsNotLost) {
  char block[8];
  Watch(near_);
  ASSERT_EQ(send(far_, "last", 4), 4);
  CloseFar();
  EXPECT_EQ(News(kReading) & ~std::uint32_t{kFdClose}, kFdRead);
  ASSERT_EQ(recv(near_, block, sizeof(block)), 4);
  EXPECT_EQ(News(kReading), kFdClose);
  EXPECT_EQ(recv(near_, block, sizeof(block)), 0);
}

TEST_F(SocketContract, ABareCloseIsNoReadAndAHalfCloseLeavesTheOtherWayOpen) {
  char byte;
  Watch(near_);
  ASSERT_EQ(shutdown(far_, kSdSend), 0);
  EXPECT_EQ(News(kReading), kFdClose);
  EXPECT_EQ(recv(near_, &byte, 1), 0);
  ASSERT_EQ(send(near_, "x", 1), 1);
  Watch(far_);
  EXPECT_EQ(News(kReading) & kFdRead, kFdRead);
  EXPECT_EQ(recv(far_, &byte, 1), 1);
}

TEST_F(SocketContract, WriteIsToldWhileThereIsRoomAndAgainWhenThereIsRoomAgain) {
  std::vector<char> block(65536);
  Watch(near_);
  EXPECT_EQ(News(kFdWrite), kFdWrite);
  while (send(near_, block.data(), 65536) > 0) {
  }
  EXPECT_EQ(WSAGetLastError(), kWsaEWouldBlock);
  EXPECT_EQ(News(kFdWrite, kSoon), 0U);
  std::uint32_t told = 0;
  for (int i = 0; i < 1000 && told == 0; ++i) {
    while (recv(far_, block.data(), 65536) > 0) {
    }
    told = News(kFdWrite, kSoon);
  }
  EXPECT_EQ(told, kFdWrite);
}

TEST_F(SocketContract, AListenerAndAConnectTellTheConnection) {
  const SocketValue another = socket(kAfInet, kSockStream, kIpprotoTcp);
  ASSERT_EQ(SetNonBlocking(another, true), 0);
  EXPECT_EQ(connect(another, &address_, sizeof(address_)), -1);
  EXPECT_EQ(WSAGetLastError(), kWsaEWouldBlock);
  Watch(another);
  EXPECT_EQ(News(kWriting) & ~std::uint32_t{kFdConnect}, kFdWrite);
  Watch(listener_);
  EXPECT_EQ(News(kReading), kFdAccept);
  const SocketValue accepted = accept(listener_, &peer_);
  EXPECT_NE(accepted, kInvalidSocket);
  EXPECT_EQ(News(kReading, kSoon), 0U);
  EXPECT_EQ(closesocket(accepted), 0);
  EXPECT_EQ(closesocket(another), 0);
}

TEST_F(SocketContract, TheWakeEventEndsAWaitFromAnyThreadAndStaysUntilReset) {
  Watch(near_);
  const Thread waker = CreateThread(
      [](void* wake) -> std::uint32_t {
        Sleep(kSoon);
        return SetEvent(*static_cast<WakeEvent*>(wake)) ? 1 : 0;
      },
      &wake_);
  EXPECT_EQ(News(kReading, kInfinite), 0U);
  EXPECT_TRUE(woken_);
  EXPECT_EQ(WaitForSingleObject(waker, kLate), kWaitObject0);
  EXPECT_EQ(News(kReading, 0), 0U);
  EXPECT_TRUE(woken_) << "until it is reset";
  ASSERT_EQ(send(far_, "ab", 2), 2);
  Sleep(kSoon);
  EXPECT_EQ(News(kReading), kFdRead);
  EXPECT_TRUE(woken_) << "beside a socket's news too";
  EXPECT_TRUE(ResetEvent(wake_));
  char byte;
  ASSERT_EQ(recv(near_, &byte, 1), 1);
  EXPECT_EQ(News(kReading), kFdRead);
  EXPECT_FALSE(woken_);
}

TEST_F(SocketContract, RefusalsHaveWinsocksNumbers) {
  char byte;
  const SocketValue other = socket(kAfInet, kSockStream, kIpprotoTcp);
  EXPECT_EQ(bind(other, &address_, sizeof(address_)), -1);
  EXPECT_EQ(WSAGetLastError(), kWsaEAddrInUse);
  EXPECT_EQ(recv(other, &byte, 1), -1);
  EXPECT_EQ(WSAGetLastError(), kWsaENotConn);
  EXPECT_EQ(recv(near_, &byte, 1), -1);
  EXPECT_EQ(WSAGetLastError(), kWsaEWouldBlock);
  const int on = 1;
  EXPECT_EQ(setsockopt(other, kSolSocket, kSoReuseAddr, &on, sizeof(on)), 0);
  EXPECT_EQ(setsockopt(other, kIpprotoTcp, kTcpNoDelay, &on, sizeof(on)), 0);
  EXPECT_EQ(closesocket(other), 0);
  EXPECT_EQ(closesocket(other), -1);
}

TEST_F(SocketContract, AnAddressIsCopiedOnlyWhereThereIsOneAndItFits) {
  SockAddrIn found{};
  EXPECT_EQ(ResolveHost("127.0.0.1", 0, &found, sizeof(found)), 16);
  EXPECT_EQ(found.family, kAfInet);
  EXPECT_EQ(found.address, kLoopback);
  EXPECT_EQ(ResolveHost("127.0.0.1", 1, &found, sizeof(found)), 0);
  EXPECT_EQ(ResolveHost("127.0.0.1", 0, &found, 15), 0);
}

}  // namespace
}  // namespace platform
