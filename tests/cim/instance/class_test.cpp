// Names, definitions and class objects: searched, read, copied, shared.
#include <sstream>
#include <string>
#include <thread>

#include "cim/instance/class_object.h"
#include "cim/instance/definition_copy.h"
#include "tests/cim/instance/fan_schema.h"
#include "tests/cim/instance/owned_instance.h"

namespace stewardry::cim {
namespace {

using std::u16string;

TEST(NameTest, ANameHasLettersDigitsAndUnderscores) {
  for (const char16_t* valid : {u"A", u"z", u"_1", u"a9_Z"}) EXPECT_TRUE(Name_IsValid(valid));
  for (const char16_t* invalid : {u"", u"1a", u"a b", u"Zz[", u"a\u0080", u"a@", u"\u0141x", u"a`",
                                  static_cast<const char16_t*>(nullptr)})
    EXPECT_FALSE(Name_IsValid(invalid));
}

TEST(NameTest, ACodeHoldsTheFoldedEndsAndTheLength) {
  const u16string long300 = u"A" + u16string(298, u'x') + u"Z";
  for (const auto& [name, code] : {std::pair<u16string, std::uint32_t>{u"", 0},
                                   {u"A", 0x616101},
                                   {u"Zz[", 0x7A5B03},
                                   {u"a\u0080", 0x618002},
                                   {u"\u0141x", 0x617802},  // only the low byte is folded
                                   {long300, 0x617A00 | 300}}) {
    EXPECT_EQ(Name_Code(name.c_str()), code);
    EXPECT_EQ(Name_Length(name.c_str(), code), name.size());
  }
  EXPECT_EQ(Name_Code(nullptr), 0u);
}

TEST(NameTest, ASearchFindsTheFirstOfThatNameByItsCode) {
  constexpr DefinitionHead kSpeed = {1, Name_Code(u"speed"), u"speed"};
  constexpr DefinitionHead kSameCode = {2, Name_Code(u"sxxxd"), u"sxxxd"};
  constexpr DefinitionHead kEqual = {3, Name_Code(u"SPEED"), u"SPEED"};
  constexpr DefinitionHead kWrongCode = {4, 17, u"fan"}, kNameless = {5, 0, u""};
  const DefinitionHead* const all[] = {&kSameCode, &kSpeed, &kEqual, &kWrongCode, &kNameless};
  const SchemaDef schema = {nullptr, 0, all, 5};
  EXPECT_EQ(Schema_FindSecond(&schema, u"sPeeD"), &kSpeed);
  for (const char16_t* none : {u"fan", u"", static_cast<const char16_t*>(nullptr)})
    EXPECT_EQ(Schema_FindSecond(&schema, none), nullptr);
  EXPECT_EQ(Names_Find(all, 1, u"speed"), kNoIndex);
  EXPECT_EQ(Schema_FindClass(&schema, u"speed"), nullptr);
  EXPECT_EQ(Schema_FindClass(nullptr, u"speed"), nullptr);
}

// Joins texts, numbers and characters into one line.
void Put(std::ostream& line, const char16_t* part) {
  for (; part != nullptr && *part != 0; ++part) line << static_cast<char>(*part);
}
template <class Part>
void Put(std::ostream& line, const Part& part) {
  line << part;
}
template <class... Parts>
std::string Join(const Parts&... parts) {
  std::ostringstream line;
  ((Put(line, parts), line << ' '), ...);
  return line.str();
}

// A class object with a copy of Fan.
class ClassTest : public ::testing::Test {
 protected:
  ClassTest() { EXPECT_EQ(Class_FromDef(&fan_schema::kFan, u"root", u"host", &made_), RESULT_OK); }
  ~ClassTest() override { EXPECT_EQ(Class_Delete(made_), RESULT_OK); }
  ClassObject* made_ = nullptr;
  const char16_t *name_ = nullptr, *reference_ = nullptr, *origin_ = nullptr, *from_ = nullptr;
  std::uint32_t type_ = 0, flags_ = 0, maxSize_ = 0, offset_ = 0, index_ = 0;
  CimValue value_{};
  bool present_ = false;
  QualifierSet qualifiers_{};
  ParameterSet parameters_{};
};

TEST_F(ClassTest, AClassObjectHasNamesCountsAndASuperclass) {
  const SchemaDef schema = {&made_->def, 1, nullptr, 0};
  EXPECT_EQ(Schema_FindClass(&schema, u"FAN"), made_->def);
  ClassObject super, none;
  std::uint32_t methods = 0, properties = 0;
  const char16_t *superName = nullptr, *place = nullptr, *host = nullptr;
  EXPECT_EQ(Class_ClassNameOf(made_, &name_), RESULT_OK);
  EXPECT_EQ(Class_Flags(made_, &flags_), RESULT_OK);
  EXPECT_EQ(Class_PropertyCountOf(made_, &properties), RESULT_OK);
  EXPECT_EQ(Class_MethodCountOf(made_, &methods), RESULT_OK);
  EXPECT_EQ(Class_SuperclassNameOf(made_, &superName), RESULT_OK);
  EXPECT_EQ(Class_NamespaceOf(made_, &place), RESULT_OK);
  EXPECT_EQ(Class_HostNameOf(made_, &host), RESULT_OK);
  EXPECT_EQ(Join(name_, flags_, properties, methods, superName, place, host),
            "Fan 1 4 2 Device root host ");
  ASSERT_EQ(Class_Superclass(made_, &super), RESULT_OK);
  EXPECT_EQ(u16string(super.def->name), u"Device");
  EXPECT_EQ(Class_Superclass(&super, &none), RESULT_INVALID_SUPERCLASS);
  EXPECT_EQ(Class_SuperclassNameOf(&super, &name_), RESULT_INVALID_SUPERCLASS);
  EXPECT_EQ(Class_Clone(&super, &made_), RESULT_FAILED);  // a view is not shared
}

TEST_F(ClassTest, PropertiesAndQualifiersAreReadByIndexAndByName) {
  ASSERT_EQ(Class_PropertyAtExt(made_, 1, &name_, &value_, &present_, &type_, &reference_,
                                &qualifiers_, &flags_, &maxSize_, &offset_, &origin_, &from_),
            RESULT_OK);
  EXPECT_EQ(Join(name_, value_.string, present_, type_, reference_, qualifiers_.count, flags_,
                 maxSize_, offset_, origin_, from_),
            "Name unnamed 1 13 Ref 2 0 77 80 Origin Propagator ");
  ASSERT_EQ(QualifierSet_FindQualifier(&qualifiers_, u"VERSION", &type_, &flags_, &value_, &index_),
            RESULT_OK);
  EXPECT_EQ(Join(type_, flags_, value_.uint64, index_), "5 1025 4 1 ");
  EXPECT_EQ(QualifierSet_QualifierAt(&qualifiers_, 2, &name_, &type_, &flags_, &value_),
            RESULT_NOT_FOUND);
  ASSERT_EQ(Class_ReadProperty(made_, u"SPEEDS", &value_, &present_, &type_, nullptr, &qualifiers_,
                               &flags_, &index_),
            RESULT_OK);
  EXPECT_EQ(Join(present_, type_, qualifiers_.count, index_), "1 21 0 2 ");
  EXPECT_EQ(
      Class_PropertyAt(made_, 4, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr),
      RESULT_NO_SUCH_PROPERTY);
}

TEST_F(ClassTest, MethodsAndParametersAreReadByIndexAndByName) {
  ASSERT_EQ(
      Class_MethodAtExt(made_, 0, &name_, &qualifiers_, &parameters_, &origin_, &from_, &flags_),
      RESULT_OK);
  EXPECT_EQ(Join(name_, qualifiers_.count, parameters_.count, origin_, from_, flags_),
            "Spin 2 2 Origin Propagator 2 ");
  EXPECT_NE(qualifiers_.qualifiers[0], &fan_schema::kOctets);  // a copy
  EXPECT_EQ(ParameterSet_ReturnParameterOf(&parameters_, &type_, &qualifiers_), RESULT_OK);
  EXPECT_EQ(Join(type_, qualifiers_.count), "5 1 ");
  ASSERT_EQ(ParameterSet_ParameterAtExt(&parameters_, 0, &name_, &type_, &maxSize_, &reference_,
                                        &qualifiers_, &flags_),
            RESULT_OK);
  EXPECT_EQ(Join(name_, type_, maxSize_, reference_, qualifiers_.count, flags_),
            "Target 14 5 Device 2 16384 ");
  EXPECT_EQ(ParameterSet_ParameterAt(&parameters_, 1, &name_, &type_, nullptr, &qualifiers_),
            RESULT_NOT_FOUND);
  EXPECT_EQ(ParameterSet_ParameterCountOf(&parameters_, &index_), RESULT_OK);
  EXPECT_EQ(index_, 1u);  // without the return value
  ASSERT_EQ(Class_FindMethod(made_, u"HALT", &qualifiers_, &parameters_, &index_), RESULT_OK);
  EXPECT_EQ(Join(qualifiers_.count, parameters_.count, index_), "0 1 1 ");
  EXPECT_EQ(Class_MethodAt(made_, 2, &name_, nullptr, nullptr), RESULT_METHOD_NOT_FOUND);
}

TEST_F(ClassTest, ReferencesOfSeveralThreadsAreCounted) {
  const auto use = [this] {
    for (int i = 0; i < 500; ++i) {
      ClassObject* mine = nullptr;
      EXPECT_EQ(Class_Clone(made_, &mine), RESULT_OK);
      EXPECT_EQ(ClassDef_FindProperty(mine->def, u"Speeds"), 2);
      EXPECT_EQ(Class_Delete(mine), RESULT_OK);
    }
  };
  std::thread other(use);
  use();
  other.join();
  EXPECT_EQ(made_->refs.load(), 1u);
}

// A class whose defaults and qualifiers hold texts and instances, scalar and in arrays. The
// instances hold references on the class object of a device. Without pages every request reaches
// the heap, so each step of a copy fails once.
TEST(DefinitionCopyTest, ACopyHoldsInstancesOfItsOwnUntilItsRelease) {
  ClassObject* device = nullptr;
  ASSERT_EQ(Class_FromDef(&fan_schema::kDevice, nullptr, nullptr, &device), RESULT_OK);
  Owned instance(device->def);
  Instance* many[] = {instance, nullptr, instance};
  const char16_t* texts[] = {u"a", nullptr, u"c"};
  const ArrayValue manyValue = Array(many, 3).array, textsValue = Array(texts, 3).array;
  const QualifierDef reference = {u"Ref", CIM_REFERENCE, 0, &many[0]};
  const QualifierDef* const one = &reference;
  const PropertyDef manyDef = {
      .qualifiers = &one, .qualifierCount = 1, .type = CIM_REFERENCEA, .value = &manyValue};
  const PropertyDef textsDef = {.type = CIM_STRINGA, .value = &textsValue};
  const PropertyDef null = {.flags = FLAG_NULL, .type = CIM_INSTANCE, .value = &many[0]};
  const PropertyDef* const properties[] = {&manyDef, &textsDef, &null};
  const ParameterDef returned = {.qualifiers = &one, .qualifierCount = 1};
  const ParameterDef* const parameters = &returned;
  const MethodDef method = {0, 0, nullptr, &one, 1, &parameters, 1};
  const MethodDef* const methods = &method;
  const ClassDef def = {0, 0, u"Held", &one, 1, properties, 3, 0, nullptr, nullptr, &methods, 1};
  for (HeapSweep sweep; sweep.Next();) {
    OwnBatch batch(0);
    const ClassDef* copy = sweep.Run([&] { return ClassDef_Clone(&batch, &def); });
    EXPECT_EQ(copy == nullptr, sweep.HasRefused());
    EXPECT_EQ(device->refs.load(), sweep.HasRefused() ? 2u : 8u);  // 4 qualifiers, 2 of the many
    if (copy == nullptr) continue;
    CimValue manyCopy, textsCopy;
    CimValue_FromRaw(CIM_REFERENCEA, copy->properties[0]->value, &manyCopy);
    CimValue_FromRaw(CIM_STRINGA, copy->properties[1]->value, &textsCopy);
    EXPECT_EQ(ElementsOf<Instance*>(manyCopy).at(1), nullptr);
    EXPECT_EQ(ElementsOf<Instance*>(manyCopy).at(2)->batch, &batch);
    EXPECT_EQ(u16string(ElementsOf<const char16_t*>(textsCopy).at(2)), u"c");
    EXPECT_NE(ElementsOf<const char16_t*>(textsCopy).at(2), texts[2]);
    EXPECT_EQ(copy->properties[2]->value, nullptr);
    ClassDef_Release(copy);
  }
  instance.Delete();
  EXPECT_EQ(device->refs.load(), 1u);
  EXPECT_EQ(Class_Delete(device), RESULT_OK);
}

}  // namespace
}  // namespace stewardry::cim
