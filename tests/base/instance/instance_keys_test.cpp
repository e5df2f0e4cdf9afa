// Instances compared by their keys.
#include "tests/base/instance/owned_instance.h"

namespace stewardry {
namespace {

Given Key(const char16_t* name, std::uint32_t type, const CimValue& value) {
  return {name, type, value, FLAG_KEY};
}

TEST(InstanceKeysTest, EqualKeysHaveTheSameNamesTypesAndValues) {
  const Given id = Key(u"Id", CIM_UINT32, Number(1)), id2 = Key(u"Id", CIM_UINT32, Number(2));
  const Given name = Key(u"Name", CIM_STRING, Text(u"x")), null = Key(u"Null", CIM_STRING, {});
  const Given plain = {u"Plain", CIM_UINT32, Number(3)}, plainId = {u"Id", CIM_UINT32, Number(1)};
  const Owned one(u"Fan", {id}), same(u"Fan", {id}), second(u"Fan", {id2});
  const Given toOne = Key(u"Ref", CIM_REFERENCE, Nested(one));
  const Given nested = {u"In", CIM_INSTANCE, Nested(one), FLAG_KEY | FLAG_BORROW};
  const struct {
    const char* what;
    std::vector<Given> a, b;
    bool equal;
  } kCases[] = {
      {"no key", {plain}, {plain}, false},
      {"other order and case", {id, name}, {Key(u"NAME", CIM_STRING, Text(u"x")), id}, true},
      {"one key more", {id, name}, {id}, false},
      {"another number", {id}, {id2}, false},
      {"another type", {id}, {Key(u"Id", CIM_SINT32, Number(1))}, false},
      {"another name", {id}, {Key(u"Other", CIM_UINT32, Number(1))}, false},
      {"another key", {id, plain}, {plainId, Key(u"Plain", CIM_UINT32, Number(3))}, false},
      {"a text in another case", {name}, {Key(u"Name", CIM_STRING, Text(u"X"))}, false},
      {"nulls", {null}, {null}, true},
      {"null and empty text", {null}, {Key(u"Null", CIM_STRING, Text(u""))}, false},
      {"references with equal keys", {toOne}, {Key(u"Ref", CIM_REFERENCE, Nested(same))}, true},
      {"references with other keys", {toOne}, {Key(u"Ref", CIM_REFERENCE, Nested(second))}, false},
      {"the same nested instance", {nested}, {nested}, false},
  };
  for (const auto& each : kCases) {
    SCOPED_TRACE(each.what);
    const Owned a(u"Fan", each.a), b(u"Fan", each.b);
    EXPECT_EQ(Instance_KeysEqual(a, b), each.equal);
    EXPECT_EQ(Instance_KeysEqual(b, a), each.equal);
  }
  const Owned incomplete(u"Fan", {id, null});
  EXPECT_FALSE(Instance_KeysComplete(incomplete));
  EXPECT_TRUE(Instance_KeysComplete(one));
  EXPECT_EQ(Instance_KeyCount(one), 1u);
  EXPECT_EQ(Instance_KeyCount(nullptr), 0u);
  EXPECT_FALSE(Instance_KeysEqual(one, nullptr));
  EXPECT_FALSE(Instance_KeysComplete(nullptr));
}

}  // namespace
}  // namespace stewardry
