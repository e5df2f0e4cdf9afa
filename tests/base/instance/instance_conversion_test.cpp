// Instances of all texts onto the classes of a schema: values, keys, names, nested instances.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <memory>
#include <string>

#include "base/heap.h"
#include "base/instance/typed_instance.h"
#include "tests/base/instance/dynamic_instance.h"
#include "tests/base/instance/rack_schema.h"

namespace stewardry {
namespace {

using rack_schema::kDisk;
using rack_schema::kRack;

struct Flags {
  bool keysOnly = false, skipKeyCheck = false, copy = true;
};

// Memory for one instance, converted into on demand and deleted at the end.
class Target {
 public:
  explicit Target(Batch* batch = nullptr) : batch_(batch) { std::memset(memory_, 0xEE, kSize); }
  Target(const Target&) = delete;
  Target& operator=(const Target&) = delete;
  ~Target() {
    if (made_) {
      EXPECT_EQ(Instance_Dismantle(Get()), RESULT_OK);
    }
  }

  Result Convert(const ClassDef* def, const Instance* source, Flags flags = {}) {
    const Result result =
        Instance_ConvertToClass(memory_, def, source, flags.keysOnly, flags.skipKeyCheck,
                                flags.copy, batch_, kTextOctetString);
    made_ = result == RESULT_OK || batch_ != nullptr;
    return result;
  }
  Instance* Get() { return reinterpret_cast<Instance*>(memory_); }

