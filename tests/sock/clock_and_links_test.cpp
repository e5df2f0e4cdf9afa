// The clock and the list links.
#include <gtest/gtest.h>

#include <chrono>
#include <string>

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
  constexpr std::uint64_t kCoarse = 20'000;  // the resolution of a platform's clock
  EXPECT_GE(time + kCoarse, before);
  EXPECT_LE(time, now() + kCoarse);
  EXPECT_GE(status + kCoarse, time);
}

struct Node {
  Node* next;
  Node* prev;
  char name;
};

std::string Names(const Node* at, Node* Node::*step) {
  std::string names;
  for (; at != nullptr; at = at->*step) names += at->name;
  return names;
}

TEST(ListLinks, RemovalKeepsBothDirectionsAndTheLinkOfAWalkThatStandsOnTheNode) {
  for (std::size_t removed = 0; removed < 3; ++removed) {
    Node nodes[] = {{nullptr, nullptr, 'a'}, {nullptr, nullptr, 'b'}, {nullptr, nullptr, 'c'}};
    Node *head = nullptr, *tail = nullptr;
    DList_Append(&head, &tail, &nodes[1]);
    DList_Append(&head, &tail, &nodes[2]);
    DList_Prepend(&head, &tail, &nodes[0]);
    EXPECT_EQ(Names(head, &Node::next) + Names(tail, &Node::prev), "abccba");
    const Node* next = nodes[removed].next;
    DList_Remove(&head, &tail, &nodes[removed]);
    std::string rest = "abc";
    rest.erase(removed, 1);
    EXPECT_EQ(Names(head, &Node::next), rest);
    EXPECT_EQ(Names(tail, &Node::prev), std::string(rest.rbegin(), rest.rend()));
    EXPECT_EQ(nodes[removed].next, next);
    for (std::size_t i = 0; i < 3; ++i)
      if (i != removed) DList_Remove(&head, &tail, &nodes[i]);
    EXPECT_EQ(head, nullptr);
    EXPECT_EQ(tail, nullptr);
  }
}

}  // namespace
}  // namespace stewardry
