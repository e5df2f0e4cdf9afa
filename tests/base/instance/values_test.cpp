// One slot of each kind: stored, borrowed, copied, compared, and on an empty heap.
#include "base/instance/values.h"

#include <gtest/gtest.h>

#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include "base/heap.h"
#include "base/instance/instance.h"

namespace stewardry {
namespace {

// A slot of any type, with a guard behind its last byte.
struct Slot {
  alignas(8) std::uint8_t bytes[kMaxSlotSize + 1];
  Slot() { std::memset(bytes, 0xEE, sizeof bytes); }
  ValueSlot* At() { return reinterpret_cast<ValueSlot*>(bytes); }
};

class ValuesTest : public ::testing::Test {
 protected:
  ValuesTest() {
    Batch_Init(&batch_, kNoPageLimit);
    EXPECT_EQ(Instance_CreateDynamic(&instance_, u"Fan", FLAG_CLASS, nullptr), RESULT_OK);
    CimValue key = {};
    key.uint32 = 7;
    EXPECT_EQ(Instance_AddProperty(instance_, u"Id", &key, CIM_UINT32, FLAG_KEY), RESULT_OK);
    texts_[0] = u"one";
    texts_[1] = u"";
    instances_[0] = instances_[1] = instance_;
  }
  ~ValuesTest() override {
    Batch_Destroy(&batch_);
    EXPECT_EQ(Instance_Delete(instance_), RESULT_OK);
  }
  // A value of each type; arrays have two elements.
  CimValue ValueOf(std::uint32_t type) {
    CimValue value = {};
    const std::uint32_t element = CimType_Element(type);
    if (CimType_IsArray(type)) {
      value.array.data = element == CIM_STRING  ? static_cast<void*>(texts_)
                         : element > CIM_STRING ? static_cast<void*>(instances_)
                                                : static_cast<void*>(plain_);
      value.array.size = 2;
    } else if (element == CIM_STRING) {
      value.string = u"text";
    } else if (element > CIM_STRING) {
      value.instance = instance_;
    } else {
      std::memset(&value, 0x41, kElementSizes[element]);
    }
    return value;
  }
  Batch batch_;
  Instance* instance_ = nullptr;
  std::uint8_t plain_[72] = {1, 2, 3};
  const char16_t* texts_[2];
  Instance* instances_[2];
};

struct Content {
  CimValue value = {};
  bool present = false;
  std::uint8_t flags = 0;
};
Content Read(Slot& slot, std::uint32_t type) {
  Content content;
  ValueSlot_Read(slot.At(), type, &content.value, &content.present, &content.flags);
  return content;
}

TEST_F(ValuesTest, ASlotOfSomeTypeLosesItsValueOrWritesBeyondItself) {
  for (std::uint32_t type = 0; type < kCimTypes; ++type) {
    SCOPED_TRACE(kCimTypeNames[type]);
    const CimValue value = ValueOf(type);
    Slot slot, copy;
    EXPECT_EQ(ValueSlot_Set(slot.At(), type, nullptr, 0, &batch_), RESULT_OK);
    EXPECT_FALSE(ValueSlot_IsPresent(slot.At(), type));
    EXPECT_EQ(ValueSlot_Set(slot.At(), type, &value, FLAG_NULL, &batch_), RESULT_OK);
    EXPECT_FALSE(Read(slot, type).present);
    EXPECT_EQ(ValueSlot_Assign(slot.At(), type, &value, FLAG_ADOPT, &batch_), RESULT_OK);
    EXPECT_TRUE(ValueSlot_IsPresent(slot.At(), type));
    EXPECT_EQ(Read(slot, type).flags, 0);
    const bool points = type >= CIM_STRING;
    EXPECT_EQ(std::memcmp(slot.bytes, &value, kElementSizes[type]) != 0, points);
    EXPECT_EQ(ValueSlot_Copy(copy.At(), type, slot.At(), &batch_), RESULT_OK);
    EXPECT_EQ(std::memcmp(slot.bytes, copy.bytes, kSlotSizes[type]) != 0, points);
    ValueSlot_Clear(copy.At(), type, &batch_);
    EXPECT_EQ(std::vector<std::uint8_t>(copy.bytes, copy.bytes + kSlotSizes[type]),
              std::vector<std::uint8_t>(kSlotSizes[type], 0));
    ValueSlot_Destroy(slot.At(), type, &batch_);
    EXPECT_EQ(slot.bytes[kSlotSizes[type] - 1], 0xDD);
    EXPECT_EQ(slot.bytes[kSlotSizes[type]], 0xEE);
    EXPECT_EQ(copy.bytes[kSlotSizes[type]], 0xEE);
  }
  Slot slot;
  const CimValue value = {};
  EXPECT_EQ(ValueSlot_Set(slot.At(), 32, &value, 0, &batch_), RESULT_OK);
  EXPECT_EQ(slot.bytes[0], 0xEE);
}

TEST_F(ValuesTest, BorrowedDataAreReleasedOrStayBorrowedInACopy) {
  for (std::uint32_t type = CIM_STRING; type < kCimTypes; ++type) {
    SCOPED_TRACE(kCimTypeNames[type]);
    const CimValue value = ValueOf(type);
    Slot slot, copy;
    EXPECT_EQ(ValueSlot_Set(slot.At(), type, &value, FLAG_BORROW, &batch_), RESULT_OK);
    EXPECT_EQ(std::memcmp(slot.bytes, &value, kElementSizes[type]), 0);
    EXPECT_EQ(Read(slot, type).flags, SLOT_BORROWED);
    EXPECT_EQ(ValueSlot_Copy(copy.At(), type, slot.At(), &batch_), RESULT_OK);
    EXPECT_EQ(Read(copy, type).flags, 0);
    EXPECT_NE(std::memcmp(copy.bytes, &value, 8), 0);
    ValueSlot_Destroy(slot.At(), type, &batch_);
    ValueSlot_Destroy(copy.At(), type, &batch_);
  }
  EXPECT_EQ(std::u16string(texts_[0]), u"one");
  EXPECT_EQ(Instance_KeyCount(instance_), 1u);
}

TEST_F(ValuesTest, AnArrayWithoutElementsIsTakenForAnother) {
  struct Case {
    std::uint32_t type;
    bool hasData;
    Result result;
  };
  for (const Case& each :
       {Case{CIM_UINT8A, false, RESULT_OK}, Case{CIM_UINT8A, true, RESULT_OK},
        Case{CIM_STRINGA, false, RESULT_OK}, Case{CIM_STRINGA, true, RESULT_FAILED},
        Case{CIM_INSTANCEA, false, RESULT_OK}, Case{CIM_REFERENCEA, true, RESULT_FAILED}}) {
    SCOPED_TRACE(kCimTypeNames[each.type] + std::string(each.hasData ? " with data" : ""));
    CimValue value = ValueOf(each.type);
    if (!each.hasData) value.array.data = nullptr;
    if (each.hasData) value.array.size = 0;
    Slot slot;
    EXPECT_EQ(ValueSlot_Set(slot.At(), each.type, &value, 0, &batch_), each.result);
    const Content content = Read(slot, each.type);
    EXPECT_EQ(content.present, each.result == RESULT_OK);
    EXPECT_EQ(content.value.array.data, nullptr);
    EXPECT_EQ(content.value.array.size, 0u);
  }
  texts_[1] = nullptr;
  instances_[1] = nullptr;
  for (const std::uint32_t type : {CIM_STRINGA, CIM_REFERENCEA, CIM_INSTANCEA}) {
    const CimValue value = ValueOf(type);
    Slot slot;
    EXPECT_EQ(ValueSlot_Set(slot.At(), type, &value, 0, &batch_), RESULT_FAILED);
  }
}

TEST_F(ValuesTest, EqualIsFoundWhereItIsnt) {
  const auto equal = [&](std::uint32_t type, const CimValue* left, const CimValue* right) {
    Slot a, b;
    EXPECT_EQ(ValueSlot_Set(a.At(), type, left, FLAG_BORROW, &batch_), RESULT_OK);
    EXPECT_EQ(ValueSlot_Set(b.At(), type, right, FLAG_BORROW, &batch_), RESULT_OK);
    return ValueSlot_Equal(a.At(), b.At(), type);
  };
  for (std::uint32_t type = 0; type < kCimTypes; ++type) {
    SCOPED_TRACE(kCimTypeNames[type]);
    const CimValue value = ValueOf(type);
    CimValue other = value;
    other.bytes[0] ^= 1;
    const bool comparable = type < CIM_INSTANCE;
    EXPECT_EQ(equal(type, nullptr, nullptr), comparable);
    EXPECT_EQ(equal(type, &value, &value), comparable);
    EXPECT_FALSE(equal(type, &value, nullptr));
    EXPECT_FALSE(type < CIM_STRING && equal(type, &value, &other));
  }
  CimValue zero = {}, minusZero = {}, nan = {};
  EXPECT_FALSE(equal(CIM_UINT32, &zero, nullptr));
  minusZero.real64 = -0.0;
  nan.real64 = std::numeric_limits<double>::quiet_NaN();
  EXPECT_TRUE(equal(CIM_REAL64, &zero, &minusZero));
  EXPECT_FALSE(equal(CIM_REAL64, &nan, &nan));
  CimValue text = {}, longer = {};
  text.string = u"tex";
  longer.string = u"text";
  EXPECT_FALSE(equal(CIM_STRING, &text, &longer));
  EXPECT_FALSE(equal(CIM_STRING, &longer, &text));
  CimValue interval = {}, same = {};
  interval.datetime.interval.zero[1] = 5;  // words that aren't part of an interval
  EXPECT_TRUE(equal(CIM_DATETIME, &interval, &same));
  same.datetime.timestampForm = 1;
  EXPECT_FALSE(equal(CIM_DATETIME, &interval, &same));
}

TEST_F(ValuesTest, AnElementIsStoredInAnothersPlace) {
  for (std::uint32_t type = 0; type < kCimTypes; ++type) {
    SCOPED_TRACE(kCimTypeNames[type]);
    alignas(8) std::uint8_t data[3 * 36];
    std::memset(data, 0xEE, sizeof data);
    const CimValue value = ValueOf(type);
    const Result result = ArrayValue_StoreAt(&batch_, type, data, 1, &value);
    EXPECT_EQ(result, CimType_IsArray(type) ? RESULT_INVALID_PARAMETER : RESULT_OK);
    if (result != RESULT_OK) continue;
    const std::size_t size = kElementSizes[type];
    EXPECT_EQ(data[size - 1], 0xEE);
    EXPECT_NE(data[size], 0xEE);
    EXPECT_EQ(data[2 * size], 0xEE);
    if (type >= CIM_REFERENCE) {
      Instance* stored;
      std::memcpy(&stored, data + size, sizeof stored);
      EXPECT_EQ(Instance_Delete(stored), RESULT_OK);
    }
    CimValue raw;
    CimValue_FromRaw(type, data + size, &raw);
    EXPECT_TRUE(type >= CIM_STRING || std::memcmp(&raw, &value, sizeof raw) == 0);
    const CimValue empty = {};
    EXPECT_EQ(ArrayValue_StoreAt(&batch_, type, data, 0, &empty), RESULT_OK);
    EXPECT_EQ(data[0], 0);
  }
  CimValue raw = ValueOf(CIM_UINT64);
  CimValue_FromRaw(32, &raw, &raw);
  EXPECT_EQ(raw.uint64, 0u);
}

TEST_F(ValuesTest, AFailedReplacementTakesTheOldValueAlong) {
  for (std::uint32_t type = CIM_STRING; type < kCimTypes; ++type) {
    SCOPED_TRACE(kCimTypeNames[type]);
    const CimValue value = ValueOf(type);
    Slot slot;
    ASSERT_EQ(ValueSlot_Set(slot.At(), type, &value, 0, &batch_), RESULT_OK);
    const Slot before = slot;
    for (std::uint64_t at = 1;; ++at) {
      Batch empty;
      Batch_Init(&empty, 0);  // each request is one of the heap
      heap_gate::Arm(at);
      const Result result = ValueSlot_Assign(slot.At(), type, &value, 0, &empty);
      heap_gate::Disarm();
      if (result == RESULT_OK) {
        EXPECT_GT(at, 1u);
        ValueSlot_Destroy(slot.At(), type, &empty);
        Batch_Destroy(&empty);
        break;
      }
      EXPECT_EQ(result, RESULT_FAILED);
      EXPECT_EQ(std::memcmp(before.bytes, slot.bytes, sizeof slot.bytes), 0);
      Batch_Destroy(&empty);
    }
  }
}

}  // namespace
}  // namespace stewardry
