// A case that needs several handlers in one pass sets deadlines, since bytes for several sockets
// may arrive one after another.
#include "sock/selector.h"

#include <gtest/gtest.h>

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "sock/clock.h"
#include "tests/sock/socket_pair.h"

namespace stewardry {
namespace {

constexpr std::uint64_t kHang = 60'000'000;  // microseconds; ends a run that a fault keeps going

std::uint64_t Now() {
  std::uint64_t now;
  PAL_Time(&now);
  return now;
}

// A handler that notes its calls as "name:mask " and then calls `act`.
struct Probe {
  Handler handler{};
  std::string name;
  std::string* calls;
  std::function<bool()> act = [] { return true; };

  Probe(std::string* log, std::string id, Sock sock, std::uint32_t mask)
      : name(std::move(id)), calls(log) {
    handler.sock = sock;
    handler.eventMask = mask;
    handler.callback = Call;
  }
  static std::uint8_t Call(Selector*, Handler* handler, std::uint32_t mask, std::uint64_t now) {
    Probe* self = reinterpret_cast<Probe*>(handler);
    *self->calls += self->name + ":" + std::to_string(mask) + " ";
    EXPECT_TRUE((mask & SELECTOR_TIMEOUT) == 0 || now >= handler->timeoutAt);
    // The objects that `act` uses may be destroyed by the calls that end the handler.
    constexpr std::uint32_t kNoPass = SELECTOR_ADD | SELECTOR_REMOVE | SELECTOR_DESTROY;
    return (mask & kNoPass) != 0 || self->act() ? 1 : 0;
  }
};

class SelectorTest : public SocketTest {
 protected:
  void SetUp() override { ASSERT_EQ(Selector_Init(&sel_), RESULT_OK); }
  void TearDown() override { Selector_Destroy(&sel_); }

  Probe& Add(const std::string& name, Sock sock, std::uint32_t mask) {
    probes_.push_back(std::make_unique<Probe>(&calls_, name, sock, mask));
    EXPECT_EQ(Selector_AddHandler(&sel_, &probes_.back()->handler), RESULT_OK);
    calls_.clear();
    return *probes_.back();
  }
  Probe& AddDue(const std::string& name, Sock sock = kInvalidSock) {
    Probe& probe = Add(name, sock, SELECTOR_READ);
    probe.handler.timeoutAt = Now();
    return probe;
  }
  bool Stop() {
    EXPECT_TRUE(Selector_IsRunThread(&sel_));
    Selector_StopRunning(&sel_);
    return true;
  }

