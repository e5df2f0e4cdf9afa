// Names, definitions and class objects: found by name, read, copied, shared.
#include <sstream>
#include <string>
#include <thread>

#include "base/instance/class_object.h"
#include "base/instance/definition_copy.h"
#include "tests/base/instance/fan_schema.h"
#include "tests/base/instance/owned_instance.h"

namespace stewardry {
namespace {

using std::u16string;

TEST(NameTest, ANameHasLettersDigitsAndUnderscores) {
  for (const char16_t* valid : {u"A", u"z", u"_1", u"a9_Z"}) EXPECT_TRUE(Name_IsValid(valid));
  for (const char16_t* invalid : {u"", u"1a", u"a b", u"Zz[", u"a\u0080", u"a@", u"\u0141x", u"a`",
                                  static_cast<const char16_t*>(nullptr)})
    EXPECT_FALSE(Name_IsValid(invalid));
}

TEST(NameTest, ACodeHoldsTheFoldedEndsAndTheLength) {
  const u16string long256(256, u'x'), long300 = u"A" + u16string(298, u'x') + u"Z";
  for (const auto& [name, code] : {std::pair<u16string, std::uint32_t>{u"", 0},
                                   {u"A", 0x616101},
                                   {u"Zz[", 0x7A5B03},
                                   {u"\u0141x", 0x617802},  // the low byte alone is folded
                                   {long256, 0x787800 | 256},
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

TEST(NameTest, AListedQualifierHasTheFlavorAndOneOfTheNames) {
  for (const char16_t* name : {u"Abstract", u"DEPRECATED", u"experimental", u"Override", u"Version",
                               u"ClassVersion", u"Key", static_cast<const char16_t*>(nullptr)}) {
    const bool isOneOfThem = name != nullptr && u16string(name) != u"Key";
    const QualifierDef with = {name, 0, 0x400, nullptr}, without = {name, 0, 0xFBFF, nullptr};
    EXPECT_EQ(Qualifier_IsListed(&with), isOneOfThem);
    EXPECT_FALSE(Qualifier_IsListed(&without));
  }
}

// What a class object gives out by index, as text.

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

std::string TextOf(const QualifierSet& set) {
  std::string text;
  const char16_t* name = nullptr;
  std::uint32_t type = 0, flavor = 0;
  CimValue value;
  for (std::uint32_t i = 0;
       QualifierSet_QualifierAt(&set, i, &name, &type, &flavor, &value) == RESULT_OK; ++i)
    text += Join('[', name, kCimTypeNames[type], flavor, value.uint64, ']');
  return text + '\n';
}

std::string TextOf(const ParameterSet& set) {
  const char16_t *name = nullptr, *reference = nullptr;
  std::uint32_t type = 0, maxSize = 0, flags = 0;
  QualifierSet qualifiers{};
  EXPECT_EQ(ParameterSet_ReturnParameterOf(&set, &type, &qualifiers), RESULT_OK);
  std::string text = Join(kCimTypeNames[type]) + TextOf(qualifiers);
  for (std::uint32_t i = 0; ParameterSet_ParameterAtExt(&set, i, &name, &type, &maxSize, &reference,
                                                        &qualifiers, &flags) == RESULT_OK;
       ++i)
    text += Join(name, kCimTypeNames[type], maxSize, reference, flags) + TextOf(qualifiers);
  return text;
}

std::string TextOf(const ClassObject* object) {
  const char16_t *name = nullptr, *reference = nullptr, *origin = nullptr, *propagator = nullptr;
  CimValue value;
  bool present = false;
  std::uint32_t type = 0, flags = 0, maxSize = 0, offset = 0;
  QualifierSet qualifiers{};
  ParameterSet parameters{};
  EXPECT_EQ(Class_ClassQualifiers(object, &qualifiers), RESULT_OK);
  std::string text = TextOf(qualifiers);
  for (std::uint32_t i = 0;
       Class_PropertyAtExt(object, i, &name, &value, &present, &type, &reference, &qualifiers,
                           &flags, &maxSize, &offset, &origin, &propagator) == RESULT_OK;
       ++i) {
    text += Join(name, kCimTypeNames[type], reference, flags, maxSize, offset, origin, propagator);
    if (type == CIM_STRING) text += Join('=', value.string);
    if (type < CIM_STRING) text += Join(present ? '=' : '-', value.uint64);
    if (CimType_IsArray(type))
      for (const auto each : ElementsOf<std::uint32_t>(value)) text += Join('=', each);
    text += TextOf(qualifiers);
  }
  for (std::uint32_t i = 0; Class_MethodAtExt(object, i, &name, &qualifiers, &parameters, &origin,
                                              &propagator, &flags) == RESULT_OK;
       ++i)
    text += Join(name, flags, origin, propagator) + TextOf(qualifiers) + TextOf(parameters);
  return text;
}

constexpr char kFanText[] =
    "[ Octetstring BOOLEAN 1024 1 ] [ Version UINT32 1025 4 ] \n"
    "Id UINT32  4096 0 64   = 4 \n"
    "Name STRING Ref 0 77 80 Origin Propagator = unnamed "
    "[ Octetstring BOOLEAN 1024 1 ] [ Version UINT32 1025 4 ] \n"
    "Speeds UINT32A  0 0 96   = 100 = 200 = 300 \n"
    "On BOOLEAN  0 0 120   - 0 \n"
    "Spin 2 Origin Propagator [ Octetstring BOOLEAN 1024 1 ] [ Version UINT32 1025 4 ] \n"
    "UINT32 [ Octetstring BOOLEAN 1024 1 ] \n"
    "Target REFERENCE 5 Device 16384 [ Octetstring BOOLEAN 1024 1 ] [ Version UINT32 1025 4 ] \n"
    "Halt 0   \n"
    "UINT32 [ Octetstring BOOLEAN 1024 1 ] \n";

// The class object holds a copy of the definition, the view refers to it.
TEST(ClassTest, AClassObjectAndAViewReadAsTheClassWasDefined) {
  ClassObject view, super;
  ClassObject* made = nullptr;
  ASSERT_EQ(Class_View(&view, &fan_schema::kFan), RESULT_OK);
  ASSERT_EQ(Class_FromDef(&fan_schema::kFan, u"root", u"host", &made), RESULT_OK);
  for (const ClassObject* object : {made, &view}) {
    const char16_t *name = nullptr, *superName = nullptr, *place = nullptr, *host = nullptr;
    std::uint32_t flags = 0, properties = 0, methods = 0;
    EXPECT_EQ(TextOf(object), kFanText);
    EXPECT_EQ(Class_ClassNameOf(object, &name), RESULT_OK);
    EXPECT_EQ(Class_Flags(object, &flags), RESULT_OK);
    EXPECT_EQ(Class_PropertyCountOf(object, &properties), RESULT_OK);
    EXPECT_EQ(Class_MethodCountOf(object, &methods), RESULT_OK);
    EXPECT_EQ(Class_SuperclassNameOf(object, &superName), RESULT_OK);
    EXPECT_EQ(Class_NamespaceOf(object, &place), RESULT_OK);
    EXPECT_EQ(Class_HostNameOf(object, &host), RESULT_OK);
    EXPECT_EQ(Join(name, flags, properties, methods, superName, place, host),
              object == made ? "Fan 1 4 2 Device root host " : "Fan 1 4 2 Device   ");
    ASSERT_EQ(Class_Superclass(object, &super), RESULT_OK);
    EXPECT_EQ(TextOf(&super), "\nId UINT32  4096 0 64   = 4 \n");
    EXPECT_EQ(Class_Superclass(&super, &super), RESULT_INVALID_SUPERCLASS);
    EXPECT_EQ(Class_SuperclassNameOf(&super, &name), RESULT_INVALID_SUPERCLASS);
  }
  EXPECT_EQ(Class_Clone(&view, &made), RESULT_FAILED);
  EXPECT_EQ(Class_Delete(made), RESULT_OK);
}

// A search looks at name codes first, which a copy has too.
TEST(ClassTest, ACopyIsFoundByNameInAnyCase) {
  ClassObject* made = nullptr;
  ASSERT_EQ(Class_FromDef(&fan_schema::kFan, nullptr, nullptr, &made), RESULT_OK);
  const SchemaDef schema = {&made->def, 1, nullptr, 0};
  EXPECT_EQ(Schema_FindClass(&schema, u"FAN"), made->def);
  std::uint32_t type = 0, flavor = 0, index = 0;
  CimValue value;
  const char16_t* reference = nullptr;
  QualifierSet qualifiers{};
  ParameterSet parameters{};
  ASSERT_EQ(Class_ReadProperty(made, u"NAME", &value, nullptr, &type, &reference, &qualifiers,
                               nullptr, &index),
            RESULT_OK);
  EXPECT_EQ(Join(value.string, type, reference, qualifiers.count, index), "unnamed 13 Ref 2 1 ");
  ASSERT_EQ(QualifierSet_FindQualifier(&qualifiers, u"VERSION", &type, &flavor, &value, &index),
            RESULT_OK);
  EXPECT_EQ(Join(type, flavor, value.uint64, index), "5 1025 4 1 ");
  ASSERT_EQ(Class_FindMethod(made, u"SPIN", &qualifiers, &parameters, &index), RESULT_OK);
  EXPECT_EQ(Join(qualifiers.count, parameters.count, index), "2 2 0 ");
  ASSERT_EQ(
      ParameterSet_FindParameter(&parameters, u"TARGET", &type, &reference, &qualifiers, &index),
      RESULT_OK);
  EXPECT_EQ(Join(type, reference, qualifiers.count, index), "14 Device 2 0 ");
  EXPECT_EQ(ParameterSet_FindParameter(&parameters, u"Return", nullptr, nullptr, nullptr, nullptr),
            RESULT_NOT_FOUND);
  EXPECT_EQ(Class_Delete(made), RESULT_OK);
}

TEST(ClassLifeTest, TheLastOfAllThreadsFreesAClassObject) {
  ClassObject* object = nullptr;
  ASSERT_EQ(Class_FromDef(&fan_schema::kFan, nullptr, nullptr, &object), RESULT_OK);
  const auto use = [object] {
    for (int i = 0; i < 500; ++i) {
      ClassObject* mine = nullptr;
      EXPECT_EQ(Class_Clone(object, &mine), RESULT_OK);
      EXPECT_EQ(mine, object);
      EXPECT_EQ(Class_Delete(mine), RESULT_OK);
    }
    EXPECT_EQ(Class_Delete(object), RESULT_OK);
  };
  EXPECT_EQ(Class_Clone(object, &object), RESULT_OK);
  std::thread other(use);
  use();
  other.join();
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
  instance.End();
  EXPECT_EQ(device->refs.load(), 1u);
  EXPECT_EQ(Class_Delete(device), RESULT_OK);
}

}  // namespace
}  // namespace stewardry
