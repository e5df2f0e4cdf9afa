// Instances compared by their keys.
#include <gtest/gtest.h>

#include <utility>
#include <vector>

#include "tests/base/instance/owned_instance.h"

namespace stewardry {
namespace {

TEST(InstanceKeysTest, KeysAreTakenForEqualOrComplete) {
  struct Key {
    const char16_t* name;
    std::uint32_t type;
    CimValue value;
    std::uint32_t flags = FLAG_KEY;
  };
  Owned one, same, other;
  for (Owned* each : {&one, &same, &other}) {
    MakeDynamic(each);
    const CimValue id = Number(each == &other ? 2 : 1);
    ASSERT_EQ(Add(each->instance, u"Id", CIM_UINT32, id, FLAG_KEY), RESULT_OK);
  }
  const Key number = {u"Id", CIM_UINT32, Number(1)}, name = {u"Name", CIM_STRING, Text(u"x")};
  const Key plain = {u"Plain", CIM_UINT32, Number(3), 0};
  const Key null = {u"Null", CIM_STRING, {}, FLAG_KEY | FLAG_NULL};
  const struct {
    std::vector<Key> a, b;
    bool equal, complete;
  } kCases[] = {
      {{}, {}, false, true},
      {{plain}, {plain}, false, true},
      {{number, plain}, {number}, true, true},
      {{number, name}, {{u"NAME", CIM_STRING, Text(u"x")}, number}, true, true},
      {{number, name}, {number}, false, true},
      {{number}, {number, name}, false, true},
      {{number}, {{u"Id", CIM_UINT32, Number(2)}}, false, true},
      {{number}, {{u"Id", CIM_SINT32, Number(1)}}, false, true},
      {{number}, {{u"Other", CIM_UINT32, Number(1)}}, false, true},
      {{number, plain},
       {{u"Id", CIM_UINT32, Number(1), 0}, {u"Plain", CIM_UINT32, Number(3)}},
       false,
       true},
      {{name}, {{u"Name", CIM_STRING, Text(u"X")}}, false, true},
      {{null}, {null}, true, false},
      {{number, null}, {number, {u"Null", CIM_STRING, Text(u"")}}, false, false},
      {{{u"Ref", CIM_REFERENCE, Pointer(one.instance)}},
       {{u"Ref", CIM_REFERENCE, Pointer(same.instance)}},
       true,
       true},
      {{{u"Ref", CIM_REFERENCE, Pointer(one.instance)}},
       {{u"Ref", CIM_REFERENCE, Pointer(other.instance)}},
       false,
       true},
      {{{u"In", CIM_INSTANCE, Pointer(one.instance), FLAG_KEY | FLAG_BORROW}},
       {{u"In", CIM_INSTANCE, Pointer(one.instance), FLAG_KEY | FLAG_BORROW}},
       false,
       true},
  };
  for (std::size_t i = 0; i < std::size(kCases); ++i) {
    SCOPED_TRACE(i);
    Owned a, b;
    for (auto [owned, keys] : {std::pair{&a, &kCases[i].a}, std::pair{&b, &kCases[i].b}}) {
      MakeDynamic(owned);
      for (const Key& key : *keys)
        ASSERT_EQ(Add(owned->instance, key.name, key.type, key.value, key.flags), RESULT_OK);
    }
    EXPECT_EQ(Instance_KeysEqual(a.instance, b.instance), kCases[i].equal);
    EXPECT_EQ(Instance_KeysEqual(b.instance, a.instance), kCases[i].equal);
    EXPECT_EQ(Instance_KeysComplete(a.instance), kCases[i].complete);
    EXPECT_FALSE(Instance_KeysEqual(a.instance, nullptr));
  }
  EXPECT_EQ(Instance_KeyCount(one.instance), 1u);
  EXPECT_EQ(Instance_KeyCount(nullptr), 0u);
  EXPECT_FALSE(Instance_KeysComplete(nullptr));
}

}  // namespace
}  // namespace stewardry
