// Names, definitions and class objects: found by name, read, copied, shared.
#include <gtest/gtest.h>

#include <string>
#include <thread>

#include "base/heap.h"
#include "base/instance/class_object.h"
#include "base/instance/definition_copy.h"
#include "base/instance/instance.h"
#include "tests/base/instance/fan_schema.h"

namespace stewardry {
namespace {

using std::u16string;

TEST(NameTest, ANameIsJudgedOrCodedWrongly) {
  const u16string long256(256, u'x'), long300 = u"A" + u16string(298, u'x') + u"Z";
  const struct {
    u16string name;
    bool valid;
    std::uint32_t code;
  } kCases[] = {
      {u"", false, 0},
      {u"A", true, 0x616101},
      {u"a", true, 0x616101},
      {u"_1", true, 0x5F3102},
      {u"1a", false, 0x316102},
      {u"a b", false, 0x616203},
      {u"a\u0080", false, 0x618002},
      {u"\u0141x", false, 0x617802},  // the low byte alone is folded
      {u"Zz[", false, 0x7A5B03},
      {u"a@", false, 0x614002},
      {u"a`", false, 0x616002},
      {long256, true, 0x787800 | 256},
      {long300, true, 0x617A00 | 300},
  };
  for (const auto& each : kCases) {
    SCOPED_TRACE(each.code);
    EXPECT_EQ(Name_IsValid(each.name.c_str()), each.valid);
    EXPECT_EQ(Name_Code(each.name.c_str()), each.code);
    EXPECT_EQ(Name_Length(each.name.c_str(), each.code), each.name.size());
  }
  EXPECT_FALSE(Name_IsValid(nullptr));
  EXPECT_EQ(Name_Code(nullptr), 0u);
  // The code of a stored name, for the longer name that stands in its place.
  EXPECT_EQ(Name_Length(u"ReturnValue", Name_Code(u"LumoReturn")), 11u);
}

TEST(NameTest, ASearchFindsAnotherDefinitionOrNone) {
  constexpr DefinitionHead kFirst = {1, Name_Code(u"speed"), u"speed"};
  constexpr DefinitionHead kSameCode = {2, Name_Code(u"sxxxd"), u"sxxxd"};
  constexpr DefinitionHead kEqual = {3, Name_Code(u"SPEED"), u"SPEED"};
  constexpr DefinitionHead kWrongCode = {4, 17, u"fan"};
  constexpr DefinitionHead kNameless = {5, 0, u""};
  const DefinitionHead* const all[] = {&kSameCode, &kFirst, &kEqual, &kWrongCode, &kNameless};
  EXPECT_EQ(Names_Find(all, 5, u"sPeeD"), 1);  // the first of two equal ones
  EXPECT_EQ(Names_Find(all, 1, u"speed"), kNoIndex);
  EXPECT_EQ(Names_Find(all, 5, u"fan"), kNoIndex);  // found by code or not at all
  EXPECT_EQ(Names_Find(all, 5, u""), kNoIndex);
  EXPECT_EQ(Names_Find(all, 5, nullptr), kNoIndex);
  EXPECT_EQ(Names_Find<DefinitionHead>(nullptr, 5, u"fan"), kNoIndex);
  using namespace fan_schema;
  EXPECT_EQ(ClassDef_FindProperty(&kFan, u"SPEEDS"), 2);
  EXPECT_EQ(ClassDef_GetProperty(&kFan, u"on"), &kOn);
  EXPECT_EQ(ClassDef_GetProperty(&kFan, u"off"), nullptr);
  EXPECT_EQ(ClassDef_GetProperty(nullptr, u"on"), nullptr);
  EXPECT_EQ(Schema_FindClass(&kSchema, u"fan"), &kFan);
  EXPECT_EQ(Schema_FindClass(&kSchema, u"Key"), nullptr);
  EXPECT_EQ(Schema_FindSecond(&kSchema, u"KEY"), &kKeyQualifier);
  EXPECT_EQ(Schema_FindClass(nullptr, u"fan"), nullptr);
  EXPECT_EQ(Schema_FindSecond(&kSchema, nullptr), nullptr);
}

TEST(NameTest, AQualifierIsListedByNameOrFlavorAlone) {
  const struct {
    QualifierDef qualifier;
    bool listed;
  } kCases[] = {
      {{u"Abstract", 0, 0x400, nullptr}, true},       {{u"DEPRECATED", 0, 0xFFFF, nullptr}, true},
      {{u"experimental", 0, 0x400, nullptr}, true},   {{u"Override", 0, 0x400, nullptr}, true},
      {{u"Version", 0, 0x400, nullptr}, true},        {{u"ClassVersion", 0, 0x400, nullptr}, true},
      {{u"ClassVersion", 0, 0xFBFF, nullptr}, false}, {{u"Key", 0, 0x400, nullptr}, false},
      {{nullptr, 0, 0x400, nullptr}, false}};
  for (const auto& each : kCases) EXPECT_EQ(Qualifier_IsListed(&each.qualifier), each.listed);
}

// A class object of Fan in a copy, and a view of it: both must read alike.
class ClassTest : public ::testing::TestWithParam<bool> {
 protected:
  ClassTest() {
    EXPECT_EQ(Class_FromDef(&fan_schema::kFan, u"root", u"host", &made_), RESULT_OK);
    EXPECT_EQ(Class_View(&view_, &fan_schema::kFan), RESULT_OK);
    object_ = GetParam() ? made_ : &view_;
  }
  ~ClassTest() override { EXPECT_EQ(Class_Delete(made_), RESULT_OK); }
  ClassObject* object_;
  ClassObject* made_ = nullptr;
  ClassObject view_;
};
INSTANTIATE_TEST_SUITE_P(CopyAndView, ClassTest, ::testing::Bool());

TEST_P(ClassTest, AClassReadsOtherwiseThanItWasDefined) {
  const char16_t *name = nullptr, *place = nullptr;
  std::uint32_t number = 0;
  ClassObject super;
  EXPECT_EQ(Class_ClassNameOf(object_, &name), RESULT_OK);
  EXPECT_EQ(u16string(name), u"Fan");
  EXPECT_EQ(Class_NamespaceOf(object_, &place), RESULT_OK);
  EXPECT_EQ(place == nullptr ? u"" : u16string(place), GetParam() ? u"root" : u"");
  EXPECT_EQ(Class_HostNameOf(object_, &place), RESULT_OK);
  EXPECT_EQ(place == nullptr ? u"" : u16string(place), GetParam() ? u"host" : u"");
  EXPECT_EQ(Class_Flags(object_, &number), RESULT_OK);
  EXPECT_EQ(number, FLAG_CLASS);
  EXPECT_EQ(Class_PropertyCountOf(object_, &number), RESULT_OK);
  EXPECT_EQ(number, 4u);
  EXPECT_EQ(Class_SuperclassNameOf(object_, &name), RESULT_OK);
  EXPECT_EQ(u16string(name), u"Device");
  EXPECT_EQ(Class_SuperclassOf(object_, nullptr), RESULT_FAILED);
  ASSERT_EQ(Class_Superclass(object_, &super), RESULT_OK);
  EXPECT_EQ(Class_Superclass(&super, &super), RESULT_INVALID_SUPERCLASS);
  EXPECT_EQ(Class_SuperclassNameOf(&super, &name), RESULT_INVALID_SUPERCLASS);
  EXPECT_EQ(name, nullptr);
  EXPECT_EQ(Class_ClassNameOf(&super, &name), RESULT_OK);
  EXPECT_EQ(u16string(name), u"Device");
  // Of a copy, everything but these.
  EXPECT_EQ(object_->def->extension, 3u);
  EXPECT_EQ(object_->def->schema == nullptr, GetParam());
  EXPECT_EQ(object_->def->owner, GetParam() ? reinterpret_cast<std::uintptr_t>(object_) : 0);
}

TEST_P(ClassTest, APropertyComesOutIncompleteOrUnderAnotherIndex) {
  const char16_t *name = nullptr, *reference = nullptr, *origin = nullptr, *propagator = nullptr;
  CimValue value;
  bool present = false;
  std::uint32_t type = 0, flags = 0, index = 0, maxSize = 0, offset = 0, count = 0;
  QualifierSet qualifiers = {};
  ASSERT_EQ(Class_PropertyAtExt(object_, 1, &name, &value, &present, &type, &reference, &qualifiers,
                                &flags, &maxSize, &offset, &origin, &propagator),
            RESULT_OK);
  EXPECT_EQ(u16string(name) + value.string + reference + origin + propagator,
            u"NameunnamedRefOriginPropagator");
  EXPECT_TRUE(present);
  EXPECT_EQ(type + maxSize + offset, CIM_STRING + 77u + fan_schema::kNameAt);
  EXPECT_EQ(QualifierSet_QualifierCountOf(&qualifiers, &count), RESULT_OK);
  EXPECT_EQ(count, 2u);
  ASSERT_EQ(Class_ReadProperty(object_, u"SPEEDS", &value, &present, &type, &reference, &qualifiers,
                               &flags, &index),
            RESULT_OK);
  EXPECT_EQ(index, 2u);
  EXPECT_EQ(reference, nullptr);
  ASSERT_EQ(value.array.size, 3u);
  EXPECT_EQ(static_cast<std::uint32_t*>(value.array.data)[2], 300u);
  ASSERT_EQ(Class_PropertyAt(object_, 3, &name, &value, &present, &type, nullptr, nullptr, &flags),
            RESULT_OK);
  EXPECT_FALSE(present);  // no default
  EXPECT_EQ(value.uint64, 0u);
  EXPECT_EQ(
      Class_PropertyAt(object_, 4, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr),
      RESULT_NO_SUCH_PROPERTY);
  for (const char16_t* wrong : {u"speed", u""}) {
    EXPECT_EQ(object_->ops->ReadProperty(object_, wrong, nullptr, nullptr, nullptr, nullptr,
                                         nullptr, nullptr, nullptr),
              RESULT_NO_SUCH_PROPERTY);
  }
}

TEST_P(ClassTest, AMethodsReturnValueIsTakenForAParameter) {
  const char16_t *name = nullptr, *reference = nullptr, *origin = nullptr;
  QualifierSet qualifiers = {};
  ParameterSet parameters = {};
  std::uint32_t type = 0, index = 7, count = 0, maxSize = 0, flags = 0;
  EXPECT_EQ(Class_MethodCountOf(object_, &count), RESULT_OK);
  EXPECT_EQ(count, 2u);
  ASSERT_EQ(Class_FindMethod(object_, u"halt", nullptr, &parameters, &index), RESULT_OK);
  EXPECT_EQ(index, 1u);
  EXPECT_EQ(ParameterSet_ParameterCountOf(&parameters, &count), RESULT_OK);
  EXPECT_EQ(count, 0u);
  ASSERT_EQ(
      Class_MethodAtExt(object_, 0, &name, &qualifiers, &parameters, &origin, nullptr, &flags),
      RESULT_OK);
  EXPECT_EQ(u16string(name) + origin, u"SpinOrigin");
  EXPECT_EQ(flags, FLAG_METHOD);
  EXPECT_EQ(ParameterSet_ParameterCountOf(&parameters, &count), RESULT_OK);
  EXPECT_EQ(count, 1u);
  EXPECT_EQ(ParameterSet_ReturnParameterOf(&parameters, &type, &qualifiers), RESULT_OK);
  EXPECT_EQ(type, CIM_UINT32);
  EXPECT_EQ(qualifiers.count, 1u);
  ASSERT_EQ(ParameterSet_ParameterAtExt(&parameters, 0, &name, &type, &maxSize, &reference,
                                        &qualifiers, &flags),
            RESULT_OK);
  EXPECT_EQ(u16string(name) + reference, u"TargetDevice");
  EXPECT_EQ(maxSize, 5u);
  EXPECT_EQ(flags, FLAG_PARAMETER | FLAG_OUT);
  EXPECT_EQ(ParameterSet_ParameterAt(&parameters, 1, &name, &type, nullptr, &qualifiers),
            RESULT_NOT_FOUND);
  EXPECT_EQ(ParameterSet_FindParameter(&parameters, u"TARGET", nullptr, nullptr, nullptr, &index),
            RESULT_OK);
  EXPECT_EQ(index, 0u);
  EXPECT_EQ(ParameterSet_FindParameter(&parameters, u"Return", nullptr, nullptr, nullptr, nullptr),
            RESULT_NOT_FOUND);
  EXPECT_EQ(Class_MethodAt(object_, 2, &name, nullptr, nullptr), RESULT_METHOD_NOT_FOUND);
  EXPECT_EQ(Class_FindMethod(object_, u"", nullptr, nullptr, nullptr), RESULT_METHOD_NOT_FOUND);
}

TEST_P(ClassTest, AQualifierLosesItsValue) {
  QualifierSet set = {};
  const char16_t* name = nullptr;
  std::uint32_t type = 0, flavor = 0, index = 7;
  CimValue value;
  ASSERT_EQ(Class_ClassQualifiers(object_, &set), RESULT_OK);
  ASSERT_EQ(QualifierSet_QualifierAt(&set, 0, &name, &type, &flavor, &value), RESULT_OK);
  EXPECT_EQ(u16string(name), u"Octetstring");
  EXPECT_EQ(value.boolean, 1);
  ASSERT_EQ(QualifierSet_FindQualifier(&set, u"VERSION", &type, &flavor, &value, &index),
            RESULT_OK);
  EXPECT_EQ(type + flavor + value.uint32 + index, CIM_UINT32 + 0x401u + 4u + 1u);
  EXPECT_EQ(QualifierSet_QualifierAt(&set, 2, &name, &type, &flavor, &value), RESULT_NOT_FOUND);
  EXPECT_EQ(QualifierSet_FindQualifier(&set, u"", nullptr, nullptr, nullptr, nullptr),
            RESULT_NOT_FOUND);
}

TEST_P(ClassTest, AnEmptyArgumentIsFollowed) {
  ClassObject tableless = {};
  ClassObject* clone = nullptr;
  ParameterSet none = {0, nullptr, &kParameterSetOps};
  QualifierSet qualifiers = {};
  std::uint32_t word = 1;
  const Result kResults[] = {
      Class_FromDef(nullptr, nullptr, nullptr, &clone),
      Class_FromDef(&fan_schema::kFan, nullptr, nullptr, nullptr),
      Class_View(nullptr, &fan_schema::kFan),
      Class_View(&view_, nullptr),
      Class_Flags(object_, nullptr),
      Class_Superclass(nullptr, &view_),
      Class_ClassNameOf(&tableless, nullptr),
      Class_Delete(nullptr),
      kClassOps.Delete(nullptr),
      Class_Clone(object_, nullptr),
      kClassOps.PropertyCountOf(nullptr, &word),
      Class_HostNameOf(object_, nullptr),
      Class_MethodAt(object_, 0, nullptr, nullptr, nullptr),
      Class_FindMethod(object_, nullptr, nullptr, nullptr, nullptr),
      Class_ReadProperty(object_, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr,
                         nullptr),
      Class_ClassQualifiers(object_, nullptr),
      QualifierSet_QualifierCountOf(&qualifiers, &word),
      kParameterSetOps.ParameterAt(&none, 0, nullptr, nullptr, nullptr, nullptr),
  };
  for (std::size_t i = 0; i < std::size(kResults); ++i)
    EXPECT_EQ(kResults[i], RESULT_INVALID_PARAMETER) << i;
  EXPECT_EQ(ParameterSet_ParameterCountOf(&none, &word), RESULT_OK);
  EXPECT_EQ(word, 0u);
  EXPECT_EQ(ParameterSet_ReturnParameterOf(&none, &word, &qualifiers), RESULT_NOT_FOUND);
}

TEST(ClassLifeTest, AReferenceIsLostBetweenThreads) {
  ClassObject *object = nullptr, *clone = nullptr;
  ASSERT_EQ(Class_FromDef(&fan_schema::kFan, nullptr, nullptr, &object), RESULT_OK);
  auto use = [object] {
    for (int i = 0; i < 500; ++i) {
      ClassObject* mine = nullptr;
      EXPECT_EQ(Class_Clone(object, &mine), RESULT_OK);
      EXPECT_EQ(ClassDef_FindProperty(mine->def, u"Speeds"), 2);
      EXPECT_EQ(Class_Delete(mine), RESULT_OK);
    }
    EXPECT_EQ(Class_Delete(object), RESULT_OK);  // the last of the three frees it
  };
  EXPECT_EQ(Class_Clone(object, &clone), RESULT_OK);
  EXPECT_EQ(clone, object);
  EXPECT_EQ(Class_Clone(object, &clone), RESULT_OK);
  std::thread first(use), second(use);
  first.join();
  second.join();
  EXPECT_EQ(object->refs.load(), 1u);
  EXPECT_EQ(Class_Delete(object), RESULT_OK);

  ClassObject view;
  ASSERT_EQ(Class_View(&view, &fan_schema::kFan), RESULT_OK);
  EXPECT_EQ(Class_Clone(&view, &clone), RESULT_FAILED);
  EXPECT_EQ(Class_Delete(&view), RESULT_OK);
  EXPECT_EQ(view.def, &fan_schema::kFan);
}

// A class whose defaults hold texts and instances, scalar and in arrays, of another class object.
class DefaultsTest : public ::testing::Test {
 protected:
  DefaultsTest() {
    EXPECT_EQ(Class_FromDef(&fan_schema::kDevice, nullptr, nullptr, &device_), RESULT_OK);
    EXPECT_EQ(Instance_Create(&instance_, device_->def, nullptr), RESULT_OK);
    instances_[0] = instances_[2] = instance_;
    instanceArray_ = {instances_, 3, 0};
    reference_ = {u"Ref", CIM_REFERENCE, 0, &instance_};
    for (std::uint32_t i = 0; i < 4; ++i) {
      static constexpr const char16_t* kNames[] = {u"Texts", u"One", u"Many", u"Null"};
      properties_[i] = {.nameCode = Name_Code(kNames[i]), .name = kNames[i]};
      list_[i] = &properties_[i];
    }
    properties_[0].type = CIM_STRINGA, properties_[0].value = &fan_schema::kTexts;
    properties_[1].type = CIM_INSTANCE, properties_[1].value = &instance_;
    properties_[2].type = CIM_REFERENCEA, properties_[2].value = &instanceArray_;
    properties_[3].type = CIM_UINT32, properties_[3].value = &fan_schema::kFour;
    properties_[3].flags = FLAG_NULL;
    def_ = fan_schema::kFan;
    def_.properties = list_, def_.propertyCount = 4;
    def_.qualifiers = &qualifier_, def_.qualifierCount = 1;
  }
  ~DefaultsTest() override {
    EXPECT_EQ(Instance_Delete(instance_), RESULT_OK);
    EXPECT_EQ(device_->refs.load(), 1u) << "a default kept its reference";
    EXPECT_EQ(Class_Delete(device_), RESULT_OK);
  }
  ClassObject* device_ = nullptr;
  Instance* instance_ = nullptr;
  Instance* instances_[3] = {};
  ArrayValue instanceArray_ = {};
  QualifierDef reference_ = {};
  const QualifierDef* qualifier_ = &reference_;
  PropertyDef properties_[4] = {};
  const PropertyDef* list_[4] = {};
  ClassDef def_ = {};
};

TEST_F(DefaultsTest, ACopiedDefaultPointsToItsSource) {
  ClassObject* object = nullptr;
  ASSERT_EQ(Class_FromDef(&def_, nullptr, nullptr, &object), RESULT_OK);
  CimValue value;
  bool present = true;
  EXPECT_EQ(device_->refs.load(), 6u);  // the qualifier's, the one, two of the many
  EXPECT_EQ(Class_ReadProperty(object, u"Texts", &value, &present, nullptr, nullptr, nullptr,
                               nullptr, nullptr),
            RESULT_OK);
  ASSERT_EQ(value.array.size, 3u);
  auto** texts = static_cast<const char16_t**>(value.array.data);
  EXPECT_EQ(u16string(texts[2]), u"c");
  EXPECT_NE(texts[2], fan_schema::kDefaultTexts[2]);
  EXPECT_EQ(texts[1], nullptr);
  EXPECT_EQ(Class_ReadProperty(object, u"Many", &value, &present, nullptr, nullptr, nullptr,
                               nullptr, nullptr),
            RESULT_OK);
  auto** many = static_cast<Instance**>(value.array.data);
  EXPECT_NE(many[0], instance_);
  EXPECT_EQ(many[1], nullptr);
  EXPECT_EQ(many[2]->batch, object->batch);
  EXPECT_EQ(Class_ReadProperty(object, u"Null", &value, &present, nullptr, nullptr, nullptr,
                               nullptr, nullptr),
            RESULT_OK);
  EXPECT_FALSE(present);
  EXPECT_EQ(Class_Delete(object), RESULT_OK);
}

TEST_F(DefaultsTest, AFailedCopyLeaksOrPassesForOne) {
  for (std::uint64_t failAt = 1;; ++failAt) {
    ClassObject* object = nullptr;
    heap_gate::Arm(failAt);
    const Result result = Class_FromDef(&def_, u"root", u"host", &object);
    heap_gate::Disarm();
    if (heap_gate::Requests() < failAt) {
      EXPECT_EQ(result, RESULT_OK);
      EXPECT_GT(failAt, 3u);
      EXPECT_EQ(Class_Delete(object), RESULT_OK);
      break;
    }
    EXPECT_EQ(result, RESULT_SERVER_LIMITS_EXCEEDED) << failAt;
    EXPECT_EQ(object, nullptr);
    EXPECT_EQ(device_->refs.load(), 2u) << failAt;
  }
}

// Without pages every request reaches the heap, so each step of a copy fails once.
TEST_F(DefaultsTest, AHalfMadeDefinitionKeepsReferences) {
  for (std::uint64_t failAt = 1;; ++failAt) {
    Batch batch;
    Batch_Init(&batch, 0);
    heap_gate::Arm(failAt);
    const ClassDef* copy = ClassDef_Clone(&batch, &def_);
    heap_gate::Disarm();
    const bool hasFailed = heap_gate::Requests() >= failAt;
    EXPECT_EQ(copy == nullptr, hasFailed) << failAt;
    EXPECT_EQ(device_->refs.load(), hasFailed ? 2u : 6u) << failAt;
    ClassDef_Release(copy);
    Batch_Destroy(&batch);
    if (hasFailed) continue;
    EXPECT_GT(failAt, 50u);
    break;
  }
}

}  // namespace
}  // namespace stewardry
