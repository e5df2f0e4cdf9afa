// The selector on real sockets.
#include "sock/selector.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "sock/clock.h"
#include "tests/sock/socket_pair.h"

namespace stewardry {
namespace {

constexpr std::uint64_t kSoon = 100'000;     // microseconds; a bound for what must not happen
constexpr std::uint64_t kLate = 10'000'000;  // a bound for what must

// A handler that notes its calls as "name:mask " and then does what the test wants.
struct Probe {
  Handler handler{};
  std::string name;
  std::string* calls;
  std::function<bool(std::uint32_t mask)> act;

  Probe(std::string* log, std::string who, Sock sock, std::uint32_t mask) : name(who), calls(log) {
    handler.sock = sock;
    handler.eventMask = mask;
    handler.callback = Call;
    act = [](std::uint32_t) { return true; };
  }
  static std::uint8_t Call(Selector*, Handler* handler, std::uint32_t mask, std::uint64_t) {
    Probe* self = reinterpret_cast<Probe*>(handler);
    *self->calls += self->name + ":" + std::to_string(mask) + " ";
    // What `act` refers to may be gone by the time that the selector lets go of the handler.
    if ((mask & (SELECTOR_REMOVE | SELECTOR_DESTROY)) != 0) return 1;
    return self->act(mask) ? 1 : 0;
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
  // Reads what is there, so that a platform which tells news once tells the next.
  static std::function<bool(std::uint32_t)> Reading(Sock sock, bool keep) {
    return [=](std::uint32_t mask) {
      char buffer[64];
      std::uint64_t count;
      if ((mask & SELECTOR_READ) != 0) (void)Sock_Read(sock, buffer, sizeof buffer, &count);
      return keep;
    };
  }

  Selector sel_;
  std::string calls_;
  std::vector<std::unique_ptr<Probe>> probes_;
};

TEST_F(SelectorTest, AnEmptyListEndsTheRunAtOnceUnlessItIsAllowed) {
  EXPECT_EQ(Selector_Run(&sel_, kLate, false), RESULT_FAILED);
  Selector_AllowEmptyList(&sel_, true);
  EXPECT_EQ(Selector_Run(&sel_, 20'000, false), RESULT_TIME_OUT);
}

TEST_F(SelectorTest, ATimeOutLeavesHandlersForTheNextRun) {
  SocketPair pair;
  Probe& probe = Add("a", pair.a, SELECTOR_READ);
  probe.act = [&](std::uint32_t) {
    Selector_StopRunning(&sel_);
    return Reading(pair.a, true)(SELECTOR_READ);
  };
  EXPECT_EQ(Selector_Run(&sel_, 20'000, false), RESULT_TIME_OUT);
  EXPECT_EQ(calls_, "");
  pair.Send("x");
  EXPECT_EQ(Selector_Run(&sel_, kLate, false), RESULT_OK);
  EXPECT_EQ(calls_, "a:2 ");
}

TEST_F(SelectorTest, AddAndRemoveTellTheHandlerOnceAndRefuseTheSecondTime) {
  SocketPair pair;
  Probe probe(&calls_, "a", pair.a, SELECTOR_READ);
  EXPECT_EQ(Selector_RemoveHandler(&sel_, &probe.handler), RESULT_NOT_FOUND);
  EXPECT_EQ(Selector_AddHandler(&sel_, &probe.handler), RESULT_OK);
  EXPECT_EQ(Selector_AddHandler(&sel_, &probe.handler), RESULT_ALREADY_EXISTS);
  EXPECT_EQ(Selector_ContainsHandler(&sel_, &probe.handler), RESULT_OK);
  EXPECT_EQ(Selector_RemoveHandler(&sel_, &probe.handler), RESULT_OK);
  EXPECT_EQ(Selector_ContainsHandler(&sel_, &probe.handler), RESULT_NOT_FOUND);
  EXPECT_EQ(calls_, "a:1 a:32 ");
}

// The two-phase removal: the refusing call, then SELECTOR_REMOVE in the same pass, and the next
// handler is still served in that pass.
TEST_F(SelectorTest, ARefusingHandlerIsRemovedInThePassAndTheNextIsServed) {
  SocketPair first, second;
  Add("a", first.a, SELECTOR_READ).act = Reading(first.a, false);
  Add("b", second.a, SELECTOR_READ).act = [&](std::uint32_t mask) {
    Selector_StopRunning(&sel_);
    return Reading(second.a, true)(mask);
  };
  first.Send("x");
  second.Send("x");
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_EQ(Selector_Run(&sel_, kLate, false), RESULT_OK);
  EXPECT_EQ(calls_, "a:2 a:32 b:2 ");
}

TEST_F(SelectorTest, TheLastHandlersRemovalEndsTheRun) {
  SocketPair pair;
  Add("a", pair.a, SELECTOR_READ).act = Reading(pair.a, false);
  pair.Send("x");
  EXPECT_EQ(Selector_Run(&sel_, kLate, false), RESULT_FAILED);
  EXPECT_EQ(calls_, "a:2 a:32 ");
}

TEST_F(SelectorTest, ABareCloseIsAReadAndDataWithACloseSaysBoth) {
  SocketPair bare, both;
  Add("a", bare.a, SELECTOR_READ).act = Reading(bare.a, false);
  SocketPair::Close(&bare.b);
  EXPECT_EQ(Selector_Run(&sel_, kLate, false), RESULT_FAILED);
  EXPECT_EQ(calls_, "a:2 a:32 ");
  Add("b", both.a, SELECTOR_READ).act = Reading(both.a, false);
  both.Send("x");
  SocketPair::Close(&both.b);
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_EQ(Selector_Run(&sel_, kLate, false), RESULT_FAILED);
  // A platform may tell the data first and the close once it is drained.
  EXPECT_TRUE(calls_ == "b:258 b:32 " || calls_ == "b:2 b:32 ") << calls_;
}

TEST_F(SelectorTest, ADeadlineAloneCallsItsHandlerUntilItIsMoved) {
  Probe& probe = Add("t", kInvalidSock, 0);
  std::uint64_t now;
  PAL_Time(&now);
  probe.handler.timeoutAt = now + 20'000;
  int left = 2;
  probe.act = [&](std::uint32_t) {
    if (--left == 0) probe.handler.timeoutAt = 0;
    return true;
  };
  EXPECT_EQ(Selector_Run(&sel_, kSoon, false), RESULT_TIME_OUT);
  EXPECT_EQ(calls_, "t:16 t:16 ");
}

TEST_F(SelectorTest, AHandlerAppendedInAPassIsServedFromTheNextTurnOn) {
  SocketPair first, second;
  second.Send("y");
  Probe late(&calls_, "b", second.a, SELECTOR_READ);
  late.act = [&](std::uint32_t mask) {
    if ((mask & SELECTOR_READ) != 0) Selector_StopRunning(&sel_);
    return true;
  };
  Add("a", first.a, SELECTOR_READ).act = [&](std::uint32_t mask) {
    if (Selector_ContainsHandler(&sel_, &late.handler) != RESULT_OK) {
      EXPECT_EQ(Selector_AddHandler(&sel_, &late.handler), RESULT_OK);
    }
    return Reading(first.a, true)(mask);
  };
  first.Send("x");
  EXPECT_EQ(Selector_Run(&sel_, kLate, false), RESULT_OK);
  EXPECT_EQ(calls_, "a:2 b:1 b:2 ");
  Selector_DetachHandler(&sel_, &late.handler);
}

// What the listener does to the connection that it replaces.
TEST_F(SelectorTest, ACallbackMayDetachTheHandlerBehindIt) {
  SocketPair first, second, third;
  Probe* doomed = nullptr;
  Add("a", first.a, SELECTOR_READ).act = [&](std::uint32_t mask) {
    if ((mask & SELECTOR_READ) != 0 && doomed != nullptr) {
      Selector_DetachHandler(&sel_, &doomed->handler);
      SocketPair::Close(&second.a);
      doomed = nullptr;
    }
    return Reading(first.a, true)(mask);
  };
  doomed = &Add("b", second.a, SELECTOR_READ);
  Add("c", third.a, SELECTOR_READ).act = [&](std::uint32_t mask) {
    Selector_StopRunning(&sel_);
    return Reading(third.a, true)(mask);
  };
  first.Send("x");
  second.Send("x");
  third.Send("x");
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_EQ(Selector_Run(&sel_, kLate, false), RESULT_OK);
  EXPECT_EQ(calls_, "a:2 c:2 ");
}

TEST_F(SelectorTest, WriteInterestIsReportedAndAChangedMaskCounts) {
  SocketPair pair;
  Probe& probe = Add("w", pair.a, SELECTOR_READ | SELECTOR_WRITE);
  probe.act = [&](std::uint32_t mask) {
    if ((mask & SELECTOR_WRITE) != 0) probe.handler.eventMask = SELECTOR_READ;
    return true;
  };
  EXPECT_EQ(Selector_Run(&sel_, kSoon, false), RESULT_TIME_OUT);
  EXPECT_EQ(calls_, "w:4 ");
}

TEST_F(SelectorTest, NoReadsModeKeepsReadersQuiet) {
  SocketPair pair;
  Add("a", pair.a, SELECTOR_READ);
  pair.Send("x");
  EXPECT_EQ(Selector_Run(&sel_, 50'000, true), RESULT_TIME_OUT);
  EXPECT_EQ(calls_, "");
}

// Each wake must end one wait: a lost one leaves the run waiting, one that stays set lets it spin.
TEST_F(SelectorTest, AnotherThreadWakesAndStopsTheRun) {
  Probe& probe = Add("t", kInvalidSock, 0);
  std::uint64_t now;
  PAL_Time(&now);
  probe.handler.timeoutAt = now + 600'000'000;
  std::atomic<bool> started{false};
  std::thread other([&] {
    while (!started) std::this_thread::yield();
    for (int i = 0; i < 100; ++i) Selector_Wakeup(&sel_, false);
    Selector_StopRunning(&sel_);
  });
  // The pass has nothing to do but look at the deadline; the first look starts the other thread.
  std::thread starter([&] {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    started = true;
  });
  EXPECT_EQ(Selector_Run(&sel_, 0, false), RESULT_OK);
  other.join();
  starter.join();
}

TEST_F(SelectorTest, DestroyTellsEveryHandlerAndNoReportNamesAFreedOne) {
  SocketPair first, second;
  Add("a", first.a, SELECTOR_READ);
  Add("b", second.a, SELECTOR_READ);
  Selector_Destroy(&sel_);
  EXPECT_EQ(calls_, "a:64 b:64 ");
  EXPECT_EQ(Selector_Run(&sel_, kSoon, false), RESULT_FAILED);
  EXPECT_FALSE(Selector_IsRunThread(&sel_));
}

TEST_F(SelectorTest, RemovingAllTellsEachOnce) {
  SocketPair first, second;
  Add("a", first.a, SELECTOR_READ);
  Add("b", second.a, SELECTOR_READ);
  EXPECT_EQ(Selector_RemoveAllHandlers(&sel_), RESULT_OK);
  EXPECT_EQ(calls_, "a:32 b:32 ");
}

SelectorEvent gReported;
const Handler* gReportedHandler;

// A socket that can't be selected ends the run with its status and leaves the others in the list.
TEST_F(SelectorTest, ASocketThatCannotBeSelectedEndsTheRunAndIsReported) {
  SocketPair pair, other;
  Add("a", other.a, SELECTOR_READ);
  Probe& broken = Add("x", pair.a, SELECTOR_READ);
  SocketPair::Close(&pair.a);
  gSelectorReport = [](SelectorEvent event, const Selector*, std::uint32_t,
                       const Handler* handler) {
    gReported = event;
    gReportedHandler = handler;
  };
  EXPECT_EQ(Selector_Run(&sel_, kSoon, false), RESULT_FAILED);
  gSelectorReport = nullptr;
  EXPECT_EQ(gReported, SelectorEvent::kSetSockEvents);
  EXPECT_EQ(gReportedHandler, &broken.handler);
  EXPECT_EQ(Selector_ContainsHandler(&sel_, &probes_[0]->handler), RESULT_OK);
}

}  // namespace
}  // namespace stewardry
