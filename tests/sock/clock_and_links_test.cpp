#include <gtest/gtest.h>

#include <ctime>
#include <string>

#include "sock/clock.h"
#include "sock/list_links.h"

namespace stewardry {
namespace {

TEST(Clock, CountsMicrosecondsSince1970) {
  // A second more either way: time() may still be in the second before.
  constexpr std::uint64_t kSecond = 1'000'000;
  const auto before = static_cast<std::uint64_t>(std::time(nullptr)) * kSecond;
  std::uint64_t time = 0, status = 0;
  ASSERT_TRUE(PAL_Time(&time));
  EXPECT_EQ(PAL_TimeStatus(&status), RESULT_OK);
  EXPECT_GE(time + kSecond, before);
  EXPECT_LE(time, (static_cast<std::uint64_t>(std::time(nullptr)) + 2) * kSecond);
  EXPECT_GE(status, time);
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

TEST(ListLinks, RemovalKeepsBothDirectionsAndTheRemovedNodesOwnLinks) {
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
  }
}

}  // namespace
}  // namespace stewardry
