// The clock and the list links.
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <vector>

#include "sock/clock.h"
#include "sock/list_links.h"

namespace stewardry {
namespace {

TEST(Clock, CountsMicrosecondsSince1970) {
  using std::chrono::duration_cast, std::chrono::microseconds, std::chrono::system_clock;
  const auto now = [] {
    return static_cast<std::uint64_t>(
        duration_cast<microseconds>(system_clock::now().time_since_epoch()).count());
  };
  const std::uint64_t before = now();
  std::uint64_t time = 0, status = 0;
  ASSERT_TRUE(PAL_Time(&time));
  EXPECT_EQ(PAL_TimeStatus(&status), RESULT_OK);
  const std::uint64_t after = now();
  constexpr std::uint64_t kCoarse = 20'000;  // a platform's clock may tick that coarsely
  EXPECT_GE(time + kCoarse, before);
  EXPECT_LE(time, after + kCoarse);
  EXPECT_GE(status + kCoarse, time);
}

struct Node {
  Node* next;
  Node* prev;
  char name;
};

struct List {
  Node* head = nullptr;
  Node* tail = nullptr;
  std::string Forward() const {
    std::string names;
    for (Node* at = head; at != nullptr; at = at->next) names += at->name;
    return names;
  }
  std::string Backward() const {
    std::string names;
    for (Node* at = tail; at != nullptr; at = at->prev) names += at->name;
    return names;
  }
};

TEST(ListLinks, StayWholeForwardAndBackwardThroughEveryRemoval) {
  for (int removed = 0; removed < 3; ++removed) {
    Node a{nullptr, nullptr, 'a'}, b{nullptr, nullptr, 'b'}, c{nullptr, nullptr, 'c'};
    Node* nodes[] = {&a, &b, &c};
    List list;
    DList_Append(&list.head, &list.tail, &b);
    DList_Append(&list.head, &list.tail, &c);
    DList_Prepend(&list.head, &list.tail, &a);
    EXPECT_EQ(list.Forward() + list.Backward(), "abccba");
    Node* next = nodes[removed]->next;
    DList_Remove(&list.head, &list.tail, nodes[removed]);
    std::string rest = "abc";
    rest.erase(static_cast<std::size_t>(removed), 1);
    EXPECT_EQ(list.Forward(), rest);
    EXPECT_EQ(list.Backward(), std::string(rest.rbegin(), rest.rend()));
    EXPECT_EQ(nodes[removed]->next, next);  // a walk that stands on it can still step on
  }
}

TEST(ListLinks, TheOnlyNodesRemovalEmptiesTheList) {
  Node a{nullptr, nullptr, 'a'};
  List list;
  DList_Prepend(&list.head, &list.tail, &a);
  DList_Remove(&list.head, &list.tail, &a);
  EXPECT_EQ(list.head, nullptr);
  EXPECT_EQ(list.tail, nullptr);
}

}  // namespace
}  // namespace stewardry