 private:
  static constexpr std::size_t kSize = 512;
  alignas(8) std::uint8_t memory_[kSize];
  Batch* batch_;
  bool made_ = false;
};

// A source that is right for kDisk in every property.
void FillDisk(Dynamic* disk) {
  static const char16_t* const kLabels[] = {u"a", u"b"};
  static const char16_t* const kTemperatures[] = {u"-1", u"0x20"};
  disk->Text(u"serial", u"S1", FLAG_KEY).Text(u"Size", u"0x100000000").Text(u"Data", u"YWJj");
  disk->Text(u"Made", u"2024-02-29").Null(u"Raw", CIM_REFERENCE);
  disk->Array(u"Labels", CIM_STRINGA, kLabels, 2);
  disk->Array(u"Temperatures", CIM_STRINGA, kTemperatures, 2);
}

TEST(InstanceConversionTest, APropertyArrivesWithAnotherValueOrType) {
  Dynamic source(u"Whatever");
  FillDisk(&source);
  ASSERT_EQ(Instance_SetNamespace(source.Get(), u"root/cimv2"), RESULT_OK);
  ASSERT_EQ(Instance_SetHostName(source.Get(), u"host"), RESULT_OK);
  Target target;
  ASSERT_EQ(target.Convert(&kDisk, source.Get()), RESULT_OK);
  Instance* disk = target.Get();
  EXPECT_EQ(disk->def, &kDisk);
  EXPECT_EQ(disk->ownsBatch, 1);
  EXPECT_TRUE(disk->namespaceName == std::u16string(u"root/cimv2"));
  EXPECT_TRUE(disk->hostName == std::u16string(u"host"));
  EXPECT_TRUE(Read(disk, u"Serial", CIM_STRING).string == std::u16string(u"S1"));
  EXPECT_EQ(Read(disk, u"Size", CIM_UINT64).uint64, 0x100000000u);
  EXPECT_EQ(ReadBytes(disk, u"Data"), (Bytes{0, 0, 0, 7, 'a', 'b', 'c'}));
  EXPECT_TRUE(IsNull(disk, u"Raw"));
  EXPECT_EQ(Read(disk, u"Made", CIM_DATETIME).datetime.timestamp.day, 29u);
  EXPECT_EQ(Read(disk, u"Labels", CIM_STRINGA).array.size, 2u);
  const ArrayValue temperatures = Read(disk, u"Temperatures", CIM_SINT32A).array;
  EXPECT_EQ(static_cast<std::int32_t*>(temperatures.data)[0], -1);
  EXPECT_EQ(static_cast<std::int32_t*>(temperatures.data)[1], 32);
}

TEST(InstanceConversionTest, ABorrowedArrayIsCopiedOrACopyBorrowed) {
  const std::int32_t kValues[] = {5, 6};
  Dynamic source(u"Disk");
  source.Array(u"Temperatures", CIM_SINT32A, kValues, 2);
  const void* data = Read(source.Get(), u"Temperatures", CIM_SINT32A).array.data;
  for (const bool copy : {false, true}) {
    Target target;
    ASSERT_EQ(target.Convert(&kDisk, source.Get(), {false, true, copy}), RESULT_OK);
    const ArrayValue made = Read(target.Get(), u"Temperatures", CIM_SINT32A).array;
    EXPECT_EQ(made.data == data, !copy);
    EXPECT_EQ(static_cast<std::int32_t*>(made.data)[1], 6);
  }
}

// `name` is empty for a null. After a failure nothing is there.
void ExpectNameOfRack(Instance* rack, Result result, const char16_t* name) {
  if (result != RESULT_OK) {
    EXPECT_EQ(Instance_Delete(rack), RESULT_INVALID_PARAMETER);
  } else if (name == nullptr) {
    EXPECT_TRUE(IsNull(rack, u"Name"));
  } else {
    EXPECT_TRUE(Read(rack, u"Name", CIM_STRING).string == std::u16string(name));
  }
}

TEST(InstanceConversionTest, KeysThatDoNotMatchPassOrDefaultsAreNotTaken) {
  const struct {
    const char* what;
    std::function<void(Dynamic*)> build;
    Flags flags;
    Result result;
    const char16_t* name;  // of the rack; empty for a null
  } kCases[] = {
      {"both",
       [](Dynamic* d) { d->Text(u"Name", u"r", FLAG_KEY).Text(u"Place", u"3", FLAG_KEY); },
       {},
       RESULT_OK,
       u"r"},
      {"default", [](Dynamic* d) { d->Text(u"Place", u"3", FLAG_KEY); }, {}, RESULT_OK, u"rack0"},
      {"no default",
       [](Dynamic* d) { d->Text(u"Name", u"r", FLAG_KEY); },
       {},
       RESULT_NO_SUCH_PROPERTY,
       nullptr},
      {"no default, skipped",
       [](Dynamic* d) { d->Text(u"Name", u"r", FLAG_KEY); },
       {false, true, true},
       RESULT_OK,
       u"r"},
      {"default, skipped",
       [](Dynamic* d) { d->Text(u"Place", u"3"); },
       {false, true, true},
       RESULT_OK,
       nullptr},
      {"source key that is none of the target's",
       [](Dynamic* d) { d->Text(u"Place", u"3").Text(u"Own", u"x", FLAG_KEY); },
       {},
       RESULT_NO_SUCH_PROPERTY,
       nullptr},
      {"key in the source, plain in the target",
       [](Dynamic* d) { d->Text(u"Place", u"3").Text(u"On", u"true", FLAG_KEY); },
       {},
       RESULT_OK,
       u"rack0"},
      {"keys only",
       [](Dynamic* d) {
         d->Text(u"Place", u"3").Text(u"Name", u"r", FLAG_KEY).Text(u"Strange", u"x");
       },
       {true, false, true},
       RESULT_OK,
       u"r"},
      {"all, one strange",
       [](Dynamic* d) { d->Text(u"Place", u"3").Text(u"Strange", u"x"); },
       {},
       RESULT_NO_SUCH_PROPERTY,
       nullptr},
      {"a null is not looked at",
       [](Dynamic* d) { d->Text(u"Place", u"3").Null(u"Strange", CIM_UINT8); },
       {},
       RESULT_OK,
       u"rack0"},
      {"a text that is no value",
       [](Dynamic* d) { d->Text(u"Place", u"third"); },
       {},
       RESULT_FAILED,
       nullptr},
      {"another type",
       [](Dynamic* d) { d->Text(u"Place", u"3").Array(u"Weight", CIM_UINT8A, "x", 1); },
       {},
       RESULT_TYPE_MISMATCH,
       nullptr},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.what);
    Dynamic source(u"Rack");
    c.build(&source);
    Target target;
    EXPECT_EQ(target.Convert(&kRack, source.Get(), c.flags), c.result);
    ExpectNameOfRack(target.Get(), c.result, c.name);
  }
}

TEST(InstanceConversionTest, ANestedInstanceLosesItsPlaceOrItsType) {
  Dynamic disk(u"DISK"), keyless(u"Disk"), stranger(u"Tape"), second(u"SecondKind");
  FillDisk(&disk);
  keyless.Text(u"Size", u"1");
  Instance* const both[] = {disk.Get(), disk.Get()};
  Instance* const bad[] = {disk.Get(), stranger.Get()};
  Instance* const mixed[] = {disk.Get(), keyless.Get()};
  const struct {
    const char* what;
    std::function<void(Dynamic*)> build;
    Result result;
    const char16_t* property;
    std::uint32_t type;
    std::uint32_t count;  // 0 for a single instance
  } kCases[] = {
      {"instance", [&](Dynamic* d) { d->Nested(u"Disk", disk); }, RESULT_OK, u"Disk", CIM_INSTANCE,
       0},
      {"instance to reference", [&](Dynamic* d) { d->Nested(u"DiskRef", disk); }, RESULT_OK,
       u"DiskRef", CIM_REFERENCE, 0},
      {"reference to instance", [&](Dynamic* d) { d->Nested(u"Disk", disk, CIM_REFERENCE); },
       RESULT_OK, u"Disk", CIM_INSTANCE, 0},
      {"instance to array", [&](Dynamic* d) { d->Nested(u"Disks", disk); }, RESULT_OK, u"Disks",
       CIM_INSTANCEA, 1},
      {"reference to array", [&](Dynamic* d) { d->Nested(u"DiskRefs", disk, CIM_REFERENCE); },
       RESULT_OK, u"DiskRefs", CIM_REFERENCEA, 1},
      {"array", [&](Dynamic* d) { d->Array(u"Disks", CIM_INSTANCEA, both, 2); }, RESULT_OK,
       u"Disks", CIM_INSTANCEA, 2},
      {"array to references", [&](Dynamic* d) { d->Array(u"DiskRefs", CIM_INSTANCEA, both, 2); },
       RESULT_OK, u"DiskRefs", CIM_REFERENCEA, 2},
      {"references", [&](Dynamic* d) { d->Array(u"DiskRefs", CIM_REFERENCEA, both, 2); }, RESULT_OK,
       u"DiskRefs", CIM_REFERENCEA, 2},
      {"empty array", [&](Dynamic* d) { d->Array(u"DiskRefs", CIM_INSTANCEA, nullptr, 0); },
       RESULT_OK, u"DiskRefs", CIM_REFERENCEA, 0xFFFFFFFF},
      {"references to instances", [&](Dynamic* d) { d->Array(u"Disks", CIM_REFERENCEA, both, 2); },
       RESULT_TYPE_MISMATCH, nullptr, 0, 0},
      {"array to one", [&](Dynamic* d) { d->Array(u"Disk", CIM_INSTANCEA, both, 2); },
       RESULT_TYPE_MISMATCH, nullptr, 0, 0},
      {"instance to text", [&](Dynamic* d) { d->Nested(u"On", disk); }, RESULT_TYPE_MISMATCH,
       nullptr, 0, 0},
      {"no such property", [&](Dynamic* d) { d->Nested(u"Drive", disk); }, RESULT_NO_SUCH_PROPERTY,
       nullptr, 0, 0},
      {"no such class", [&](Dynamic* d) { d->Nested(u"Disk", stranger); }, RESULT_NO_SUCH_PROPERTY,
       nullptr, 0, 0},
      {"no such class in an array", [&](Dynamic* d) { d->Array(u"Disks", CIM_INSTANCEA, bad, 2); },
       RESULT_NO_SUCH_PROPERTY, nullptr, 0, 0},
      {"class of another kind", [&](Dynamic* d) { d->Nested(u"Disk", second); }, RESULT_FAILED,
       nullptr, 0, 0},
      {"instance without its key", [&](Dynamic* d) { d->Nested(u"DiskRef", keyless); }, RESULT_OK,
       u"DiskRef", CIM_REFERENCE, 0},
      {"reference without its key", [&](Dynamic* d) { d->Nested(u"Disk", keyless, CIM_REFERENCE); },
       RESULT_NO_SUCH_PROPERTY, nullptr, 0, 0},
      {"instances without a key", [&](Dynamic* d) { d->Array(u"Disks", CIM_INSTANCEA, mixed, 2); },
       RESULT_OK, u"Disks", CIM_INSTANCEA, 2},
      {"references without a key",
       [&](Dynamic* d) { d->Array(u"DiskRefs", CIM_REFERENCEA, mixed, 2); },
       RESULT_NO_SUCH_PROPERTY, nullptr, 0, 0},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.what);
    Dynamic source(u"Rack");
    source.Text(u"Place", u"1", FLAG_KEY);
    c.build(&source);
    Target target;
    ASSERT_EQ(target.Convert(&kRack, source.Get()), c.result);
    if (c.result != RESULT_OK) continue;
    const CimValue value = Read(target.Get(), c.property, c.type);
    if (c.count == 0xFFFFFFFF) {
      EXPECT_EQ(value.array.size, 0u);
      continue;
    }
    if (c.count != 0) {
      ASSERT_EQ(value.array.size, c.count);
    }
    const Instance* first =
        c.count == 0 ? value.instance : static_cast<Instance* const*>(value.array.data)[0];
    EXPECT_EQ(first->def, &kDisk);
    EXPECT_EQ(first->batch, target.Get()->batch);
    EXPECT_GE(Read(first, u"Size", CIM_UINT64).uint64, 1u);
  }
}

