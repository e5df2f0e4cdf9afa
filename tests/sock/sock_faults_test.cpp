// The socket layer where the platform's calls fail, through the gate, and what takes sockets whose
// bytes arrive with the call that sends them.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>

#include "sock/selector.h"
#include "sock/sock.h"
#include "tests/lab_folder_fixture.h"
#include "tests/own_network.h"

namespace stewardry {
namespace {

namespace gate = platform::gate;

struct UnixPair {
  int ends[2];
  UnixPair() { EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends), 0); }
  UnixPair(const UnixPair&) = delete;
  UnixPair& operator=(const UnixPair&) = delete;
  ~UnixPair() {
    for (const int end : ends) ::close(end);
  }
};

class SockFaults : public LabTest {};

TEST_F(SockFaults, HardErrorHalvesTheWriteDownToFourKilobytes) {
  constexpr std::uint32_t kReset = 10054;
  const struct {
    std::uint64_t size;
    std::uint32_t error;
    std::size_t tries;
    Result result;
  } kRows[] = {{10000, kReset, 3, RESULT_FAILED},  {4097, kReset, 2, RESULT_FAILED},
               {4096, kReset, 1, RESULT_FAILED},   {1, kReset, 1, RESULT_FAILED},
               {131070, kReset, 6, RESULT_FAILED}, {131070, 10035, 1, RESULT_WOULD_BLOCK}};
  for (const auto& row : kRows) {
    gate::Arm();
    gate::FailEvery("send", row.error);
    std::uint64_t count = 7;
    EXPECT_EQ(Sock_Write(5, "", row.size, &count), row.result) << row.size;
    EXPECT_EQ(CountCalls("send"), row.tries) << row.size;
    EXPECT_EQ(count, 0U);
  }
}

TEST_F(SockFaults, InterruptedCallIsRepeated) {
  char byte;
  std::uint64_t count;
  for (int i = 0; i < 5; ++i) gate::FailNext("recv", platform::kWsaEIntr);
  gate::FailNext("recv", platform::kWsaEWouldBlock);
  EXPECT_EQ(Sock_Read(5, &byte, 1, &count), RESULT_WOULD_BLOCK);
  EXPECT_EQ(CountCalls("recv"), 6U);
}

TEST_F(SockFaults, FailureAfterBytesHaveMovedGivesTheirSum) {
  const UnixPair pair;
  char text[] = "abc";
  const SockPiece pieces[] = {{text, 3}, {text, 3}};
  gate::FailNext("send", 10054, 1);
  std::uint64_t count;
  EXPECT_EQ(Sock_WriteV(static_cast<Sock>(pair.ends[0]), pieces, &count), RESULT_OK);
  EXPECT_EQ(count, 3U);
}

TEST_F(SockFaults, ListenerThatFailsAtAnyStepLeavesNoSocketOpen) {
  Addr address;
  Addr_InitAny(&address, 0);
  const Holdings before = Held();
  for (const char* step : {"socket", "setsockopt", "bind", "listen"}) {
    gate::Arm();
    gate::FailNext(step, 10022);
    Sock sock = 0;
    EXPECT_EQ(Sock_CreateListener(&sock, address), RESULT_FAILED) << step;
    EXPECT_EQ(Held(), before) << step;
    EXPECT_EQ(sock, kInvalidSock) << step;
  }
}

// A name with two addresses needs a hosts file, and that a mount namespace of the test's own.
TEST_F(SockFaults, ConnectTriesTheSecondAddressAfterTheFirst) {
  const std::string hosts = lab() + "/hosts";
  std::ofstream(hosts) << "127.0.0.1 twofold\n127.0.0.2 twofold\n";
  if (!EnterOwnNetwork() || ::unshare(CLONE_NEWNS) != 0 ||
      ::mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
      ::mount(hosts.c_str(), "/etc/hosts", nullptr, MS_BIND, nullptr) != 0)
    GTEST_SKIP() << "may not make namespaces";
  Addr any, second;
  Addr_InitAny(&any, 664);
  Sock listener, sock;
  ASSERT_EQ(Sock_CreateListener(&listener, any), RESULT_OK);
  ASSERT_EQ(Addr_Resolve(&second, "twofold", 664, true), RESULT_OK);
  const Holdings before = Held();
  gate::FailNext("connect", 10061);
  gate::FailNext("connect", 10061);
  EXPECT_EQ(Sock_ConnectTo(&sock, "twofold:664"), RESULT_FAILED);
  EXPECT_EQ(Held(), before);
  gate::FailNext("connect", 10061);
  EXPECT_EQ(Sock_ConnectTo(&sock, "twofold:664"), RESULT_OK);
  sockaddr_in peer{};
  socklen_t size = sizeof peer;
  ::getpeername(static_cast<int>(sock), reinterpret_cast<sockaddr*>(&peer), &size);
  EXPECT_EQ(std::memcmp(&peer, second.storage, sizeof peer), 0);
  for (const Sock each : {listener, sock}) (void)Sock_Close(each);
}

