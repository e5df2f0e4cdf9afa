// What the socket layer does when the platform's calls fail, through the gate.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>

#include "sock/selector.h"
#include "sock/sock.h"
#include "tests/lab_folder_fixture.h"

namespace stewardry {
namespace {

namespace gate = platform::gate;

class SockFaults : public LabTest {
 protected:
};

TEST_F(SockFaults, AHardErrorHalvesTheWriteDownToFourKilobytes) {
  struct Row {
    std::uint64_t size;
    std::size_t tries;
  };
  constexpr Row kRows[] = {{10000, 3}, {4097, 2}, {4096, 1}, {1, 1}, {131070, 6}};
  for (const Row& row : kRows) {
    gate::Arm();
    gate::FailEvery("send", 10054);
    std::uint64_t count = 7;
    EXPECT_EQ(Sock_Write(5, "", row.size, &count), RESULT_FAILED);
    EXPECT_EQ(CountCalls("send"), row.tries) << row.size;
    EXPECT_EQ(count, 0U);
  }
  gate::Arm();
  gate::FailEvery("send", platform::kWsaEWouldBlock);
  std::uint64_t count;
  EXPECT_EQ(Sock_Write(5, "", 131070, &count), RESULT_WOULD_BLOCK);
  EXPECT_EQ(CountCalls("send"), 1U);
}

TEST_F(SockFaults, AnInterruptedCallIsMadeAgain) {
  char byte;
  std::uint64_t count;
  for (int i = 0; i < 5; ++i) gate::FailNext("recv", platform::kWsaEIntr);
  gate::FailNext("recv", platform::kWsaEWouldBlock);
  EXPECT_EQ(Sock_Read(5, &byte, 1, &count), RESULT_WOULD_BLOCK);
  EXPECT_EQ(CountCalls("recv"), 6U);
}

TEST_F(SockFaults, AFailureAfterBytesHaveMovedIsTheirSum) {
  int pair[2];
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
  char text[] = "abc";
  const SockPiece pieces[] = {{text, 3}, {text, 3}};
  gate::FailNext("send", 10054, 1);
  std::uint64_t count;
  EXPECT_EQ(Sock_WriteV(static_cast<Sock>(pair[0]), pieces, &count), RESULT_OK);
  EXPECT_EQ(count, 3U);
  ::close(pair[0]);
  ::close(pair[1]);
}

TEST_F(SockFaults, AListenerThatFailsAtAnyStepLeavesNoSocketOpen) {
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

TEST_F(SockFaults, ASelectorThatCannotBeMadeLeavesNothing) {
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

TEST_F(SockFaults, EachFailingStepOfARunEndsItWithItsOwnReport) {
  struct Row {
    const char* call;
    SelectorEvent event;
  };
  constexpr Row kRows[] = {{"WSAEventSelect", SelectorEvent::kSetSockEvents},
                           {"WaitForMultipleObjectsEx", SelectorEvent::kWait},
                           {"WSAEnumNetworkEvents", SelectorEvent::kGetSockEvents}};
  gSelectorReport = [](SelectorEvent event, const Selector*, std::uint32_t, const Handler*) {
    gReported = event;
  };
  for (const Row& row : kRows) {
    int pair[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
    ASSERT_EQ(::send(pair[1], "x", 1, 0), 1);
    Selector selector;
    ASSERT_EQ(Selector_Init(&selector), RESULT_OK);
    Handler handler{};
    handler.sock = static_cast<Sock>(pair[0]);
    handler.eventMask = SELECTOR_READ;
    handler.callback = [](Selector*, Handler*, std::uint32_t, std::uint64_t) -> std::uint8_t {
      return 1;
    };
    ASSERT_EQ(Selector_AddHandler(&selector, &handler), RESULT_OK);
    gate::Arm();
    gate::FailNext(row.call, 10022);
    EXPECT_EQ(Selector_Run(&selector, 1'000'000, false), RESULT_FAILED) << row.call;
    EXPECT_EQ(gReported, row.event) << row.call;
    Selector_Destroy(&selector);
    ::close(pair[0]);
    ::close(pair[1]);
  }
  gSelectorReport = nullptr;
}

}  // namespace
}  // namespace stewardry
