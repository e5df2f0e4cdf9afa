// Calls that other threads post to a selector's run thread.
#include "cim/message/message.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

namespace stewardry::cim {
namespace {

constexpr std::uint64_t kMinute = 60'000'000;

// The calls that ran, in order. They check that they are on the selector's run thread.
struct Seen {
  Selector* selector;
  std::vector<std::uint64_t> ids;
};

void Record(void* data, Message* message) {
  auto* seen = static_cast<Seen*>(data);
  EXPECT_TRUE(Selector_IsRunThread(seen->selector));
  seen->ids.push_back(message->correlationId);
}
void RecordAndStop(void* data, Message* message) {
  Record(data, message);
  Selector_StopRunning(static_cast<Seen*>(data)->selector);
}

class PostedCalls : public ::testing::Test {
 protected:
  PostedCalls() {
    EXPECT_EQ(Selector_Init(&selector_), RESULT_OK);
    Selector_AllowEmptyList(&selector_, true);
  }
  ~PostedCalls() override { Selector_Destroy(&selector_); }
  // Posts a call and releases its own reference.
  void Post(std::uint64_t id, void (*callback)(void*, Message*), void* data) {
    Message* message = Message_Create(kNoOpReq, 136, id, 0);
    message->release = [](Message*, void* count) { ++*static_cast<std::atomic<int>*>(count); };
    message->releaseData = &released_;
    EXPECT_EQ(Selector_CallInRunThread(&selector_, callback, data, message), RESULT_OK);
    Message_Drop(message);
  }
  Selector selector_;
  std::atomic<int> released_{0};
  Seen seen_{&selector_, {}};
};

TEST_F(PostedCalls, CallsOfAnotherThreadRunInTheirOrderAndThoseOfTheRunThreadAtOnce) {
  const auto nested = [](void* data, Message* message) {
    auto* seen = static_cast<Seen*>(data);
    EXPECT_EQ(Selector_CallInRunThread(seen->selector, RecordAndStop, seen, message), RESULT_OK);
    EXPECT_EQ(seen->ids.size(), 5u);
  };
  std::thread([&] {
    for (std::uint64_t id = 0; id < 4; ++id) Post(id, Record, &seen_);
    Selector_StopRunning(&selector_);  // has no effect before the run
    Post(4, nested, &seen_);
  }).join();
  EXPECT_TRUE(seen_.ids.empty());
  EXPECT_EQ(Selector_Run(&selector_, kMinute, false), RESULT_OK);
  EXPECT_EQ(seen_.ids, (std::vector<std::uint64_t>{0, 1, 2, 3, 4}));
  EXPECT_EQ(released_, 5);
}

TEST_F(PostedCalls, EveryCallOfEightThreadsRunsWhileTheSelectorIsStoppedAndWoken) {
  constexpr int kThreads = 8, kCalls = 500;
  std::atomic<int> run{0};
  const auto add = [](void* data, Message*) { ++*static_cast<std::atomic<int>*>(data); };
  std::thread runner([&] {  // until the last call
    while (seen_.ids.empty()) ASSERT_EQ(Selector_Run(&selector_, kMinute, false), RESULT_OK);
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
  Post(kCalls, RecordAndStop, &seen_);
  runner.join();
  EXPECT_EQ(run, kThreads * kCalls);
  EXPECT_EQ(released_, kThreads * kCalls + 1);
}

TEST_F(PostedCalls, DestroyedSelectorReleasesItsCallsUnrun) {
  std::thread([this] {
    for (std::uint64_t id = 0; id < 3; ++id) Post(id, Record, &seen_);
  }).join();
  Selector_Destroy(&selector_);
  EXPECT_TRUE(seen_.ids.empty());
  EXPECT_EQ(released_, 3);
  Message* message = Message_Create(kNoOpReq, 136, 3, 0);
  EXPECT_EQ(Selector_CallInRunThread(&selector_, Record, &seen_, message), RESULT_FAILED);
  Message_Drop(message);
}

}  // namespace
}  // namespace stewardry::cim
