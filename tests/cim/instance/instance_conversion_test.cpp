// Converts instances of texts to the classes of a schema: values, keys, names, nested instances.
#include <memory>

#include "cim/instance/typed_instance.h"
#include "tests/cim/instance/owned_instance.h"
#include "tests/cim/instance/rack_schema.h"

namespace stewardry::cim {
namespace {

using rack_schema::kDisk;
using rack_schema::kRack;
using std::u16string;

struct Flags {
  bool keysOnly = false, skipKeyCheck = false;
};
constexpr Flags kSkipKeys = {false, true}, kKeysOnly = {true, false};

// Memory for one instance, which is deleted with it.
class Target {
 public:
  Result Convert(const ClassDef* def, const Instance* source, Flags flags = {},
                 Batch* batch = nullptr) {
    const Result result = Instance_ConvertToClass(
        memory_, def, source, flags.keysOnly, flags.skipKeyCheck, true, batch, kTextOctetString);
    if (result == RESULT_OK || batch != nullptr) *made_.Out() = *this;
    return result;
  }
  operator Instance*() { return reinterpret_cast<Instance*>(memory_); }

 private:
  alignas(8) std::uint8_t memory_[512] = {0xEE};
  Owned made_;
};

Given Word(const char16_t* name, const char16_t* text, std::uint32_t flags = 0) {
  return {name, CIM_STRING, Text(text), flags};
}

const char16_t* const kLabels[] = {u"a", u"b"};
const char16_t* const kTemperatures[] = {u"-1", u"0x20"};
const std::vector<Given> kDiskWords = {Word(u"serial", u"S1", FLAG_KEY),
                                       Word(u"Size", u"0x100000000"),
                                       Word(u"Data", u"YWJj"),
                                       Word(u"Made", u"2024-02-29"),
                                       {u"Raw", CIM_REFERENCE, {}},
                                       {u"Labels", CIM_STRINGA, Array(kLabels, 2)},
                                       {u"Temperatures", CIM_STRINGA, Array(kTemperatures, 2)}};

TEST(InstanceConversionTest, TextsBecomeTheValuesOfTheClass) {
  const Owned source(u"Whatever", kDiskWords);
  ASSERT_EQ(Instance_SetNamespace(source, u"root/cimv2"), RESULT_OK);
  ASSERT_EQ(Instance_SetHostName(source, u"host"), RESULT_OK);
  Target disk;
  ASSERT_EQ(disk.Convert(&kDisk, source), RESULT_OK);
  const Instance* made = disk;
  EXPECT_EQ(u16string(made->namespaceName) + made->hostName, u"root/cimv2host");
  EXPECT_EQ(u16string(Read(disk, u"Serial", CIM_STRING).string), u"S1");
  EXPECT_EQ(Read(disk, u"Size", CIM_UINT64).uint64, 0x100000000u);
  EXPECT_EQ(ElementsOf<char>(Read(disk, u"Data", CIM_UINT8A)).back(), 'c');
  EXPECT_TRUE(Read(disk, u"Raw").IsNull());
  EXPECT_EQ(Read(disk, u"Made", CIM_DATETIME).datetime.timestamp.day, 29u);
  EXPECT_EQ(ElementsOf<int>(Read(disk, u"Temperatures", CIM_SINT32A)), (std::vector{-1, 32}));
}

TEST(InstanceConversionTest, KeysMatchOrHaveADefault) {
  const Given key = Word(u"Name", u"r", FLAG_KEY), place = Word(u"Place", u"3", FLAG_KEY);
  const Given plain = Word(u"Place", u"3"), strange = Word(u"Strange", u"x");
  const struct {
    const char* what;
    std::vector<Given> given;
    Flags flags;
    Result result;
    const char16_t* name;  // of the rack; empty for a null
  } kCases[] = {
      {"both keys", {key, place}, {}, RESULT_OK, u"r"},
      {"a default", {place}, {}, RESULT_OK, u"rack0"},
      {"no default", {key}, {}, RESULT_NO_SUCH_PROPERTY, u""},
      {"a default, no check", {plain}, kSkipKeys, RESULT_OK, u""},
      {"no such key", {plain, Word(u"Own", u"x", FLAG_KEY)}, {}, RESULT_NO_SUCH_PROPERTY, u""},
      {"a key of the source alone", {plain, Word(u"On", u"true", FLAG_KEY)}, {}, 0, u"rack0"},
      {"keys only", {plain, key, strange}, kKeysOnly, RESULT_OK, u"r"},
      {"an unknown property", {plain, strange}, {}, RESULT_NO_SUCH_PROPERTY, u""},
      {"an unknown null", {plain, {u"Strange", CIM_STRING, {}}}, {}, RESULT_OK, u"rack0"},
      {"a text that is no number", {Word(u"Place", u"third")}, {}, RESULT_FAILED, u""},
      {"another type", {plain, {u"Weight", CIM_UINT8, {}}}, {}, RESULT_TYPE_MISMATCH, u""},
  };
  for (const auto& each : kCases) {
    SCOPED_TRACE(each.what);
    const Owned source(u"Rack", each.given);
    Target rack;
    ASSERT_EQ(rack.Convert(&kRack, source, each.flags), each.result);
    const Found name = Read(rack, u"Name");  // after a failure there is no instance
    EXPECT_EQ(name.result, each.result == RESULT_OK ? RESULT_OK : RESULT_INVALID_PARAMETER);
    EXPECT_EQ(name.value.string == nullptr ? u"" : u16string(name.value.string), each.name);
  }
}

TEST(InstanceConversionTest, NestedInstancesAndEmptyArraysTakeTheTypeOfTheirProperty) {
  const Owned disk(u"DISK", kDiskWords), keyless(u"Disk", {Word(u"Size", u"1")});
  const Owned stranger(u"Tape");
  Instance *const both[] = {disk, disk}, *const mixed[] = {disk, keyless};
  constexpr Result kNone = RESULT_NO_SUCH_PROPERTY, kMismatch = RESULT_TYPE_MISMATCH;
  const struct {
    const char* what;
    Given given;
    Result result;
    std::uint32_t type = 0;  // of the rack's property
  } kCases[] = {
      {"instance", {u"Disk", CIM_INSTANCE, Nested(disk)}, RESULT_OK, CIM_INSTANCE},
      {"to reference", {u"DiskRef", CIM_INSTANCE, Nested(disk)}, RESULT_OK, CIM_REFERENCE},
      {"reference", {u"Disk", CIM_REFERENCE, Nested(disk)}, RESULT_OK, CIM_INSTANCE},
      {"to array", {u"Disks", CIM_INSTANCE, Nested(disk)}, RESULT_OK, CIM_INSTANCEA},
      {"to references", {u"DiskRefs", CIM_REFERENCE, Nested(disk)}, RESULT_OK, CIM_REFERENCEA},
      {"array", {u"Disks", CIM_INSTANCEA, Array(both, 2)}, RESULT_OK, CIM_INSTANCEA},
      {"array to one", {u"Disk", CIM_INSTANCEA, Array(both, 2)}, kMismatch},
      {"no texts", {u"Labels", CIM_STRINGA, {}}, RESULT_OK, CIM_STRINGA},
      {"borrowed", {u"Labels", CIM_STRINGA, Array(kLabels, 0), FLAG_BORROW}, 0, CIM_STRINGA},
      {"no texts for a number", {u"Weight", CIM_STRINGA, {}}, kMismatch},
      {"no such property", {u"Drive", CIM_INSTANCE, Nested(disk)}, kNone},
      {"no such class", {u"Disk", CIM_INSTANCE, Nested(stranger)}, kNone},
      {"without key", {u"DiskRef", CIM_INSTANCE, Nested(keyless)}, RESULT_OK, CIM_REFERENCE},
      {"reference without key", {u"Disk", CIM_REFERENCE, Nested(keyless)}, kNone},
      {"references without key", {u"DiskRefs", CIM_REFERENCEA, Array(mixed, 2)}, kNone},
  };
  for (const auto& each : kCases) {
    SCOPED_TRACE(each.what);
    const Owned source(u"Rack", {Word(u"Place", u"1", FLAG_KEY), each.given});
    Target rack;
    ASSERT_EQ(rack.Convert(&kRack, source), each.result);
    if (each.result != RESULT_OK) continue;
    const CimValue value = Read(rack, each.given.name, each.type);
    const bool isArray = CimType_IsArray(each.type);
    const auto made = isArray ? ElementsOf<Instance*>(value) : std::vector{value.instance};
    EXPECT_EQ(made.size(), CimType_IsArray(each.given.type) ? each.given.value.array.size : 1);
    for (const Instance* nested : made) {
      EXPECT_EQ(nested->def, &kDisk);
      EXPECT_GE(Read(nested, u"Size", CIM_UINT64).uint64, 1u);
    }
  }
}

TEST(InstanceConversionTest, NestingIsLimited) {
  auto outer = std::make_unique<Owned>(u"Rack");
  for (std::uint32_t depth = 0; depth <= kMaxConvertDepth + 1; ++depth) {
    Target target;
    EXPECT_EQ(target.Convert(&kRack, *outer, kSkipKeys),
              depth > kMaxConvertDepth ? RESULT_FAILED : RESULT_OK);
    const Given inner = {u"Inner", CIM_INSTANCE, Nested(*outer)};
    outer = std::make_unique<Owned>(u"Rack", std::vector<Given>{inner});
  }
}

TEST(InstanceConversionTest, AMethodIsATarget) {
  const ClassDef* fit = MethodDef_AsClass(&rack_schema::kFit);
  const Owned disk(u"Disk", kDiskWords);
  const Owned source(u"Fit", {Word(u"Slot", u"9"),
                              Word(u"Return", u"0x10"),
                              Word(u"Seal", u"YWJj"),
                              {u"Disk", CIM_INSTANCE, Nested(disk)}});
  Target target;
  ASSERT_EQ(target.Convert(fit, source), RESULT_OK);
  EXPECT_EQ(Read(target, u"Slot", CIM_UINT8).uint8, 9);
  EXPECT_EQ(Read(target, u"Return", CIM_UINT32).uint32, 16u);
  EXPECT_EQ(Read(target, u"Seal", CIM_UINT8A).array.size, 7u);  // its qualifier is copied
  EXPECT_EQ(Read(target, u"Disk", CIM_REFERENCE).reference->def, &kDisk);
  EXPECT_EQ(Target().Convert(fit, Owned(u"Fit")), RESULT_NO_SUCH_PROPERTY);  // no defaults
}

TEST(InstanceConversionTest, AFailedConversionReleasesEverything) {
  const Owned disk(u"Disk", kDiskWords);
  Instance* const both[] = {disk, disk};
  const Owned source(u"Rack", {Word(u"Place", u"1", FLAG_KEY),
                               {u"Disk", CIM_INSTANCE, Nested(disk)},
                               {u"DiskRefs", CIM_INSTANCE, Nested(disk)},
                               {u"Disks", CIM_INSTANCEA, Array(both, 2)}});
  ASSERT_EQ(Instance_SetNamespace(source, u16string(600, u'n').c_str()), RESULT_OK);
  ASSERT_EQ(Instance_SetHostName(source, u16string(600, u'h').c_str()), RESULT_OK);
  for (const bool ownBatch : {true, false}) {
    for (HeapSweep sweep; sweep.Next();) {
      OwnBatch batch;
      Target target;
      const Result result = sweep.Run(
          [&] { return target.Convert(&kRack, source, {}, ownBatch ? nullptr : &batch); });
      EXPECT_EQ(result == RESULT_OK, !sweep.HasRefused());
    }
  }
}

}  // namespace
}  // namespace stewardry::cim