TEST(InstanceConversionTest, NestingWithoutEndIsFollowed) {
  for (const std::uint32_t depth : {kMaxConvertDepth, kMaxConvertDepth + 1}) {
    auto outer = std::make_unique<Dynamic>(u"Rack");
    for (std::uint32_t i = 0; i < depth; ++i) {
      auto around = std::make_unique<Dynamic>(u"Rack");
      around->Nested(u"Inner", *outer);
      outer = std::move(around);
    }
    Target target;
    EXPECT_EQ(target.Convert(&kRack, outer->Get(), {false, true, true}),
              depth > kMaxConvertDepth ? RESULT_FAILED : RESULT_OK);
  }
}

TEST(InstanceConversionTest, AMethodsParametersAreNotFilled) {
  const ClassDef* fit = MethodDef_AsClass(&rack_schema::kFit);
  Dynamic disk(u"Disk"), source(u"Fit"), slotless(u"Fit");
  FillDisk(&disk);
  source.Text(u"Slot", u"9").Nested(u"Disk", disk).Text(u"Return", u"0x10");
  Target target;
  ASSERT_EQ(target.Convert(fit, source.Get()), RESULT_OK);
  EXPECT_EQ(Read(target.Get(), u"Slot", CIM_UINT8).uint8, 9);
  EXPECT_EQ(Read(target.Get(), u"Return", CIM_UINT32).uint32, 16u);
  EXPECT_EQ(Read(target.Get(), u"Disk", CIM_REFERENCE).reference->def, &kDisk);
  Target other;
  EXPECT_EQ(other.Convert(fit, slotless.Get()), RESULT_NO_SUCH_PROPERTY);  // no default
}

