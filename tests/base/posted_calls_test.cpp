// Calls that other threads post into a selector's run.
#include "base/posted_calls.h"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <thread>
#include <vector>

#include "base/heap.h"

namespace stewardry {
namespace {

struct Seen {
  std::vector<std::uint64_t> ids;
  std::thread::id thread;
};

void Note(void* data, Message* message) {
  auto* seen = static_cast<Seen*>(data);
  seen->ids.push_back(message->correlationId);
  seen->thread = std::this_thread::get_id();
}

void Count(Message*, void* data) { static_cast<std::atomic<int>*>(data)->fetch_add(1); }

class PostedCalls : public ::testing::Test {
 protected:
  PostedCalls() {
    EXPECT_EQ(Selector_Init(&selector_), RESULT_OK);
    Selector_AllowEmptyList(&selector_, true);
  }
  ~PostedCalls() override { Selector_Destroy(&selector_); }
  Message* Make(std::uint64_t id) {
    Message* message = Message_Create(kNoOpReq, 136, id, 0);
    message->release = Count;
    message->releaseData = &released_;
    return message;
  }
  // Posts, and gives its own reference back.
  void Post(std::uint64_t id, void (*callback)(void*, Message*), void* data) {
    Message* message = Make(id);
    EXPECT_EQ(Selector_CallInRunThread(&selector_, callback, data, message), RESULT_OK);
    Message_Drop(message);
  }
  Selector selector_;
  std::atomic<int> released_{0};
};

TEST_F(PostedCalls, ACallIsLostMixedUpOrRunOnItsOwnThread) {
  Seen seen;
  std::thread poster([&] {
    for (std::uint64_t id = 0; id < 5; ++id) Post(id, Note, &seen);
    Selector_StopRunning(&selector_);  // lost: the run hasn't begun
  });
  poster.join();
  EXPECT_TRUE(seen.ids.empty());
  EXPECT_EQ(Selector_Run(&selector_, 100'000, false), RESULT_TIME_OUT);
  EXPECT_EQ(seen.ids, (std::vector<std::uint64_t>{0, 1, 2, 3, 4}));
  EXPECT_EQ(seen.thread, std::this_thread::get_id());
  EXPECT_EQ(released_, 5);
}

TEST_F(PostedCalls, APostOfTheRunThreadWaits) {
  struct Chain {
    Selector* selector;
    Seen inner;
  } chain{&selector_, {}};
  const auto outer = [](void* data, Message* message) {
    auto* c = static_cast<Chain*>(data);
    const std::uint64_t references = message->refs.load();
    EXPECT_EQ(Selector_CallInRunThread(c->selector, Note, &c->inner, message), RESULT_OK);
    EXPECT_EQ(c->inner.ids.size(), 1u);  // it has run by now
    EXPECT_EQ(message->refs.load(), references);
    Selector_StopRunning(c->selector);
  };
  std::thread poster([&] { Post(7, outer, &chain); });
  poster.join();
  EXPECT_EQ(Selector_Run(&selector_, 0, false), RESULT_OK);
  EXPECT_EQ(chain.inner.ids, (std::vector<std::uint64_t>{7}));
}

TEST_F(PostedCalls, EightThreadsLoseACallWhileTheSelectorIsStoppedAndWoken) {
  constexpr int kThreads = 8, kCalls = 500;
  std::atomic<int> run{0};
  const auto add = [](void* data, Message*) { static_cast<std::atomic<int>*>(data)->fetch_add(1); };
  std::atomic<bool> isOver{false};
  std::thread runner([&] {
    while (!isOver || run < kThreads * kCalls) (void)Selector_Run(&selector_, 20'000, false);
  });
  std::vector<std::thread> posters;
  for (int t = 0; t < kThreads; ++t)
    posters.emplace_back([&, t] {
      for (int i = 0; i < kCalls; ++i) {
        Post(static_cast<std::uint64_t>(i), add, &run);
        if (i % 50 == t) Selector_StopRunning(&selector_);
        if (i % 20 == t) Selector_Wakeup(&selector_, false);
      }
    });
  for (std::thread& each : posters) each.join();
  isOver = true;
  runner.join();
  EXPECT_EQ(run, kThreads * kCalls);
  EXPECT_EQ(released_, kThreads * kCalls);
}

TEST_F(PostedCalls, ADestroyedSelectorKeepsItsMessagesOrRunsTheirCalls) {
  Seen seen;
  std::thread poster([&] {
    for (std::uint64_t id = 0; id < 3; ++id) Post(id, Note, &seen);
  });
  poster.join();
  Selector_Destroy(&selector_);
  EXPECT_TRUE(seen.ids.empty());
  EXPECT_EQ(released_, 3);
}

TEST_F(PostedCalls, ACallWithoutRoomIsListed) {
  Message* message = Make(1);
  while (message->batch->nextFree < message->batch->pageEnd) (void)Batch_Alloc(message->batch, 8);
  std::thread poster([&] {
    heap_gate::Arm(1);
    EXPECT_EQ(Selector_CallInRunThread(&selector_, Note, nullptr, message), RESULT_FAILED);
    heap_gate::Disarm();
  });
  poster.join();
  EXPECT_EQ(message->refs, 1u);
  Message_Drop(message);
}

}  // namespace
}  // namespace stewardry