  Selector sel_;
  std::string calls_;
  std::vector<std::unique_ptr<Probe>> probes_;
};

TEST_F(SelectorTest, EmptyListEndsTheRunUnlessItIsAllowed) {
  EXPECT_EQ(Selector_Run(&sel_, kHang, false), RESULT_FAILED);
  Selector_AllowEmptyList(&sel_, true);
  EXPECT_EQ(Selector_Run(&sel_, 20'000, false), RESULT_TIME_OUT);
}

TEST_F(SelectorTest, AddRemoveAndDestroyCallTheHandlerOnceEach) {
  Probe probe(&calls_, "a", kInvalidSock, 0), other(&calls_, "b", kInvalidSock, 0);
  EXPECT_EQ(Selector_RemoveHandler(&sel_, &probe.handler), RESULT_NOT_FOUND);
  EXPECT_EQ(Selector_AddHandler(&sel_, &probe.handler), RESULT_OK);
  EXPECT_EQ(Selector_AddHandler(&sel_, &probe.handler), RESULT_ALREADY_EXISTS);
  EXPECT_EQ(Selector_RemoveAllHandlers(&sel_), RESULT_OK);
  EXPECT_EQ(Selector_ContainsHandler(&sel_, &probe.handler), RESULT_NOT_FOUND);
  EXPECT_EQ(Selector_AddHandler(&sel_, &other.handler), RESULT_OK);
  Selector_Destroy(&sel_);
  EXPECT_EQ(calls_, "a:1 a:32 b:1 b:64 ");
  EXPECT_EQ(Selector_Run(&sel_, kHang, false), RESULT_FAILED);
  EXPECT_FALSE(Selector_IsRunThread(&sel_));
}

TEST_F(SelectorTest, DeadlineCallsItsHandlerInEachTurn) {
  Probe& probe = AddDue("t");
  probe.handler.timeoutAt += 20'000;
  int turns = 2;
  probe.act = [&] { return --turns > 0 || Stop(); };
  EXPECT_EQ(Selector_Run(&sel_, kHang, false), RESULT_OK);
  EXPECT_EQ(calls_, "t:16 t:16 ");
}

// As a listener does to the connection that it replaces. A handler whose callback returns zero gets
// SELECTOR_REMOVE in the same pass, which also serves the next handler.
TEST_F(SelectorTest, RemovedHandlersCallbackMayDetachAndCloseTheNextHandler) {
  SocketPair pair;
  Probe* detached = nullptr;
  AddDue("a").act = [&] {
    Selector_DetachHandler(&sel_, &detached->handler);
    SocketPair::Close(&pair.a);
    return false;
  };
  detached = &AddDue("b", pair.a);
  int turns = 2;  // the second one would select the closed socket
  AddDue("c").act = [&] { return --turns > 0 || Stop(); };
  EXPECT_EQ(Selector_Run(&sel_, kHang, false), RESULT_OK);
  EXPECT_EQ(calls_, "a:16 a:32 c:16 c:16 ");
}

TEST_F(SelectorTest, ConnectAndWriteInterestEndWithTheMaskAndNoReadsModeReportsWritesOnly) {
  SocketPair pair, unread, broken;
  std::uint64_t count;
  EXPECT_EQ(Sock_Write(broken.a, "x", 1, &count), RESULT_OK);
  SocketPair::Close(&broken.b);  // with the byte unread, which resets the connection
  Add("e", broken.a, SELECTOR_EXCEPTION);
  Probe& probe = Add("w", pair.b, SELECTOR_READ | SELECTOR_WRITE);
  probe.act = [&] {
    if (probe.handler.eventMask == SELECTOR_READ) return Stop();
    probe.handler.eventMask = SELECTOR_READ;
    return Sock_Write(pair.a, "x", 1, &count) == RESULT_OK;
  };
  EXPECT_EQ(Selector_Run(&sel_, kHang, false), RESULT_OK);
  EXPECT_EQ(calls_, "w:6 w:2 ");
  unread.Send("y");
  // Another socket: Winsock reports write readiness once, until a send blocks.
  Add("n", unread.a, SELECTOR_READ | SELECTOR_WRITE).act = [&] {
    Selector_StopRunningNoReads(&sel_);
    return true;
  };
  EXPECT_EQ(Selector_Run(&sel_, kHang, true), RESULT_OK);
  EXPECT_EQ(calls_, "n:4 ");
}

// At the close, the reader requests another pass and sets a deadline that is due in it.
TEST_F(SelectorTest, CloseFollowsTheDataAndARepeatedPassTheOnlySocket) {
  SocketPair pair;
  Probe& due = Add("t", kInvalidSock, 0);
  Add("s", pair.a, SELECTOR_READ).act = [&] {
    char byte;
    std::uint64_t count;
    EXPECT_EQ(Sock_Read(pair.a, &byte, 1, &count), RESULT_OK);
    if (count > 0) return true;
    due.handler.timeoutAt = Now();
    Selector_Wakeup(&sel_, true);
    return !Stop();
  };
  pair.Send("ab");
  SocketPair::Close(&pair.b);
  EXPECT_EQ(Selector_Run(&sel_, kHang, false), RESULT_OK);
  EXPECT_EQ(calls_, "s:2 s:2 s:2 s:32 t:16 ");
}

// A lost wake-up would leave the run waiting. The other thread starts within the run, since a stop
// before it has no effect.
TEST_F(SelectorTest, AnotherThreadWakesAndStopsTheRun) {
  std::atomic<bool> running{false};
  Probe& probe = AddDue("t");
  probe.act = [&] {
    probe.handler.timeoutAt = 0;
    return running = true;
  };
  std::thread other([&] {
    while (!running) std::this_thread::yield();
    for (int i = 0; i < 100; ++i) Selector_Wakeup(&sel_, false);
    Selector_StopRunning(&sel_);
  });
  EXPECT_EQ(Selector_Run(&sel_, 0, false), RESULT_OK);
  other.join();
  EXPECT_EQ(calls_, "t:16 ");
}

}  // namespace
}  // namespace stewardry