TEST(InstanceConversionTest, AMissingArgumentOrAStrangeTargetPasses) {
  Dynamic source(u"Disk");
  alignas(8) std::uint8_t memory[512];
  const auto convert = [](void* at, const ClassDef* target, const Instance* from) {
    return Instance_ConvertToClass(at, target, from, false, true, true, nullptr, 0);
  };
  EXPECT_EQ(convert(nullptr, &kDisk, source.Get()), RESULT_INVALID_PARAMETER);
  EXPECT_EQ(convert(memory, nullptr, source.Get()), RESULT_INVALID_PARAMETER);
  EXPECT_EQ(convert(memory, &kDisk, nullptr), RESULT_INVALID_PARAMETER);
  EXPECT_EQ(convert(memory, &rack_schema::kSecondKind, source.Get()), RESULT_FAILED);
  ClassDef homeless = kRack;
  homeless.schema = nullptr;
  Dynamic outer(u"Rack");
  outer.Nested(u"Disk", source);
  EXPECT_EQ(convert(memory, &homeless, outer.Get()), RESULT_NO_SUCH_PROPERTY);
}

TEST(InstanceConversionTest, AFailingHeapLeaksOrIsReportedAsSuccess) {
  Dynamic disk(u"Disk"), source(u"Rack");
  FillDisk(&disk);
  Instance* const both[] = {disk.Get(), disk.Get()};
  source.Text(u"Place", u"1", FLAG_KEY).Nested(u"Disk", disk).Nested(u"DiskRefs", disk);
  source.Array(u"Disks", CIM_INSTANCEA, both, 2);
  ASSERT_EQ(Instance_SetNamespace(source.Get(), std::u16string(600, u'n').c_str()), RESULT_OK);
  ASSERT_EQ(Instance_SetHostName(source.Get(), std::u16string(600, u'h').c_str()), RESULT_OK);
  for (const bool ownBatch : {true, false}) {
    for (std::uint64_t failAt = 1;; ++failAt) {
      Batch batch;
      Batch_Init(&batch, kNoPageLimit);
      Result result = RESULT_OK;
      bool reached = false;
      {
        Target target(ownBatch ? nullptr : &batch);
        heap_gate::Arm(failAt);
        result = target.Convert(&kRack, source.Get());
        reached = heap_gate::Requests() >= failAt;
        heap_gate::Disarm();
      }
      Batch_Destroy(&batch);
      EXPECT_EQ(result == RESULT_OK, !reached) << failAt;
      if (!reached) break;
    }
  }
}

}  // namespace
}  // namespace stewardry
