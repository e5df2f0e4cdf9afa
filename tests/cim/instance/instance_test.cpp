// Instances: created, extended, copied, compared and deleted, with and without failing allocations.
// The sanitizers report leaks and use after free.
#include "cim/instance/instance.h"

#include <cstring>
#include <functional>
#include <memory>
#include <tuple>

#include "tests/cim/instance/fan_schema.h"
#include "tests/cim/instance/owned_instance.h"

namespace stewardry::cim {
namespace {

using fan_schema::kFan;
using std::u16string;

Result AddNumbered(Instance* instance, unsigned number) {
  u16string name = u"P";
  for (const char digit : std::to_string(number)) name += static_cast<char16_t>(digit);
  const CimValue value = Number(number);
  return Instance_AddProperty(instance, name.c_str(), &value, CIM_UINT32, FLAG_KEY);
}

u16string NamesOf(const Instance* instance) {
  const char16_t *className = nullptr, *space = nullptr, *host = nullptr;
  EXPECT_EQ(Instance_ClassNameOf(instance, &className), RESULT_OK);
  EXPECT_EQ(Instance_NamespaceOf(instance, &space), RESULT_OK);
  EXPECT_EQ(Instance_HostNameOf(instance, &host), RESULT_OK);
  const u16string none = u"-";
  return className + none + (space == nullptr ? none : space) + (host == nullptr ? none : host);
}

TEST(InstanceTest, AnInstanceIsOfItsClassAndItsSuperclasses) {
  const Owned fan(&kFan);
  const ClassDef twin = kFan;
  for (const ClassDef* def : {&kFan, &fan_schema::kDevice, &twin}) {
    bool is = def == &twin;
    EXPECT_EQ(Instance_IsKindOf(fan, def, &is), RESULT_OK);
    EXPECT_EQ(is, def != &twin);
  }
}

TEST(InstanceTest, AWrongArgumentIsRefused) {
  const Owned fan(&kFan), dynamic(u"Fan", {{u"Speed", CIM_UINT32, Number(5)}});
  Instance* out = nullptr;
  Instance tableless = {};
  const CimValue one = Number(1);
  std::uint32_t index = 0;
  const std::pair<Result, Result> kCases[] = {
      {Instance_CreateDynamic(&out, u"2Fan", 0, nullptr), RESULT_INVALID_PARAMETER},
      {Instance_Delete(&tableless), RESULT_INVALID_PARAMETER},
      {Instance_AddProperty(fan, u"More", &one, CIM_UINT32, 0), RESULT_FAILED},
      {Instance_AddProperty(dynamic, u"sPEED", &one, CIM_UINT32, 0), RESULT_ALREADY_EXISTS},
      {Instance_AddProperty(dynamic, u"More", &one, 32, 0), RESULT_INVALID_PARAMETER},
      {Instance_StoreProperty(dynamic, u"Sp", &one, CIM_UINT32, 0), RESULT_NO_SUCH_PROPERTY},
      {Instance_StoreProperty(dynamic, u"Speed", &one, CIM_UINT64, 0), RESULT_TYPE_MISMATCH},
      {Instance_StorePropertyAt(dynamic, 1, &one, CIM_UINT32, 0), RESULT_FAILED},
      {Instance_ReserveArray(fan, u"No", CIM_UINT32, 0, 1, &index), RESULT_NO_SUCH_PROPERTY},
      {Instance_ReserveArray(fan, u"Speeds", CIM_SINT32, 0, 1, &index), RESULT_TYPE_MISMATCH},
      {Instance_AppendToArray(fan, 0, &index), RESULT_TYPE_MISMATCH},
      {Instance_AppendToArray(fan, 2, &index), RESULT_FAILED},  // not reserved
  };
  for (const auto& [result, expected] : kCases) EXPECT_EQ(result, expected);
  EXPECT_EQ(out, nullptr);
  EXPECT_EQ(Read(dynamic, u"Speed", CIM_UINT32).uint32, 5u);
}

TEST(InstanceTest, AGrowingInstanceKeepsItsValuesAndItsHandle) {
  const Owned made(u"Fan");
  const Instance* first = made->body;
  for (std::uint32_t i = 0; i < 150; ++i) {
    ASSERT_EQ(AddNumbered(made, i), RESULT_OK);
    const Instance* body = made->body;
    EXPECT_EQ(body == first, i < 32) << i;
    EXPECT_EQ(body->def->properties[i]->offset, 64 + 40 * i);
    EXPECT_EQ(std::memcmp(made, body, sizeof *body), 0);
  }
  Owned copy;  // grows from the size of its source
  ASSERT_EQ(Instance_Clone(made, copy.Out()), RESULT_OK);
  for (std::uint32_t i = 150; i < 300; ++i) ASSERT_EQ(AddNumbered(copy, i), RESULT_OK);
  for (std::uint32_t i = 0; i < 300; ++i) {
    const Found property = Read(copy, copy->body->def->properties[i]->name);
    EXPECT_EQ(property.value.uint32, i);
    EXPECT_EQ(property.index, i);
    EXPECT_EQ(property.flags, FLAG_KEY | FLAG_NOT_MODIFIED);
  }
  Instance_Retain(made);
  Instance_Drop(made);  // not the last
  EXPECT_EQ(Read(made, u"P149", CIM_UINT32).uint32, 149u);
}

// Static on a schema's class and on a class object, and dynamic.
enum Kind { kSchemaClass, kClassObject, kDynamic };

class KindsTest : public ::testing::TestWithParam<Kind> {};
INSTANTIATE_TEST_SUITE_P(All, KindsTest, ::testing::Values(kSchemaClass, kClassObject, kDynamic));

TEST_P(KindsTest, ACopyOfACopyIsIndependent) {
  ClassObject* object = nullptr;
  ASSERT_EQ(Class_FromDef(&kFan, nullptr, nullptr, &object), RESULT_OK);
  Owned fixed(GetParam() == kClassObject ? object->def : &kFan), copy;
  Owned dynamic(u"Fan", {{u"Id", CIM_UINT32, {}, FLAG_KEY}, {u"Name", CIM_STRING, {}}});
  Owned& source = GetParam() == kDynamic ? dynamic : fixed;
  auto text = std::make_unique<u16string>(u"lent");
  const CimValue seven = Number(7), lent = Text(text->c_str());
  EXPECT_EQ(Instance_SetNamespace(source, u"root"), RESULT_OK);
  EXPECT_EQ(Instance_SetHostName(source, u"host"), RESULT_OK);
  EXPECT_EQ(Instance_StoreProperty(source, u"ID", &seven, CIM_UINT32, 0), RESULT_OK);
  EXPECT_EQ(Instance_StoreProperty(source, u"Name", &lent, CIM_STRING, FLAG_BORROW), RESULT_OK);
  ASSERT_EQ(Instance_Clone(source, copy.Out()), RESULT_OK);
  EXPECT_EQ(Instance_IsWrapped(copy), GetParam() == kDynamic);
  source.Delete();
  text.reset();
  for (HeapSweep sweep; sweep.Next();) {
    OwnBatch batch(0);
    Owned last;
    const Result result = sweep.Run([&] { return Instance_Copy(copy, last.Out(), &batch); });
    ASSERT_EQ(result, sweep.HasRefused() ? RESULT_FAILED : RESULT_OK);
    EXPECT_EQ(object->refs.load(),
              1u + (GetParam() == kClassObject) * (sweep.HasRefused() ? 1 : 2));
    if (sweep.HasRefused()) continue;
    copy.Delete();
    EXPECT_EQ(NamesOf(last), u"Fan-roothost");
    EXPECT_EQ(u16string(Read(last, u"Name", CIM_STRING).string), u"lent");
    for (unsigned i = 0; i < 40; ++i)
      EXPECT_EQ(AddNumbered(last, i), GetParam() == kDynamic ? RESULT_OK : RESULT_FAILED);
    EXPECT_EQ(Read(last, u"Id", CIM_UINT32).uint32, 7u);
  }
  fixed.Delete();
  EXPECT_EQ(object->refs.load(), 1u);
  EXPECT_EQ(Class_Delete(object), RESULT_OK);
}

TEST(InstanceTest, AFailedChangeLeavesTheOldContent) {
  OwnBatch batch(0);
  Owned made;
  ASSERT_EQ(Instance_CreateDynamic(made.Out(), u"Fan", 0, &batch), RESULT_OK);
  ASSERT_EQ(Instance_SetNamespace(made, u"old"), RESULT_OK);
  ASSERT_EQ(Instance_SetHostName(made, u"old"), RESULT_OK);
  made.Add({u"List", CIM_UINT8A, Array("\x9", 1)});
  for (unsigned i = 1; i < 32; ++i) ASSERT_EQ(AddNumbered(made, i), RESULT_OK);
  std::uint32_t index = 0;
  const std::pair<std::function<Result()>, Result> kChanges[] = {
      {[&] { return Instance_SetNamespace(made, u"new"); }, RESULT_FAILED},
      {[&] { return Instance_SetHostName(made, u"new"); }, RESULT_SERVER_LIMITS_EXCEEDED},
      {[&] { return Instance_SetClassName(made, u"New"); }, RESULT_FAILED},
      {[&] { return Instance_ReserveArray(made, u"List", CIM_UINT8, 0, 9, &index); },
       RESULT_SERVER_LIMITS_EXCEEDED},
      {[&] { return AddNumbered(made, 32); }, RESULT_FAILED},
  };
  const auto content = [&made] {
    return std::tuple(NamesOf(made), Read(made, u"List", CIM_UINT8A).array.size,
                      made->body->def->propertyCount);
  };
  for (const auto& [change, failure] : kChanges) {
    for (HeapSweep sweep; sweep.Next();) {
      const auto before = content();
      const Result result = sweep.Run(change);
      EXPECT_EQ(result, sweep.HasRefused() ? failure : RESULT_OK);
      EXPECT_EQ(content() == before, sweep.HasRefused());
    }
  }
  EXPECT_EQ(NamesOf(made), u"New-newnew");
  EXPECT_EQ(made->body->def->nameCode, Name_Code(u"New"));
  EXPECT_EQ(made->hostName, made->body->hostName);
  EXPECT_EQ(Instance_SetNamespace(made, nullptr), RESULT_OK);
  EXPECT_EQ(NamesOf(made), u"New--new");
}

TEST(InstanceTest, EveryNameIsFoundInEachFormOfDefinition) {
  const auto expectFound = [](const ClassDef* def) {
    for (std::uint32_t i = 0; i < def->propertyCount; ++i)
      EXPECT_EQ(ClassDef_FindProperty(def, def->properties[i]->name), i);
    for (const char16_t* none : {u"p", u"P130", u"", static_cast<const char16_t*>(nullptr)})
      EXPECT_EQ(ClassDef_FindProperty(def, none), kNoIndex);
  };
  OwnBatch batch(0);
  Owned made;
  ASSERT_EQ(Instance_CreateDynamic(made.Out(), u"Fan", FLAG_CLASS, &batch), RESULT_OK);
  for (unsigned i = 0; i < 130; ++i)
    for (HeapSweep sweep; sweep.Next(); expectFound(made->body->def)) {
      const Result result = sweep.Run([&] { return AddNumbered(made, i); });
      EXPECT_EQ(result, sweep.HasRefused() ? RESULT_FAILED : RESULT_OK);
    }
  ClassDef schema = *made->body->def;
  schema.owner = kOwnerNone;
  schema.superclass = made->body->def;
  expectFound(&schema);
  ClassObject* object = nullptr;
  ASSERT_EQ(Class_FromDef(&schema, nullptr, nullptr, &object), RESULT_OK);
  expectFound(object->def);
  expectFound(object->def->superclass);
  EXPECT_EQ(object->def->superclass->owner, kOwnerDynamic);
  EXPECT_EQ(Class_Delete(object), RESULT_OK);
}

TEST(InstanceTest, AnArrayIsFilledElementByElement) {
  Owned made(u"Fan", {{u"Texts", CIM_STRINGA, {}}, {u"Refs", CIM_REFERENCEA, {}}});
  made.Add({u"Words", CIM_UINT16A, {}});
  Instance* const key = made;
  std::uint32_t texts = 9, refs = 9, words = 9;
  ASSERT_EQ(Instance_ReserveArray(made, u"TEXTS", CIM_STRING, 0, 2, &texts), RESULT_OK);
  ASSERT_EQ(Instance_ReserveArray(made, u"Refs", CIM_REFERENCE, FLAG_NULL, 1, &refs), RESULT_OK);
  ASSERT_EQ(Instance_ReserveArray(made, u"Words", CIM_UINT16, 0, 2, &words), RESULT_OK);
  EXPECT_TRUE(Read(made, u"Refs").IsNull());
  for (const char16_t* text : {u"one", u"two"}) {
    EXPECT_EQ(Instance_AppendToArray(made, texts, &text), RESULT_OK);
    EXPECT_EQ(Instance_AppendToArray(made, words, text + 1), RESULT_OK);
  }
  EXPECT_EQ(Instance_AppendToArray(made, refs, &key), RESULT_OK);
  const CimValue list = Read(made, u"Texts", CIM_STRINGA);
  EXPECT_EQ(u16string(ElementsOf<const char16_t*>(list).at(1)), u"two");
  EXPECT_EQ(ElementsOf<char16_t>(Read(made, u"Words", CIM_UINT16A)), (std::vector{u'n', u'w'}));
  EXPECT_NE(ElementsOf<Instance*>(Read(made, u"Refs", CIM_REFERENCEA)).at(0), key);
  made.Add({u"Lent", CIM_STRINGA, list, FLAG_BORROW});
  EXPECT_EQ(Instance_AppendToArray(made, 3, &key), RESULT_FAILED);
}

TEST(InstanceTest, ADynamicDefinitionIsCopiedByItsUsers) {
  Owned dynamic(u"Fan", {{u"Speed", CIM_UINT32, Number(1)}}), fixed(dynamic->body->def), copy;
  ClassObject* object = nullptr;
  ASSERT_EQ(Instance_MakeClassObject(dynamic, &object), RESULT_OK);
  dynamic.Delete();
  ASSERT_EQ(Instance_Clone(fixed, copy.Out()), RESULT_OK);
  EXPECT_NE(copy->def, fixed->def);
  fixed.Delete();
  const CimValue two = Number(2);
  EXPECT_EQ(Instance_StoreProperty(copy, u"SPEED", &two, CIM_UINT32, 0), RESULT_OK);
  EXPECT_EQ(Read(copy, u"Speed", CIM_UINT32).uint32, 2u);
  EXPECT_EQ(ClassDef_FindProperty(object->def, u"speed"), 0);
  EXPECT_EQ(Class_Delete(object), RESULT_OK);
}

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
}

}  // namespace
}  // namespace stewardry::cim
