// The contract that both platforms keep. A case that fails on one platform only shows a fault of
// that platform.
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <string>
#include <utility>
#include <vector>

#include "platform/error.h"
#include "platform/event.h"
#include "platform/file.h"
#include "platform/http.h"
#include "platform/mutex.h"
#include "platform/network.h"
#include "platform/private_folder.h"
#include "platform/process.h"
#include "platform/socket.h"
#include "platform/thread.h"
#include "tests/eventually.h"

namespace platform {
namespace {

constexpr std::uint32_t kBound = 60'000;         // milliseconds; ends a hung test
constexpr std::uint32_t kLoopback = 0x0100007F;  // 127.0.0.1 in network byte order

class Prepared : public testing::Test {
 protected:
  static void SetUpTestSuite() {
    ASSERT_TRUE(PrepareProcess());
    ASSERT_EQ(WSAStartup(), 0);
  }
  static void TearDownTestSuite() { WSACleanup(); }
};

struct Shared {
  Event ready = CreateEventA(false, false);  // set by the thread
  Event go = CreateEventA(false, false);     // set by the test, if the thread may continue
  Mutex mutex = CreateMutexA(nullptr);
  SocketEvent sockets = WSACreateEvent();
  WakeEvent wake = CreateWakeEvent();

  std::uint32_t WaitToGo() {
    SetEvent(ready);
    return WaitForSingleObject(go, kInfinite);
  }
};
Shared& SharedOf(void* parameter) { return *static_cast<Shared*>(parameter); }

// Blocks until the thread has ended. Returns its exit code.
std::uint32_t ExitCode(const Thread& thread) {
  EXPECT_EQ(WaitForSingleObject(thread, kBound), kWaitObject0);
  std::uint32_t code = 0;
  EXPECT_TRUE(GetExitCodeThread(thread, &code));
  return code;
}

using EventContract = Prepared;

TEST_F(EventContract, AutoResetReleasesOneWaitAndManualResetEach) {
  const Event automatic = CreateEventA(false, true);
  EXPECT_EQ(WaitForSingleObject(automatic, 0), kWaitObject0);
  EXPECT_EQ(WaitForSingleObject(automatic, 0), kWaitTimeout);
  const Event manual = CreateEventA(true, true);
  EXPECT_EQ(WaitForSingleObject(manual, 0), kWaitObject0);
  EXPECT_EQ(WaitForSingleObject(manual, 0), kWaitObject0);
  EXPECT_TRUE(ResetEvent(manual));
  EXPECT_EQ(WaitForSingleObject(manual, 0), kWaitTimeout);
}

// Each side waits for the other's event, so no signal may be lost, before a wait or during it.
TEST_F(EventContract, EachSetReachesAThreadThatWaits) {
  constexpr int kRounds = 500;
  Shared shared;
  const Thread thread = CreateThread(
      [](void* parameter) -> std::uint32_t {
        std::uint32_t released = 0;
        for (int i = 0; i < kRounds; ++i)
          released += SharedOf(parameter).WaitToGo() == kWaitObject0;
        return released;
      },
      &shared);
  for (int i = 0; i < kRounds; ++i) {
    ASSERT_EQ(WaitForSingleObject(shared.ready, kBound), kWaitObject0);
    EXPECT_TRUE(SetEvent(shared.go));
  }
  EXPECT_EQ(ExitCode(thread), std::uint32_t{kRounds});
}

using MutexContract = Prepared;

TEST_F(MutexContract, MutexOfAnEndedHolderIsAbandonedOnce) {
  for (const bool terminated : {false, true}) {
    Shared shared;
    const Thread holder = CreateThread(
        [](void* given) {
          WaitForSingleObject(SharedOf(given).mutex, kBound);
          return SharedOf(given).WaitToGo();
        },
        &shared);
    ASSERT_EQ(WaitForSingleObject(shared.ready, kBound), kWaitObject0);
    EXPECT_EQ(WaitForSingleObject(shared.mutex, 0), kWaitTimeout);
    ASSERT_TRUE(terminated ? TerminateThread(holder, 1) : SetEvent(shared.go));
    EXPECT_EQ(ExitCode(holder), terminated ? 1U : kWaitObject0);
    EXPECT_EQ(WaitForSingleObject(shared.mutex, kBound), kWaitAbandoned);
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
  EXPECT_EQ(ExitCode(stranger), kWaitTimeout);
  EXPECT_TRUE(ReleaseMutex(second));
}

using ThreadContract = Prepared;

TEST_F(ThreadContract, TerminatedThreadEndsInAnyWait) {
  for (const ThreadEntry wait : std::initializer_list<ThreadEntry>{
           [](void* s) {
             SetEvent(SharedOf(s).ready);
             Sleep(kInfinite);
             return 0U;
           },
           [](void* s) {
             SetEvent(SharedOf(s).ready);
             return WaitForSingleObject(SharedOf(s).mutex, kInfinite);
           },
           [](void* s) {
             Shared& given = SharedOf(s);
             SetEvent(given.ready);
             return WaitForMultipleObjectsEx(given.sockets, given.wake, kInfinite).result;
           }}) {
    Shared shared;
    ASSERT_EQ(WaitForSingleObject(shared.mutex, 0), kWaitObject0);
    const Thread thread = CreateThread(wait, &shared);
    ASSERT_EQ(WaitForSingleObject(shared.ready, kBound), kWaitObject0);
    std::uint32_t code = 0;
    EXPECT_TRUE(GetExitCodeThread(thread, &code));
    EXPECT_EQ(code, kStillActive);
    EXPECT_TRUE(TerminateThread(thread, 0xFFFFFFF0));
    EXPECT_EQ(ExitCode(thread), 0xFFFFFFF0);
    EXPECT_TRUE(TerminateThread(thread, 5)) << "an ended thread is a success";
    EXPECT_TRUE(ReleaseMutex(shared.mutex));
  }
}

// Two files below the common application data folder, named after the process.
class FileContract : public Prepared {
 protected:
  void SetUp() override {
    char data[kMaxPath];
    ASSERT_TRUE(GetCommonAppDataFolder(data));
    folder_ = std::string(data) + "\\stewardry-contract";
    CreatePrivateFolder(folder_.c_str());
    one_ = folder_ + "\\1-" + std::to_string(GetCurrentProcessId());
    two_ = folder_ + "\\2-" + std::to_string(GetCurrentProcessId());
    TearDown();
  }
  void TearDown() override {
    for (const std::string& path : {one_, two_}) RemoveFile(path.c_str());
  }
  static bool Write(const std::string& path, const char* mode, const std::string& text) {
    const Stream stream = OpenStream(path.c_str(), mode);
    return stream && WriteStream(stream, text.data(), text.size()) >= 0;
  }
  static std::int64_t Size(const std::string& path) {
    const Stream stream = OpenStream(path.c_str(), "a+t");
    return stream ? SeekToEnd(stream) : -1;
  }

  std::string folder_, one_, two_;
};

TEST_F(FileContract, EachLineEndTakesTwoBytesInEveryMode) {
  for (const char* mode : {"w", "w+t", "a+t", "a+"}) {
    ASSERT_TRUE(Write(one_, "w", "old\n"));
    EXPECT_TRUE(Write(one_, mode, "a\nbc\r\n" + std::string(5000, '\n')));
    // "a\r\n", "bc\r\r\n", "\r\n"...: the writer's carriage return is kept.
    EXPECT_EQ(Size(one_), (mode[0] == 'w' ? 0 : 5) + 3 + 5 + 2 * 5000) << mode;
  }
}

TEST_F(FileContract, SizeCountsWhatOtherOpenersWrote) {
  const Stream stream = OpenStream(one_.c_str(), "w+t");
  EXPECT_EQ(stream ? WriteStream(stream, "ab\n", 3) : -1, 4);
  EXPECT_TRUE(Write(one_, "a+t", "c"));
  EXPECT_EQ(WriteStream(stream, "d", 1), 1) << "after the other's bytes";
  EXPECT_EQ(SeekToEnd(stream), 6);
}

// Windows ends a thread at any instruction, also in a write. The next writer would wait for ever
// for anything that the thread held outside the kernel.
TEST_F(FileContract, WriterTerminatedAnywhereDoesNotBlockTheNextOne) {
  static Stream stream;
  static Mutex mutex = CreateMutexA(nullptr);
  static std::atomic<int> lines{0};
  const ThreadEntry write = [](void* forEver) {
    do {
      WaitForSingleObject(mutex, kInfinite);
      for (int i = 0; i < 100; ++i, ++lines) WriteStream(stream, "as long as a log's line\n", 24);
      ReleaseMutex(mutex);
      Sleep(0);  // Linux ends a thread here
    } while (forEver != nullptr);
    return 0U;
  };
  stream = OpenStream(one_.c_str(), "w+t");
  for (int i = 0; i < 15; ++i) {
    const Thread writer = CreateThread(write, &lines);
    ASSERT_TRUE(Eventually([enough = lines + 30] { return lines > enough; }));
    ASSERT_TRUE(TerminateThread(writer, 0));
    ASSERT_EQ(WaitForSingleObject(writer, kBound), kWaitObject0);
    const Thread next = CreateThread(write, nullptr);
    // A regular exit would wait for what the hung thread holds.
    if (WaitForSingleObject(next, kBound) != kWaitObject0) std::_Exit(1);
  }
  stream.Reset();
  EXPECT_GE(Size(one_), 25 * 15 * 100);
}

TEST_F(FileContract, AppendFileKeepsItsBytes) {
  for (int round = 0; round < 2; ++round) {
    const AppendFile file = OpenAppendFile(one_.c_str());
    ASSERT_TRUE(file);
    EXPECT_TRUE(WriteFile(file, "x\ny\n", 4));
  }
  EXPECT_EQ(Size(one_), 8);
}

TEST_F(FileContract, FailuresHaveWindowsNumbers) {
  EXPECT_FALSE(CreatePrivateFolder(folder_.c_str()));
  EXPECT_EQ(LastError(), kErrorAlreadyExists);
  const std::string nowhere = folder_ + "\\none\\child";
  EXPECT_FALSE(RemoveFile(one_.c_str()));
  EXPECT_EQ(LastError(), kErrorFileNotFound);
  int number = 0;
  EXPECT_FALSE(OpenStream(nowhere.c_str(), "a+t", &number));
  EXPECT_EQ(number, ENOENT);
}

TEST_F(FileContract, RenameKeepsAnExistingFile) {
  ASSERT_TRUE(Write(one_, "w", "1"));
  ASSERT_TRUE(Write(two_, "w", "22"));
  EXPECT_FALSE(RenameFile(one_.c_str(), two_.c_str()));
  EXPECT_EQ(LastError(), kErrorAlreadyExists);
  EXPECT_EQ(Size(two_), 2);
  EXPECT_TRUE(RemoveFile(two_.c_str()));
  EXPECT_TRUE(RenameFile(one_.c_str(), two_.c_str()));
  EXPECT_EQ(Size(two_), 1);
}

using TextContract = Prepared;

TEST_F(TextContract, TextIsCutAtTheEndOfItsBlock) {
  const std::string text = "Ethernet";
  for (const std::size_t size : {1U, 5U, 9U, 16U}) {
    const std::string kept = text.substr(0, size - 1);
    std::string block(17, '#');
    EXPECT_EQ(WideToAnsi(u"Ethernet 2", text.size(), block.data(), size), kept.size());
    EXPECT_STREQ(block.c_str(), kept.c_str());
    EXPECT_EQ(block[size], '#');
  }
  char whole[512], cut[6] = "#####";
  ASSERT_GT(FormatMessageA(kErrorAccessDenied, whole, sizeof whole), 4U);
  EXPECT_EQ(FormatMessageA(kErrorAccessDenied, cut, 5), 4U);
  EXPECT_EQ(std::string(cut), std::string(whole, 4));
  EXPECT_EQ(FormatMessageA(0xEFFFFFFF, whole, sizeof whole), 0U) << "no text for this error";
}

// A listener on a port that was free, and one connection to it with both ends non-blocking.
class SocketContract : public Prepared {
 protected:
  void SetUp() override {
    listener_ = socket(kAfInet, kSockStream, kIpprotoTcp);
    ASSERT_NE(listener_, kInvalidSocket);
    for (std::uint32_t i = 0; i < 1000; ++i) {
      const std::uint32_t port = 20000 + (GetCurrentProcessId() * 7 + i) % 10000;
      address_.port = static_cast<std::uint16_t>(port << 8 | port >> 8);  // in network byte order
      if (bind(listener_, &address_, sizeof address_) == 0) break;
    }
    ASSERT_EQ(listen(listener_, 5), 0);
    near_ = socket(kAfInet, kSockStream, kIpprotoTcp);
    ASSERT_EQ(connect(near_, &address_, sizeof address_), 0);
    SockAddrIn peer;
    far_ = accept(listener_, &peer);
    ASSERT_EQ(peer.address, kLoopback);
    ASSERT_EQ(SetNonBlocking(near_, true), 0);
    ASSERT_EQ(SetNonBlocking(far_, true), 0);
  }
  void TearDown() override {
    Select(0);
    for (const SocketValue sock : {listener_, near_, far_}) closesocket(sock);
  }
  void Select(std::uint32_t events) {
    if (!MustSelect(selection_, events)) return;
    EXPECT_EQ(WSAEventSelect(near_, sockets_, &selection_, events), 0);
  }
  // Makes one pass of a selector. Returns the network events of the near end.
  std::uint32_t Events(std::uint32_t events, std::uint32_t milliseconds = kBound) {
    Select(events);
    const SocketWait wait = WaitForMultipleObjectsEx(sockets_, wake_, milliseconds);
    EXPECT_NE(wait.result, kWaitFailed);
    result_ = wait.result;
    std::uint32_t found = 0;
    if (wait.signalled == 0 || !MayHaveEvents(selection_)) return 0;
    EXPECT_EQ(WSAEnumNetworkEvents(near_, sockets_, &selection_, &found), 0);
    return found;
  }

  SockAddrIn address_{kAfInet, 0, kLoopback, {}};
  SocketEvent sockets_ = WSACreateEvent();
  WakeEvent wake_ = CreateWakeEvent();
  SocketValue listener_ = kInvalidSocket, near_ = kInvalidSocket, far_ = kInvalidSocket;
  SocketSelection selection_{};
  std::uint32_t result_ = 0;
};

constexpr std::uint32_t kReading = kFdRead | kFdAccept | kFdClose;

TEST_F(SocketContract, ReadIsReportedWhileDataRemains) {
  char byte;
  EXPECT_EQ(Events(kReading, 0), 0U);
  ASSERT_EQ(send(far_, "ab", 2), 2);
  EXPECT_EQ(Events(kReading), kFdRead);
  ASSERT_EQ(recv(near_, &byte, 1), 1);
  EXPECT_EQ(Events(kReading), kFdRead) << "one byte is left";
  EXPECT_EQ(Events(kFdOob, 0), 0U) << "the socket is not selected for data";
  ASSERT_EQ(recv(near_, &byte, 1), 1);
  EXPECT_EQ(Events(kReading, 0), 0U);
  EXPECT_EQ(result_, kWaitTimeout) << "a reported event does not end the next wait";
}

TEST_F(SocketContract, CloseIsReportedAfterTheLastData) {
  char block[8];
  ASSERT_EQ(send(far_, "last", 4), 4);
  ASSERT_EQ(closesocket(std::exchange(far_, kInvalidSocket)), 0);
  EXPECT_EQ(Events(kReading) & ~std::uint32_t{kFdClose}, kFdRead);
  ASSERT_EQ(recv(near_, block, sizeof block), 4);
  EXPECT_EQ(Events(kReading), kFdClose);
}

TEST_F(SocketContract, WriteIsReportedWhileThereIsRoom) {
  std::vector<char> block(65536);
  EXPECT_EQ(Events(kFdWrite), kFdWrite);
  // The far end's buffer may take more after the first failure.
  EXPECT_TRUE(Eventually([&] {
    while (send(near_, block.data(), 65536) > 0) {
    }
    return WSAGetLastError() == kWsaEWouldBlock && Events(kFdWrite, 0) == 0;
  }));
  EXPECT_TRUE(Eventually([&] {
    while (recv(far_, block.data(), 65536) > 0) {
    }
    return Events(kFdWrite, 0) == kFdWrite;
  }));
}

TEST_F(SocketContract, FailuresHaveWinsocksNumbers) {
  char byte;
  const SocketValue other = socket(kAfInet, kSockStream, kIpprotoTcp);
  EXPECT_EQ(bind(other, &address_, sizeof address_), -1);
  EXPECT_EQ(WSAGetLastError(), kWsaEAddrInUse);
  EXPECT_EQ(recv(near_, &byte, 1), -1);
  EXPECT_EQ(WSAGetLastError(), kWsaEWouldBlock);
  EXPECT_EQ(closesocket(other), 0);
}

struct Post {
  SockAddrIn to;
  std::uint32_t flags, boundMs;
};
// Sends a request with headers of both calls. Returns 0 or the error.
std::uint32_t Send(void* given) {
  const Post& post = *static_cast<Post*>(given);
  const HttpSession session = WinHttpOpen(u"contract");
  EXPECT_TRUE(WinHttpSetTimeouts(session, 0, 0, 0, 0));  // no step has a limit
  const auto port = static_cast<std::uint16_t>(post.to.port >> 8 | post.to.port << 8);
  const HttpConnection connection = WinHttpConnect(session, u"127.0.0.1", port);
  const HttpRequest request = WinHttpOpenRequest(connection, u"POST", u"/", post.flags);
  EXPECT_TRUE(WinHttpAddRequestHeaders(request, u"A: 1\r\n"));
  return WinHttpSendRequest(request, u"B: 2\r\n", "body", 4, post.boundMs) ? 0 : LastError();
}

TEST_F(SocketContract, RequestEndsAtItsBoundAndHasTheHeadersOfBothCalls) {
  Post post{address_, 0, kBound}, silence{address_, kWinHttpFlagSecure, 100};
  SockAddrIn peer;
  const Thread sender = CreateThread(Send, &post);
  const SocketValue accepted = accept(listener_, &peer);
  std::string text;
  for (char byte; !text.ends_with("\r\n\r\nbody") && recv(accepted, &byte, 1) == 1;) text += byte;
  EXPECT_LT(text.find("\r\nA: 1\r\n"), text.size()) << text;
  EXPECT_LT(text.find("\r\nB: 2\r\n"), text.size()) << text;
  EXPECT_EQ(send(accepted, "HTTP/1.1 204 No Content\r\n\r\n", 27), 27);  // Wine waits for it
  EXPECT_EQ(ExitCode(sender), 0U);
  EXPECT_EQ(closesocket(accepted), 0);
  EXPECT_EQ(Send(&silence), kErrorWinHttpTimeout);
}

}  // namespace
}  // namespace platform