TEST_F(SockFaults, SelectorThatCannotBeMadeLeavesNothing) {
  const Holdings before = Held();
  for (const char* step : {"WSACreateEvent", "CreateEventA"}) {
    gate::Arm();
    gate::FailNext(step, 8);
    Selector selector;
    EXPECT_EQ(Selector_Init(&selector), RESULT_FAILED);
    Selector_Destroy(&selector);
    EXPECT_EQ(Held(), before);
  }
}

SelectorEvent gReported;
const Handler* gReportedHandler;
std::uint32_t gMask;

// One run over a handler whose socket has got a byte and a close.
Result RunOnce(Handler* handler) {
  const UnixPair pair;
  EXPECT_EQ(::send(pair.ends[1], "x", 1, 0), 1);
  ::shutdown(pair.ends[1], SHUT_WR);
  handler->sock = static_cast<Sock>(pair.ends[0]);
  handler->eventMask = SELECTOR_READ;
  handler->callback = [](Selector* selector, Handler*, std::uint32_t mask,
                         std::uint64_t) -> std::uint8_t {
    if ((mask & SELECTOR_READ) != 0) Selector_StopRunning(selector);
    if ((mask & SELECTOR_READ) != 0) gMask = mask;
    return 1;
  };
  Selector selector;
  EXPECT_EQ(Selector_Init(&selector), RESULT_OK);
  EXPECT_EQ(Selector_AddHandler(&selector, handler), RESULT_OK);
  const Result result = Selector_Run(&selector, 60'000'000, false);
  EXPECT_EQ(Selector_ContainsHandler(&selector, handler), RESULT_OK);
  Selector_Destroy(&selector);
  return result;
}

TEST_F(SockFaults, FailingStepOfARunEndsItWithItsOwnReport) {
  const struct {
    const char* call;
    SelectorEvent event;
    bool hasHandler;
  } kRows[] = {{"WSAEventSelect", SelectorEvent::kSetSockEvents, true},
               {"WaitForMultipleObjectsEx", SelectorEvent::kWait, false},
               {"WSAEnumNetworkEvents", SelectorEvent::kGetSockEvents, true}};
  gSelectorReport = [](SelectorEvent event, const Selector*, std::uint32_t,
                       const Handler* handler) {
    gReported = event;
    gReportedHandler = handler;
  };
  for (const auto& row : kRows) {
    Handler handler{};
    gate::Arm();
    gate::FailNext(row.call, 10022);
    EXPECT_EQ(RunOnce(&handler), RESULT_FAILED) << row.call;
    EXPECT_EQ(gReported, row.event) << row.call;
    EXPECT_EQ(gReportedHandler, row.hasHandler ? &handler : nullptr) << row.call;
  }
  gSelectorReport = nullptr;
  Handler handler{};
  EXPECT_EQ(RunOnce(&handler), RESULT_OK);
  EXPECT_EQ(gMask, SELECTOR_READ | SELECTOR_READ_CLOSE);
}

TEST_F(SockFaults, WakeFromACallbackRepeatsThePassWithoutAWait) {
  static int passes;
  Handler handler{};
  handler.sock = kInvalidSock;
  handler.timeoutAt = 1;  // due in each pass
  handler.callback = [](Selector* selector, Handler*, std::uint32_t mask,
                        std::uint64_t) -> std::uint8_t {
    if (mask != SELECTOR_TIMEOUT) return 1;
    if (++passes == 1) Selector_Wakeup(selector, true);
    if (passes == 2) Selector_StopRunning(selector);
    return 1;
  };
  Selector selector;
  ASSERT_EQ(Selector_Init(&selector), RESULT_OK);
  ASSERT_EQ(Selector_AddHandler(&selector, &handler), RESULT_OK);
  EXPECT_EQ(Selector_Run(&selector, 60'000'000, false), RESULT_OK);
  EXPECT_EQ(CountCalls("WaitForMultipleObjectsEx"), 1U);
  Selector_Destroy(&selector);
}

}  // namespace
}  // namespace stewardry
