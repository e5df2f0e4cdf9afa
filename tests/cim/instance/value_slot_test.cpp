// Slots of each type: stored, borrowed, copied, compared, and with a failing heap.
#include "cim/instance/value_slot.h"

#include <cstring>
#include <limits>

#include "tests/cim/instance/fan_schema.h"
#include "tests/cim/instance/owned_instance.h"

namespace stewardry::cim {
namespace {

// A slot of any type with a guard after its last byte.
struct Slot {
  alignas(8) std::uint8_t bytes[kMaxSlotSize + 1];
  Slot() { std::memset(bytes, 0xEE, sizeof bytes); }
  operator ValueSlot*() { return reinterpret_cast<ValueSlot*>(bytes); }
};

// Instances hold a reference on their class object, whose count reveals an instance not deleted.
class ValueSlotTest : public ::testing::Test {
 protected:
  ValueSlotTest() {
    EXPECT_EQ(Class_FromDef(&fan_schema::kDevice, nullptr, nullptr, &class_), RESULT_OK);
    EXPECT_EQ(Instance_Create(instance_.Out(), class_->def, nullptr), RESULT_OK);
    instances_[0] = instances_[1] = instance_;
  }
  ~ValueSlotTest() override {
    instance_.Delete();
    EXPECT_EQ(class_->refs.load(), 1u);
    EXPECT_EQ(Class_Delete(class_), RESULT_OK);
  }
  // Returns a value of the type. Arrays have two elements.
  CimValue ValueOf(std::uint32_t type) {
    if (type == CIM_STRING) return Text(u"text");
    if (type == CIM_STRINGA) return Array(texts_, 2);
    if (type > CIM_STRINGA) return Array(instances_, 2);
    if (CimType_IsArray(type)) return Array(plain_, 2);
    CimValue value = type > CIM_STRING ? Nested(instance_) : CimValue{};
    if (type < CIM_STRING) std::memset(&value, 0x41, kElementSizes[type]);
    return value;
  }
  OwnBatch batch_;
  ClassObject* class_ = nullptr;
  Owned instance_;
  std::uint8_t plain_[72] = {1, 2, 3};
  const char16_t* texts_[2] = {u"one", u""};
  Instance* instances_[2];
};

TEST_F(ValueSlotTest, ASlotKeepsItsValueWithinItsBytes) {
  for (std::uint32_t type = 0; type < kCimTypes; ++type) {
    for (const std::uint32_t flags : {FLAG_ADOPT, FLAG_BORROW}) {
      SCOPED_TRACE(kCimTypeNames[type]);
      const CimValue value = ValueOf(type);
      const bool points = type >= CIM_STRING, borrows = points && flags == FLAG_BORROW;
      const std::size_t size = kSlotSizes[type], flagsAt = kElementSizes[type] + 1u;
      Slot slot, copy;
      EXPECT_EQ(ValueSlot_Set(slot, type, nullptr, 0, &batch_), RESULT_OK);
      EXPECT_FALSE(ValueSlot_IsPresent(slot, type));
      EXPECT_EQ(ValueSlot_Set(slot, type, &value, FLAG_NULL, &batch_), RESULT_OK);
      EXPECT_FALSE(ValueSlot_IsPresent(slot, type));
      EXPECT_EQ(ValueSlot_Assign(slot, type, &value, flags, &batch_), RESULT_OK);
      EXPECT_TRUE(ValueSlot_IsPresent(slot, type));
      EXPECT_EQ(std::memcmp(slot.bytes, &value, kElementSizes[type]) == 0, !points || borrows);
      EXPECT_EQ(slot.bytes[flagsAt], borrows ? SLOT_BORROWED : 0);
      EXPECT_EQ(ValueSlot_Copy(copy, type, slot, &batch_), RESULT_OK);
      EXPECT_EQ(std::memcmp(slot.bytes, copy.bytes, size) == 0, !points);
      EXPECT_EQ(copy.bytes[flagsAt], 0);
      ValueSlot_Clear(copy, type, &batch_);
      EXPECT_EQ(std::string(copy.bytes, copy.bytes + size), std::string(size, '\0'));
      ValueSlot_Destroy(slot, type, &batch_);
      EXPECT_EQ(slot.bytes[size - 1], 0xDD);
      EXPECT_EQ(slot.bytes[size], 0xEE);
      EXPECT_EQ(copy.bytes[size], 0xEE);
    }
  }
  EXPECT_EQ(std::u16string(texts_[0]), u"one");
  EXPECT_EQ(Instance_KeyCount(instance_), 1u);
}

TEST_F(ValueSlotTest, ArraysWithoutElementsOrWithNullElements) {
  const char16_t* holedTexts[] = {u"one", nullptr};
  Instance* holed[] = {instance_, nullptr};
  const struct {
    std::uint32_t type;
    CimValue value;
    Result result;
  } kCases[] = {{CIM_UINT8A, Array<char>(nullptr, 2), RESULT_OK},
                {CIM_UINT8A, Array(plain_, 0), RESULT_OK},
                {CIM_STRINGA, Array<char>(nullptr, 2), RESULT_OK},
                {CIM_STRINGA, Array(texts_, 0), RESULT_FAILED},
                {CIM_STRINGA, Array(holedTexts, 2), RESULT_FAILED},
                {CIM_INSTANCEA, Array<char>(nullptr, 2), RESULT_OK},
                {CIM_REFERENCEA, Array(instances_, 0), RESULT_FAILED},
                {CIM_REFERENCEA, Array(holed, 2), RESULT_FAILED}};
  for (const auto& each : kCases) {
    Slot slot;
    EXPECT_EQ(ValueSlot_Set(slot, each.type, &each.value, 0, &batch_), each.result);
    EXPECT_EQ(ValueSlot_IsPresent(slot, each.type), each.result == RESULT_OK);
    EXPECT_EQ(std::string(slot.bytes, slot.bytes + sizeof(ArrayValue)), std::string(16, '\0'));
  }
}

TEST_F(ValueSlotTest, EqualValuesAreOfAComparableTypeAndTheSameContent) {
  const auto equal = [&](std::uint32_t type, const CimValue& left, const CimValue* right) {
    Slot a, b;
    EXPECT_EQ(ValueSlot_Set(a, type, &left, FLAG_BORROW, &batch_), RESULT_OK);
    EXPECT_EQ(ValueSlot_Set(b, type, right, FLAG_BORROW, &batch_), RESULT_OK);
    return ValueSlot_Equal(a, b, type);
  };
  for (std::uint32_t type = 0; type < kCimTypes; ++type) {
    SCOPED_TRACE(kCimTypeNames[type]);
    const CimValue value = ValueOf(type);
    CimValue other = value;
    other.bytes[0] ^= 1;
    EXPECT_EQ(equal(type, value, &value), type < CIM_INSTANCE);
    EXPECT_FALSE(equal(type, value, nullptr));
    EXPECT_FALSE(type < CIM_STRING && equal(type, value, &other));
  }
  CimValue zero = {}, minusZero = {}, nan = {}, interval = {};
  minusZero.real64 = -0.0;
  nan.real64 = std::numeric_limits<double>::quiet_NaN();
  const CimValue text = Text(u"tex"), longer = Text(u"text"), null = Text(nullptr);
  EXPECT_TRUE(equal(CIM_REAL64, zero, &minusZero));
  EXPECT_FALSE(equal(CIM_REAL64, nan, &nan));
  EXPECT_TRUE(equal(CIM_STRING, null, &null));
  EXPECT_FALSE(equal(CIM_STRING, text, &longer) || equal(CIM_STRING, longer, &text));
  interval.datetime.interval.zero[1] = 5;  // words that are not part of an interval
  EXPECT_TRUE(equal(CIM_DATETIME, interval, &zero));
  interval.datetime.timestampForm = 1;
  EXPECT_FALSE(equal(CIM_DATETIME, interval, &zero));
}

TEST_F(ValueSlotTest, AFailedReplacementLeavesTheOldValue) {
  for (std::uint32_t type = CIM_STRING; type < kCimTypes; ++type) {
    SCOPED_TRACE(kCimTypeNames[type]);
    const CimValue value = ValueOf(type);
    for (HeapSweep sweep; sweep.Next();) {
      OwnBatch batch(0);
      Slot slot;
      ASSERT_EQ(ValueSlot_Set(slot, type, &value, 0, &batch), RESULT_OK);
      const Slot before = slot;
      const Result result =
          sweep.Run([&] { return ValueSlot_Assign(slot, type, &value, 0, &batch); });
      EXPECT_EQ(result, sweep.HasRefused() ? RESULT_FAILED : RESULT_OK);
      EXPECT_EQ(std::memcmp(before.bytes, slot.bytes, sizeof slot.bytes) == 0, sweep.HasRefused());
      ValueSlot_Destroy(slot, type, &batch);
    }
  }
}

}  // namespace
}  // namespace stewardry::cim
