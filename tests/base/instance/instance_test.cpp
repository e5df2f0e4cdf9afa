// Instances: laid out, made, grown, copied, ended, compared by their keys, on a full and an empty
// heap. The sanitizers see what is left behind or read after its end.
#include "base/instance/instance.h"

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "base/heap.h"
#include "base/instance/definition_copy.h"
#include "tests/base/instance/fan_schema.h"
#include "tests/base/instance/owned_instance.h"

namespace stewardry {
namespace {

using std::u16string;

u16string Numbered(const char16_t* stem, unsigned number) {
  u16string name = stem;
  for (const char digit : std::to_string(number)) name += static_cast<char16_t>(digit);
  return name;
}

struct Property {
  Result result;
  CimValue value = {};
  std::uint32_t type = 0, flags = 0, index = 0;
};
Property Read(const Instance* instance, const u16string& name) {
  Property property = {};
  property.result = Instance_ReadProperty(instance, name.c_str(), &property.value, &property.type,
                                          &property.flags, &property.index);
  return property;
}

u16string TextOf(const Instance* instance, Result (*read)(const Instance*, const char16_t**)) {
  const char16_t* text = nullptr;
  EXPECT_EQ(read(instance, &text), RESULT_OK);
  return text == nullptr ? u"(none)" : text;
}

std::uint32_t MagicOf(const Instance* instance) {
  return (reinterpret_cast<const InstanceHeader*>(instance) - 1)->magic;
}
std::uint64_t RefsOf(const Instance* instance) {
  return (reinterpret_cast<const InstanceHeader*>(instance) - 1)->refs.load();
}

TEST(InstanceTest, ANewInstanceHasValuesOrAnotherShape) {
  Owned fixed, dynamic;
  ASSERT_EQ(Instance_Create(&fixed.instance, &fan_schema::kFan, nullptr), RESULT_OK);
  MakeDynamic(&dynamic);
  for (const Instance* each : {fixed.instance, dynamic.instance}) {
    EXPECT_EQ(MagicOf(each), 0xB26AEA60u);
    EXPECT_EQ(MagicOf(each->body), 0xB26AEA60u);
    EXPECT_EQ(RefsOf(each), 1u);
    EXPECT_EQ(each->body->ownsBatch, 1);
    EXPECT_EQ(each->ops, &kInstanceOps);
    EXPECT_EQ(TextOf(each, Instance_ClassNameOf), u"Fan");
    EXPECT_EQ(TextOf(each, Instance_NamespaceOf), u"(none)");
    EXPECT_EQ(Instance_IsWrapped(each), each == dynamic.instance);
  }
  EXPECT_EQ(fixed.instance->def, &fan_schema::kFan);
  for (const char16_t* name : {u"Id", u"Name", u"Speeds", u"On"})
    EXPECT_EQ(Read(fixed.instance, name).flags & FLAG_NULL, FLAG_NULL);
  EXPECT_EQ(dynamic.instance->body->def->size, 64u);
  EXPECT_EQ(dynamic.instance->body->def->owner, ~std::uintptr_t{0});
  EXPECT_EQ(Instance_Body(static_cast<Instance*>(nullptr)), nullptr);
}

TEST(InstanceTest, AClassIsOfAnotherKind) {
  const struct {
    std::uint32_t given, kind;
  } kCases[] = {{0, FLAG_CLASS},
                {FLAG_CLASS | FLAG_METHOD, FLAG_METHOD},
                {FLAG_METHOD | FLAG_KIND_20, FLAG_KIND_20},
                {FLAG_KIND_10 | FLAG_KIND_20 | FLAG_CLASS, FLAG_KIND_10}};
  for (const auto& each : kCases) {
    Owned made;
    ASSERT_EQ(Instance_CreateDynamic(&made.instance, u"Fan", each.given, nullptr), RESULT_OK);
    EXPECT_EQ(made.instance->def->flags, each.kind);
  }
  Owned fan;
  ASSERT_EQ(Instance_Create(&fan.instance, &fan_schema::kFan, nullptr), RESULT_OK);
  bool is = false;
  EXPECT_EQ(Instance_IsKindOf(fan.instance, &fan_schema::kDevice, &is), RESULT_OK);
  EXPECT_TRUE(is);
  const ClassDef twin = fan_schema::kFan;
  EXPECT_EQ(Instance_IsKindOf(fan.instance, &twin, &is), RESULT_OK);
  EXPECT_FALSE(is);
  EXPECT_EQ(Instance_IsKindOf(fan.instance, &fan_schema::kFan, nullptr), RESULT_OK);
}

TEST(InstanceTest, AnEmptyOrWrongArgumentIsFollowed) {
  Owned fan, dynamic;
  ASSERT_EQ(Instance_Create(&fan.instance, &fan_schema::kFan, nullptr), RESULT_OK);
  MakeDynamic(&dynamic);
  ASSERT_EQ(Add(dynamic.instance, u"Speed", CIM_UINT32, Number(5)), RESULT_OK);
  ClassDef headless = fan_schema::kFan;
  headless.size = 63;
  Instance *none = nullptr, *out = nullptr;
  Instance tableless = {};
  ClassObject view;
  const CimValue one = Number(1);
  std::uint32_t index = 0;
  alignas(8) std::uint8_t memory[128];
  const struct {
    Result given, expected;
  } kCases[] = {
      {Instance_Create(nullptr, &fan_schema::kFan, nullptr), RESULT_INVALID_PARAMETER},
      {Instance_Create(&out, nullptr, nullptr), RESULT_INVALID_PARAMETER},
      {Instance_Create(&out, &headless, nullptr), RESULT_INVALID_PARAMETER},
      {Instance_InitAt(nullptr, &fan_schema::kFan, nullptr), RESULT_INVALID_PARAMETER},
      {Instance_InitAt(memory, nullptr, nullptr), RESULT_INVALID_PARAMETER},
      {Instance_CreateDynamic(nullptr, u"Fan", 0, nullptr), RESULT_INVALID_PARAMETER},
      {Instance_CreateDynamic(&out, nullptr, 0, nullptr), RESULT_INVALID_PARAMETER},
      {Instance_CreateDynamic(&out, u"2Fan", 0, nullptr), RESULT_INVALID_PARAMETER},
      {Instance_Copy(nullptr, &out, nullptr), RESULT_FAILED},
      {Instance_Copy(fan.instance, nullptr, nullptr), RESULT_FAILED},
      {kInstanceOps.Clone(nullptr, &out), RESULT_FAILED},
      {Instance_Clone(nullptr, &out), RESULT_INVALID_PARAMETER},
      {Instance_Delete(&tableless), RESULT_INVALID_PARAMETER},
      {kInstanceOps.Delete(nullptr), RESULT_INVALID_PARAMETER},
      {kInstanceOps.Dismantle(&tableless), RESULT_FAILED},
      {kInstanceOps.PropertyCountOf(nullptr, nullptr), RESULT_INVALID_PARAMETER},
      {Instance_PropertyCountOf(fan.instance, nullptr), RESULT_OK},
      {Instance_ClassNameOf(fan.instance, nullptr), RESULT_OK},
      {Instance_HostNameOf(fan.instance, nullptr), RESULT_OK},
      {Instance_IsKindOf(fan.instance, nullptr, nullptr), RESULT_INVALID_PARAMETER},
      {Add(fan.instance, u"More", CIM_UINT32, one), RESULT_FAILED},
      {Add(dynamic.instance, u"sPEED", CIM_UINT32, one), RESULT_ALREADY_EXISTS},
      {Add(dynamic.instance, u"bad name", CIM_UINT32, one), RESULT_INVALID_PARAMETER},
      {Add(dynamic.instance, u"More", 32, one), RESULT_INVALID_PARAMETER},
      {Instance_AddProperty(dynamic.instance, nullptr, &one, 5, 0), RESULT_INVALID_PARAMETER},
      {Instance_StoreProperty(dynamic.instance, nullptr, &one, 5, 0), RESULT_INVALID_PARAMETER},
      {Instance_StoreProperty(dynamic.instance, u"Sp", &one, 5, 0), RESULT_NO_SUCH_PROPERTY},
      {Instance_StoreProperty(dynamic.instance, u"Speed", &one, 7, 0), RESULT_TYPE_MISMATCH},
      {Instance_StorePropertyAt(dynamic.instance, 1, &one, 5, 0), RESULT_FAILED},
      {Instance_PropertyAt(dynamic.instance, 1, nullptr, nullptr, nullptr, nullptr),
       RESULT_INVALID_PARAMETER},
      {Read(dynamic.instance, u"").result, RESULT_NO_SUCH_PROPERTY},
      {Instance_ReadProperty(dynamic.instance, nullptr, nullptr, nullptr, nullptr, nullptr),
       RESULT_INVALID_PARAMETER},
      {Instance_ClearPropertyAt(dynamic.instance, 1), RESULT_FAILED},
      {Instance_ClearProperty(dynamic.instance, u"Sp"), RESULT_NO_SUCH_PROPERTY},
      {Instance_SetClassName(dynamic.instance, nullptr), RESULT_INVALID_PARAMETER},
      {Instance_SetClassName(fan.instance, u"Other"), RESULT_FAILED},
      {Instance_GetClassView(nullptr, &view), RESULT_INVALID_PARAMETER},
      {Instance_GetClassView(fan.instance, nullptr), RESULT_INVALID_PARAMETER},
      {Instance_ReserveArray(fan.instance, u"No", 5, 0, 1, &index), RESULT_NO_SUCH_PROPERTY},
      {Instance_ReserveArray(fan.instance, nullptr, 5, 0, 1, &index), RESULT_NO_SUCH_PROPERTY},
      {Instance_ReserveArray(fan.instance, u"Speeds", 6, 0, 1, &index), RESULT_TYPE_MISMATCH},
      {Instance_AppendToArray(fan.instance, 4, &index), RESULT_INVALID_PARAMETER},
      {Instance_AppendToArray(fan.instance, 0, &index), RESULT_TYPE_MISMATCH},
      {Instance_AppendToArray(fan.instance, 2, &index), RESULT_FAILED},  // nothing reserved
  };
  for (std::size_t i = 0; i < std::size(kCases); ++i)
    EXPECT_EQ(kCases[i].given, kCases[i].expected) << i;
  EXPECT_EQ(out, none);
  EXPECT_EQ(Read(dynamic.instance, u"Speed").value.uint32, 5u);
  EXPECT_EQ(dynamic.instance->body->def->propertyCount, 1u);
  Instance_Retain(nullptr);
  Instance_Drop(nullptr);
}

TEST(InstanceTest, AGrownInstanceLosesValuesOrItsHandle) {
  Owned made;
  MakeDynamic(&made);
  ASSERT_EQ(Instance_SetHostName(made.instance, u"host"), RESULT_OK);
  const Instance* first = made.instance->body;
  EXPECT_EQ(made.instance->hostName, first->hostName);
  for (std::uint32_t i = 0; i < 150; ++i) {
    ASSERT_EQ(Add(made.instance, Numbered(u"P", i), CIM_UINT32, Number(i), FLAG_KEY), RESULT_OK);
    const Instance* body = made.instance->body;
    EXPECT_EQ(body->body, body);
    EXPECT_EQ(body == first, i < 32) << i;
    EXPECT_EQ(body->def->size, 64 + 40 * (i + 1));
    EXPECT_EQ(body->def->properties[i]->offset, 64 + 40 * i);
    EXPECT_EQ(std::memcmp(made.instance, body, sizeof *body), 0);
  }
  for (std::uint32_t i = 0; i < 150; ++i) {
    const Property property = Read(made.instance, Numbered(u"p", i));
    EXPECT_EQ(property.value.uint32, i);
    EXPECT_EQ(property.index, i);
    EXPECT_EQ(property.flags, FLAG_KEY | FLAG_NOT_MODIFIED);
  }
  Owned copy;  // grows on from where the source has come to
  ASSERT_EQ(Instance_Clone(made.instance, &copy.instance), RESULT_OK);
  for (std::uint32_t i = 150; i < 300; ++i)
    ASSERT_EQ(Add(copy.instance, Numbered(u"P", i), CIM_UINT32, Number(i)), RESULT_OK);
  for (std::uint32_t i = 0; i < 300; ++i)
    EXPECT_EQ(Read(copy.instance, Numbered(u"P", i)).value.uint32, i);
  EXPECT_EQ(TextOf(made.instance, Instance_HostNameOf), u"host");
  EXPECT_EQ(RefsOf(made.instance) + MagicOf(made.instance->body), 1u + 0xB26AEA60u);
}

TEST(InstanceTest, APropertysFlagsOrNullGoWrong) {
  Owned made;
  MakeDynamic(&made);
  const u16string text = u"borrowed";
  ASSERT_EQ(Add(made.instance, u"Lent", CIM_STRING, Text(text.c_str()), FLAG_BORROW), RESULT_OK);
  ASSERT_EQ(Add(made.instance, u"Null", CIM_UINT32, Number(3), FLAG_NULL | FLAG_NOT_MODIFIED),
            RESULT_OK);
  ASSERT_EQ(Instance_AddProperty(made.instance, u"None", nullptr, CIM_STRINGA, 0), RESULT_OK);
  EXPECT_EQ(Read(made.instance, u"Lent").value.string, text.c_str());
  EXPECT_EQ(Read(made.instance, u"Lent").flags, FLAG_BORROW | FLAG_NOT_MODIFIED);
  EXPECT_EQ(Read(made.instance, u"Null").flags, FLAG_NULL | FLAG_NOT_MODIFIED);
  EXPECT_EQ(Read(made.instance, u"None").flags, FLAG_NULL | FLAG_NOT_MODIFIED);
  const CimValue four = Number(4);
  EXPECT_EQ(Instance_StoreProperty(made.instance, u"NULL", &four, CIM_UINT32, 0), RESULT_OK);
  EXPECT_EQ(Read(made.instance, u"Null").flags, FLAG_NOT_MODIFIED);
  auto* slot = reinterpret_cast<std::uint8_t*>(made.instance->body) + 64 + 40;
  slot[5] |= SLOT_MODIFIED;  // behind the value and `present`
  EXPECT_EQ(Read(made.instance, u"Null").flags, 0u);
  EXPECT_EQ(Instance_ClearProperty(made.instance, u"Null"), RESULT_OK);
  EXPECT_EQ(Read(made.instance, u"Null").flags, FLAG_NULL | FLAG_NOT_MODIFIED);
  EXPECT_EQ(Read(made.instance, u"Null").value.uint32, 0u);
}

// One of each: static on a schema's class, on a class object, on a method, dynamic.
class KindsTest : public ::testing::TestWithParam<int> {
 protected:
  KindsTest() {
    EXPECT_EQ(Class_FromDef(&fan_schema::kFan, nullptr, nullptr, &class_), RESULT_OK);
    Make(nullptr, &source_);
    EXPECT_EQ(Instance_SetNamespace(source_.instance, u"root"), RESULT_OK);
    EXPECT_EQ(Instance_SetHostName(source_.instance, u"host"), RESULT_OK);
    EXPECT_EQ(RefsOfClass(), GetParam() == 1 ? 2u : 1u);
  }
  ~KindsTest() override {
    source_.End();
    EXPECT_EQ(RefsOfClass(), 1u);
    EXPECT_EQ(Class_Delete(class_), RESULT_OK);
  }
  std::uint64_t RefsOfClass() const { return class_->refs.load(); }
  void Make(Batch* batch, Owned* made) {
    if (GetParam() == 3) {
      MakeDynamic(made, batch);
      EXPECT_EQ(Instance_AddProperty(made->instance, u"Id", nullptr, CIM_UINT32, FLAG_KEY),
                RESULT_OK);
      EXPECT_EQ(Instance_AddProperty(made->instance, u"Name", nullptr, CIM_STRING, 0), RESULT_OK);
      return;
    }
    const ClassDef* const kDefs[] = {&fan_schema::kFan, class_->def,
                                     MethodDef_AsClass(&fan_schema::kSpin)};
    ASSERT_EQ(Instance_Create(&made->instance, kDefs[GetParam()], batch), RESULT_OK);
  }
  ClassObject* class_ = nullptr;
  Owned source_;
};
INSTANTIATE_TEST_SUITE_P(All, KindsTest, ::testing::Range(0, 4));

TEST_P(KindsTest, ACopyLeansOnItsSource) {
  auto text = std::make_unique<u16string>(u"lent");
  const u16string number = GetParam() == 2 ? u"return" : u"ID";
  const CimValue seven = Number(7);
  ASSERT_EQ(Instance_StoreProperty(source_.instance, number.c_str(), &seven, CIM_UINT32, 0), 0u);
  if (GetParam() != 2) {
    const CimValue lent = Text(text->c_str());
    ASSERT_EQ(Instance_StoreProperty(source_.instance, u"Name", &lent, CIM_STRING, FLAG_BORROW),
              0u);
  }
  Owned copy, second;
  ASSERT_EQ(Instance_Clone(source_.instance, &copy.instance), RESULT_OK);
  const std::uint32_t flags = source_.instance->body->def->flags;
  EXPECT_EQ(copy.instance->body->def->flags, GetParam() < 2 ? flags : 0u);
  EXPECT_EQ(Instance_IsWrapped(copy.instance), GetParam() == 3);
  source_.End();
  text.reset();
  // A copy of the copy, which must not lean on it either.
  ASSERT_EQ(Instance_Clone(copy.instance, &second.instance), RESULT_OK);
  copy.End();
  const Instance* last = second.instance;
  EXPECT_EQ(Read(last, number).value.uint32, 7u);
  EXPECT_EQ(TextOf(last, Instance_NamespaceOf) + TextOf(last, Instance_HostNameOf), u"roothost");
  EXPECT_EQ(TextOf(last, Instance_ClassNameOf), GetParam() == 2 ? u"Spin" : u"Fan");
  if (GetParam() != 2) {
    EXPECT_EQ(u16string(Read(last, u"Name").value.string), u"lent");
  }
  EXPECT_EQ(RefsOfClass(), GetParam() == 1 ? 2u : 1u);
  if (GetParam() != 3) return;
  for (unsigned i = 0; i < 40; ++i)
    EXPECT_EQ(Add(second.instance, Numbered(u"More", i), CIM_UINT32, Number(i)), RESULT_OK);
  EXPECT_EQ(Read(last, number).value.uint32, 7u);
}

TEST_P(KindsTest, AFailedStepLeaksOrSpoilsTheInstance) {
  const u16string longText(600, u'x');
  const CimValue text = Text(longText.c_str()), nested = Pointer(source_.instance);
  if (GetParam() != 2) {
    EXPECT_EQ(Instance_StoreProperty(source_.instance, u"Name", &text, CIM_STRING, 0), RESULT_OK);
  }
  const std::vector<std::function<Result(Batch*, Owned*)>> kSteps = {
      [&](Batch* batch, Owned* made) {
        return Instance_Copy(source_.instance, &made->instance, batch);
      },
      [&](Batch*, Owned* made) { return Instance_Clone(source_.instance, &made->instance); },
      [&](Batch* batch, Owned* made) {
        return Instance_Create(&made->instance, source_.instance->def, batch);
      },
      [&](Batch* batch, Owned* made) {
        Result result = Instance_CreateDynamic(&made->instance, u"Holder", 0, batch);
        if (result == RESULT_OK) result = Add(made->instance, u"Text", CIM_STRING, text);
        if (result == RESULT_OK) result = Add(made->instance, u"Held", CIM_INSTANCE, nested);
        return result;
      },
  };
  for (const std::uint64_t limit : {std::uint64_t{0}, kNoPageLimit}) {
    for (std::size_t step = 0; step < kSteps.size(); ++step) {
      SCOPED_TRACE(step);
      bool hasFailed = true;
      for (std::uint64_t failAt = 1; hasFailed; ++failAt) {
        OwnBatch batch(limit);
        Owned made;
        const std::uint64_t before = RefsOfClass();
        heap_gate::Arm(failAt);
        const Result result = kSteps[step](&batch, &made);
        heap_gate::Disarm();
        hasFailed = heap_gate::Requests() >= failAt;
        EXPECT_EQ(result, hasFailed ? RESULT_FAILED : RESULT_OK) << failAt;
        made.End();
        EXPECT_EQ(RefsOfClass(), before) << failAt;
      }
    }
  }
}

TEST_P(KindsTest, AnInstanceInTheCallersMemoryTouchesWhatIsntIts) {
  const ClassDef* def = source_.instance->def;
  std::vector<std::uint64_t> memory(def->size / 8 + 2, 0xEEEEEEEEEEEEEEEE);
  for (const bool ownBatch : {true, false}) {
    OwnBatch batch;
    ASSERT_EQ(Instance_InitAt(&memory[1], def, ownBatch ? nullptr : &batch), RESULT_OK);
    auto* made = reinterpret_cast<Instance*>(&memory[1]);
    EXPECT_EQ(made->ownsBatch, ownBatch ? 1 : 0);
    EXPECT_EQ(Instance_SetNamespace(made, u"root"), RESULT_OK);
    Owned copy;
    ASSERT_EQ(Instance_Clone(made, &copy.instance), RESULT_OK);
    EXPECT_EQ(Instance_Delete(made), RESULT_OK);
    EXPECT_EQ(Instance_Delete(made), RESULT_FAILED);  // the memory stayed, and holds nothing
    EXPECT_EQ(Instance_PropertyCountOf(made, nullptr), RESULT_INVALID_PARAMETER);
    EXPECT_EQ(TextOf(copy.instance, Instance_ClassNameOf), GetParam() == 2 ? u"Spin" : u"Fan");
    EXPECT_EQ(TextOf(copy.instance, Instance_NamespaceOf), u"root");
  }
  EXPECT_EQ(memory.front(), 0xEEEEEEEEEEEEEEEE);
  EXPECT_EQ(memory.back(), 0xEEEEEEEEEEEEEEEE);
}

TEST(InstanceTest, AFailedChangeLosesTheOldContent) {
  OwnBatch batch(0);
  Owned made;
  MakeDynamic(&made, &batch);
  ASSERT_EQ(Instance_SetNamespace(made.instance, u"old"), RESULT_OK);
  ASSERT_EQ(Instance_SetHostName(made.instance, u"old"), RESULT_OK);
  ASSERT_EQ(Add(made.instance, u"Text", CIM_STRING, Text(u"old")), RESULT_OK);
  ASSERT_EQ(Instance_AddProperty(made.instance, u"List", nullptr, CIM_UINT8A, 0), RESULT_OK);
  std::uint32_t index = 0;
  const std::uint8_t byte = 9;
  ASSERT_EQ(Instance_ReserveArray(made.instance, u"List", CIM_UINT8, 0, 4, &index), RESULT_OK);
  ASSERT_EQ(Instance_AppendToArray(made.instance, index, &byte), RESULT_OK);
  for (unsigned i = 2; i < 32; ++i)
    ASSERT_EQ(Add(made.instance, Numbered(u"P", i), CIM_UINT32, Number(i)), RESULT_OK);
  const CimValue text = Text(u"new");
  const std::vector<std::pair<std::function<Result()>, Result>> kChanges = {
      {[&] { return Instance_SetNamespace(made.instance, u"new"); }, RESULT_FAILED},
      {[&] { return Instance_SetHostName(made.instance, u"new"); }, RESULT_SERVER_LIMITS_EXCEEDED},
      {[&] { return Instance_SetClassName(made.instance, u"New"); }, RESULT_FAILED},
      {[&] { return Instance_StorePropertyAt(made.instance, 0, &text, CIM_STRING, 0); },
       RESULT_FAILED},
      {[&] { return Instance_ReserveArray(made.instance, u"List", CIM_UINT8, 0, 9, &index); },
       RESULT_SERVER_LIMITS_EXCEEDED},
      {[&] { return Add(made.instance, u"Grown", CIM_UINT32, Number(1)); }, RESULT_FAILED},
  };
  for (std::size_t i = 0; i < kChanges.size(); ++i) {
    SCOPED_TRACE(i);
    heap_gate::Arm(1);
    EXPECT_EQ(kChanges[i].first(), kChanges[i].second);
    heap_gate::Disarm();
    EXPECT_EQ(TextOf(made.instance, Instance_NamespaceOf), u"old");
    EXPECT_EQ(TextOf(made.instance, Instance_HostNameOf), u"old");
    EXPECT_EQ(TextOf(made.instance, Instance_ClassNameOf), u"Fan");
    EXPECT_EQ(u16string(Read(made.instance, u"Text").value.string), u"old");
    EXPECT_EQ(Read(made.instance, u"List").value.array.size, 1u);
    EXPECT_EQ(made.instance->body->def->propertyCount, 32u);
  }
  for (std::uint64_t failAt = 2; failAt <= 4; ++failAt) {  // after the table: body, record, name
    heap_gate::Arm(failAt);
    EXPECT_EQ(Add(made.instance, u"Grown", CIM_UINT32, Number(1)), RESULT_FAILED);
    heap_gate::Disarm();
    EXPECT_EQ(u16string(Read(made.instance, u"Text").value.string), u"old");
  }
  for (const auto& each : kChanges) EXPECT_EQ(each.first(), RESULT_OK);
  EXPECT_EQ(TextOf(made.instance, Instance_ClassNameOf), u"New");
  EXPECT_EQ(made.instance->body->def->nameCode, Name_Code(u"New"));
  EXPECT_EQ(made.instance->hostName, made.instance->body->hostName);
  EXPECT_EQ(Instance_SetNamespace(made.instance, nullptr), RESULT_OK);
  EXPECT_EQ(TextOf(made.instance, Instance_NamespaceOf), u"(none)");
  // The value alone fails: the property stays, as a null.
  heap_gate::Arm(3);
  EXPECT_EQ(Add(made.instance, u"Late", CIM_STRING, Text(u"value")), RESULT_FAILED);
  heap_gate::Disarm();
  EXPECT_EQ(Read(made.instance, u"Late").flags & FLAG_NULL, FLAG_NULL);
}

TEST(InstanceTest, AnArrayFilledByElementsMissesSome) {
  Owned made, key;
  MakeDynamic(&made);
  MakeDynamic(&key);
  ASSERT_EQ(Instance_AddProperty(made.instance, u"Texts", nullptr, CIM_STRINGA, 0), RESULT_OK);
  ASSERT_EQ(Instance_AddProperty(made.instance, u"Refs", nullptr, CIM_REFERENCEA, 0), RESULT_OK);
  std::uint32_t texts = 9, refs = 9;
  ASSERT_EQ(Instance_ReserveArray(made.instance, u"TEXTS", CIM_STRING, 0, 2, &texts), RESULT_OK);
  ASSERT_EQ(Instance_ReserveArray(made.instance, u"Refs", CIM_REFERENCE, FLAG_NULL, 1, &refs), 0u);
  EXPECT_EQ(texts + 10 * refs, 10u);
  EXPECT_EQ(Read(made.instance, u"Texts").flags & FLAG_NULL, 0u);
  EXPECT_EQ(Read(made.instance, u"Refs").flags & FLAG_NULL, FLAG_NULL);
  for (const char16_t* text : {u"one", u"two"})
    EXPECT_EQ(Instance_AppendToArray(made.instance, texts, &text), RESULT_OK);
  EXPECT_EQ(Instance_AppendToArray(made.instance, refs, &key.instance), RESULT_OK);
  const ArrayValue list = Read(made.instance, u"Texts").value.array;
  ASSERT_EQ(list.size, 2u);
  EXPECT_EQ(u16string(static_cast<char16_t**>(list.data)[1]), u"two");
  const Property held = Read(made.instance, u"Refs");
  EXPECT_EQ(held.flags & FLAG_NULL, 0u);
  EXPECT_NE(*static_cast<Instance**>(held.value.array.data), key.instance);
  CimValue lent = {};
  lent.array = list;
  ASSERT_EQ(Add(made.instance, u"Lent", CIM_STRINGA, lent, FLAG_BORROW), RESULT_OK);
  const char16_t* third = u"three";
  EXPECT_EQ(Instance_AppendToArray(made.instance, 2, &third), RESULT_FAILED);
}

TEST(InstanceTest, TheDefinitionOfADynamicInstanceEndsWithIt) {
  Owned dynamic, fixed, copy;
  MakeDynamic(&dynamic);
  ASSERT_EQ(Add(dynamic.instance, u"Speed", CIM_UINT32, Number(1)), RESULT_OK);
  ClassObject* object = nullptr;
  ASSERT_EQ(Instance_MakeClassObject(dynamic.instance, &object), RESULT_OK);
  ASSERT_EQ(Instance_Create(&fixed.instance, dynamic.instance->body->def, nullptr), RESULT_OK);
  ClassObject view;
  ASSERT_EQ(Instance_GetClassView(dynamic.instance, &view), RESULT_OK);
  EXPECT_EQ(view.def, dynamic.instance->body->def);
  dynamic.End();
  ASSERT_EQ(Instance_Clone(fixed.instance, &copy.instance), RESULT_OK);
  EXPECT_NE(copy.instance->def, fixed.instance->def);
  fixed.End();
  const CimValue two = Number(2);
  EXPECT_EQ(Instance_StoreProperty(copy.instance, u"SPEED", &two, CIM_UINT32, 0), RESULT_OK);
  EXPECT_EQ(Read(copy.instance, u"Speed").value.uint32, 2u);
  EXPECT_EQ(ClassDef_FindProperty(object->def, u"speed"), 0);
  EXPECT_EQ(Class_Delete(object), RESULT_OK);
}

TEST(InstanceTest, AShallowDefinitionCarriesTooMuchOrTooLittle) {
  OwnBatch batch;
  const ClassDef* copy = DynamicDef_Copy(&fan_schema::kFan, &batch);
  ASSERT_NE(copy, nullptr);
  EXPECT_EQ(copy->flags, 0u);
  EXPECT_EQ(copy->size, fan_schema::kSize);
  EXPECT_EQ(copy->superclass, nullptr);
  EXPECT_EQ(copy->properties[0]->flags, FLAG_KEY);
  const PropertyDef& name = *copy->properties[1];
  EXPECT_EQ(u16string(name.name), u"Name");
  EXPECT_EQ(name.offset, fan_schema::kNameAt);
  EXPECT_TRUE(name.value == nullptr && name.referenceClass == nullptr && name.maxSize == 0 &&
              name.originClass == nullptr && name.propagatorClass == nullptr);
  ASSERT_EQ(name.qualifierCount, 2u);
  EXPECT_EQ(*static_cast<const std::uint8_t*>(name.qualifiers[0]->value), 1);
  EXPECT_EQ(name.qualifiers[1]->value, nullptr);
  EXPECT_EQ(name.qualifiers[1]->flavor, 0x401u);
  for (const auto& [count, capacity] :
       {std::pair<std::uint32_t, std::uint64_t>{0, 32}, {32, 32}, {33, 64}, {64, 64}, {65, 128}})
    EXPECT_EQ(DynamicDef_Capacity(count), capacity);
}

TEST(InstanceTest, AReferenceIsLostBetweenThreads) {
  Instance* shared = nullptr;
  ASSERT_EQ(Instance_CreateDynamic(&shared, u"Fan", 0, nullptr), RESULT_OK);
  auto use = [shared] {
    for (int i = 0; i < 1000; ++i) {
      Instance_Retain(shared);
      std::uint32_t count = 1;
      EXPECT_EQ(Instance_PropertyCountOf(shared, &count), RESULT_OK);
      EXPECT_EQ(count, 0u);
      Instance_Drop(shared);
    }
    Instance_Drop(shared);
  };
  Instance_Retain(shared);
  std::thread first(use), second(use);  // the later of the two ends it
  first.join();
  second.join();
}

TEST(InstanceTest, AForeignInstanceIsCopiedAsOurs) {
  InstanceOps foreign = kInstanceOps;
  foreign.Clone = [](const Instance*, Instance** clone) {
    *clone = nullptr;
    return Result{RESULT_NOT_FOUND};
  };
  Owned made;
  MakeDynamic(&made);
  made.instance->ops = &foreign;
  Instance* copy = made.instance;
  EXPECT_EQ(Instance_Copy(made.instance, &copy, nullptr), RESULT_NOT_FOUND);
  EXPECT_EQ(copy, nullptr);
}

}  // namespace
}  // namespace stewardry
