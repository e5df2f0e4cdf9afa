// Bytes that nobody packed, bytes that end too soon, and a heap that is empty at any request.
#include <gtest/gtest.h>

#include <algorithm>
#include <deque>
#include <functional>
#include <string>
#include <vector>

#include "base/heap.h"
#include "base/instance/packing.h"
#include "tests/base/instance/packed_bytes.h"

namespace stewardry {
namespace {

using namespace packed_bytes;

// The head of a "Fan", and a property "V" up to its type.
const std::string kHead = "57 99 2B 46  01 00 00 00  04 00 00 00 'Fan' 00 00  00 00 00 00 ";
const std::string kV = "00 00 00 00  02 00 00 00 'V' 00 00 ";
const std::string kOne = kHead + "01 00 00 00 " + kV;
const std::string kTail = " E3 74 F4 76";

std::string Repeat(std::uint32_t times, const std::string& text) {
  std::string repeated;
  for (std::uint32_t i = 0; i < times; ++i) repeated += text;
  return repeated;
}

std::size_t MemoryOf(const Batch* batch) {
  std::vector<BatchPageInfo> pages(Batch_PageCount(batch));
  (void)Batch_PageList(batch, pages.data());
  std::size_t sum = 0;
  for (const BatchPageInfo& each : pages) sum += each.size;
  return sum;
}

// Into a batch, and into one of its own, copied and borrowed: the result is the same. Memory is in
// proportion to the bytes: an instance of 28 bytes takes nearly two kilobytes.
Result Unpack(const Bytes& original) {
  std::vector<Result> results;
  for (const bool hasBatch : {true, false}) {
    for (const bool copy : {true, false}) {
      Bytes bytes = original;
      PackBuf reader = bytes.Reader();
      Batch batch;
      Batch_Init(&batch, kNoPageLimit);
      Instance* made = nullptr;
      results.push_back(Instance_Unpack(&made, &reader, hasBatch ? &batch : nullptr, copy));
      EXPECT_EQ(made != nullptr, results.back() == RESULT_OK);
      EXPECT_LE(MemoryOf(&batch), 4096 + 64 * bytes.Get().size());
      EXPECT_EQ(made == nullptr ? RESULT_OK : Instance_Delete(made), RESULT_OK);
      Batch_Destroy(&batch);
    }
  }
  EXPECT_EQ(std::count(results.begin(), results.end(), results[0]), 4);
  return results[0];
}

TEST(UnpackingTest, BytesThatNobodyPackedAreBelieved) {
  struct Row {
    const char* what;
    Result result;
    std::string bytes;
  };
  const std::string texts2 = kOne + "1D 00 00 00 01 -- -- -- 02 00 00 00 -- -- -- -- ";
  const Row rows[] = {
      {"the form itself", RESULT_OK, kOne + "01 00 00 00 01 05 -- --" + kTail},
      {"nothing", RESULT_FAILED, ""},
      {"wrong head", RESULT_FAILED, "56 99 2B 46" + kHead.substr(11)},
      {"wrong tail", RESULT_INVALID_PARAMETER, kHead + "00 00 00 00 E3 74 F4 77"},
      {"no class name", RESULT_INVALID_PARAMETER,
       "57 99 2B 46 01 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00" + kTail},
      {"bad class name", RESULT_INVALID_PARAMETER,
       "57 99 2B 46 01 00 00 00 02 00 00 00 '1' 00 00 00 00 00 00 00 00 00 00" + kTail},
      {"class name without end", RESULT_FAILED,
       "57 99 2B 46 01 00 00 00 02 00 00 00 'Fa' 00 00 00 00 00 00 00 00" + kTail},
      {"name space without end", RESULT_FAILED,
       kHead.substr(0, kHead.size() - 12) + "01 00 00 00 'x' -- -- 00 00 00 00" + kTail},
      {"more properties than bytes", RESULT_FAILED, kHead + "FF FF FF FF" + kTail},
      {"no property name", RESULT_INVALID_PARAMETER,
       kHead + "01 00 00 00 00 00 00 00 00 00 00 00 01 00 00 00 00 -- -- --" + kTail},
      {"bad property name", RESULT_INVALID_PARAMETER,
       kHead + "01 00 00 00 00 00 00 00 02 00 00 00 '-' 00 00 01 00 00 00 00 -- -- --" + kTail},
      {"property twice", RESULT_ALREADY_EXISTS,
       kHead + "02 00 00 00 " + kV + "01 00 00 00 00 -- -- -- " +
           "00 00 00 00 02 00 00 00 'v' 00 00 01 00 00 00 00 -- -- --" + kTail},
      {"null of type 32", RESULT_FAILED, kOne + "20 00 00 00 00 -- -- --" + kTail},
      {"value of type FFFFFFFF", RESULT_FAILED, kOne + "FF FF FF FF 01 05 -- --" + kTail},
      {"null that is there", RESULT_OK,
       kHead + "01 00 00 00 00 00 00 20 02 00 00 00 'V' 00 00 01 00 00 00 01 05 -- --" + kTail},
      {"text of 4 GiB", RESULT_FAILED, kOne + "0D 00 00 00 01 -- -- -- 00 00 00 80" + kTail},
      {"text of 8 GiB", RESULT_FAILED, kOne + "0D 00 00 00 01 -- -- -- FF FF FF FF" + kTail},
      {"text without end", RESULT_FAILED,
       kOne + "0D 00 00 00 01 -- -- -- 02 00 00 00 'ab'" + kTail},
      {"text present and empty", RESULT_OK, kOne + "0D 00 00 00 01 -- -- -- 00 00 00 00" + kTail},
      {"bytes, too many", RESULT_FAILED, kOne + "11 00 00 00 01 -- -- -- 05 00 00 00" + kTail},
      {"numbers of 4 GiB", RESULT_FAILED, kOne + "17 00 00 00 01 -- -- -- 00 00 00 20" + kTail},
      {"dates of 4 GiB", RESULT_FAILED, kOne + "1C 00 00 00 01 -- -- -- 8F E3 38 0E" + kTail},
      {"texts' table of 32 GiB", RESULT_FAILED,
       kOne + "1D 00 00 00 01 -- -- -- FF FF FF FF 00 00 00 00" + Repeat(8, " 00 00 00 00")},
      {"texts backwards", RESULT_FAILED,
       texts2 + "00 00 00 00 00 00 00 00 04 00 00 00 00 00 00 00 02 00 00 00 00 00 00 00" +
           "'a' 00 00 'b' 00 00" + kTail},
      {"texts outside", RESULT_FAILED,
       texts2 + "00 00 00 00 00 00 00 00 04 00 00 00 00 00 00 00 0E 00 00 00 00 00 00 00" +
           "'a' 00 00 'b' 00 00" + kTail},
      {"texts far outside", RESULT_FAILED,
       texts2 + "00 00 00 00 00 00 00 00 FC FF FF FF FF FF FF FF 08 00 00 00 00 00 00 00" +
           "'a' 00 00 'b' 00 00" + kTail},
      {"texts at odd places", RESULT_FAILED,
       texts2 + "00 00 00 00 00 00 00 00 03 00 00 00 00 00 00 00 08 00 00 00 00 00 00 00" +
           "00 00 00 00 00 00 00 00" + kTail},
      {"a text of no units", RESULT_FAILED,
       texts2 + "00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00 04 00 00 00 00 00 00 00" +
           "'a' 00 00" + kTail},
      {"a text without end among texts", RESULT_FAILED,
       texts2 + "00 00 00 00 00 00 00 00 02 00 00 00 00 00 00 00 06 00 00 00 00 00 00 00" +
           "'a' 'b' 00 00 -- --" + kTail},
      {"texts counted from elsewhere", RESULT_OK,
       texts2 + "F1 00 00 00 00 00 00 F0 F5 00 00 00 00 00 00 F0 F9 00 00 00 00 00 00 F0" +
           "'a' 00 00 'b' 00 00" + kTail},
      {"instances of 4 GiB", RESULT_FAILED, kOne + "1F 00 00 00 01 -- -- -- 00 00 00 20" + kTail},
      {"an instance more than bytes", RESULT_FAILED,
       kOne + "1E 00 00 00 01 -- -- -- 02 00 00 00" + kHead + "00 00 00 00" + kTail + kTail},
      {"an instance that is none", RESULT_FAILED, kOne + "0F 00 00 00 01 -- -- -- " + kTail},
  };
  for (const Row& row : rows) EXPECT_EQ(Unpack(Bytes(row.bytes)), row.result) << row.what;
  Instance* made = nullptr;
  PackBuf none = {nullptr, 8, 0, 0};
  EXPECT_EQ(Instance_Unpack(&made, &none, nullptr, false), RESULT_INVALID_PARAMETER);
  EXPECT_EQ(Instance_Unpack(&made, nullptr, nullptr, false), RESULT_INVALID_PARAMETER);
  EXPECT_EQ(Instance_Unpack(nullptr, &none, nullptr, false), RESULT_INVALID_PARAMETER);
  EXPECT_FALSE(Instance_UnpackBytes(nullptr, nullptr, 0, &made));
}

TEST(UnpackingTest, InstancesWithoutEndBreakTheStack) {
  const std::string level = kOne + "0F 00 00 00 01 -- -- -- ";
  const std::string leaf = kHead + "00 00 00 00";
  EXPECT_EQ(
      Unpack(Bytes(Repeat(kMaxPackedDepth - 1, level) + leaf + Repeat(kMaxPackedDepth, kTail))),
      RESULT_OK);
  EXPECT_EQ(
      Unpack(Bytes(Repeat(kMaxPackedDepth, level) + leaf + Repeat(kMaxPackedDepth + 1, kTail))),
      RESULT_FAILED);
  EXPECT_EQ(Unpack(Bytes(Repeat(20000, level))), RESULT_FAILED);
}

// Up to 32 properties, and from there on, each road has its own way to find a name that is there.
TEST(UnpackingTest, APropertyTwiceGoesUnseenAmongMany) {
  const auto property = [](std::uint32_t number, char letter) {
    const std::string name = {'\'', letter, static_cast<char>('a' + number / 26),
                              static_cast<char>('a' + number % 26), '\''};
    return "00 00 00 00 04 00 00 00 " + name + " 00 00 01 00 00 00 01 05 -- -- ";
  };
  std::string properties;
  for (std::uint32_t count = 0; count < 70; ++count) {
    const std::string head = kHead + static_cast<char>('0' + (count + 1) / 16 % 10) +
                             "0123456789ABCDEF"[(count + 1) % 16] + " 00 00 00 ";
    properties += property(count, 'P');
    EXPECT_EQ(Unpack(Bytes(head + properties + kTail)), RESULT_OK) << count;
  }
  for (std::uint32_t twice = 0; twice < 70; ++twice) {
    const std::string bytes = kHead + "47 00 00 00 " + properties + property(twice, 'p') + kTail;
    EXPECT_EQ(Unpack(Bytes(bytes)), RESULT_ALREADY_EXISTS) << twice;
  }
}

// An instance with a value of each form of the packed data.
class RichTest : public ::testing::Test {
 protected:
  RichTest() {
    EXPECT_EQ(Instance_SetNamespace(inner_, u"root/inner"), RESULT_OK);
    inner_.With(u"Id", CIM_UINT32, Number(7), FLAG_KEY).With(u"Note", CIM_STRING, Text(u"deep"));
    CimValue when{};
    when.datetime.timestampForm = 1;
    outer_.With(u"Bool", CIM_BOOLEAN, Number(1))
        .With(u"Wide", CIM_UINT64, Number(1))
        .With(u"When", CIM_DATETIME, when)
        .With(u"Text", CIM_STRING, Text(u"flat"))
        .With(u"None", CIM_STRING, Text(nullptr))
        .With(u"Ref", CIM_REFERENCE, Nested(inner_))
        .With(u"Words", CIM_UINT16A, Array(u"words", 5))
        .With(u"Wides", CIM_SINT64A, Array(kWides, 2))
        .With(u"Texts", CIM_STRINGA, Array(kTexts, 3))
        .With(u"Inners", CIM_INSTANCEA, Array(inners_, 2))
        .With(u"Whens", CIM_DATETIMEA, Array(&when, 1));
    Writer packed;
    EXPECT_EQ(Instance_Pack(outer_, false, nullptr, nullptr, &packed), RESULT_OK);
    bytes_.assign(packed.data, packed.data + packed.size);
  }
  Bytes Packed() const { return Bytes(PackBuf{Data(), Size(), 0, 0}); }
  std::uint8_t* Data() const { return const_cast<std::uint8_t*>(bytes_.data()); }
  std::uint32_t Size() const { return static_cast<std::uint32_t>(bytes_.size()); }

  static constexpr std::uint64_t kWides[] = {1, 2};
  static constexpr const char16_t* kTexts[] = {u"one", u"", u"three"};
  Made inner_{u"Inner"}, outer_{u"Outer"};
  Instance* inners_[2] = {inner_, inner_};
  std::vector<std::uint8_t> bytes_;
};

TEST_F(RichTest, BytesThatEndTooSoonAreReadBeyond) {
  EXPECT_EQ(Unpack(Packed()), RESULT_OK);
  for (std::uint32_t size = 0; size < Size(); ++size)
    EXPECT_EQ(Unpack(Bytes(PackBuf{Data(), size, 0, 0})), RESULT_FAILED) << size;
}

TEST_F(RichTest, ABrokenByteLeadsOutside) {
  for (std::uint32_t at = 0; at < Size(); ++at) {
    for (const int change : {0x00, 0xFF, 0x01, 0x80}) {
      Bytes bytes = Packed();
      std::uint8_t& byte = bytes.Get()[at];
      byte = static_cast<std::uint8_t>(change == 0 || change == 0xFF ? change : byte ^ change);
      Instance* made = nullptr;
      if (!Instance_UnpackBytes(nullptr, bytes.Get().data(), Size(), &made)) continue;
      Writer again;  // looks at all that was read
      EXPECT_NE(Instance_Pack(made, false, nullptr, nullptr, &again), RESULT_INVALID_PARAMETER);
      EXPECT_EQ(Instance_Delete(made), RESULT_OK);
    }
  }
}

// One walk over the bytes: the texts it meets.
std::u16string Walk(PackBuf* reader) {
  PackedHead head;
  if (Packed_ReadHead(reader, &head) != RESULT_OK) return u"broken head";
  std::u16string met = head.className;
  for (std::uint32_t i = 0; i < head.propertyCount; ++i) {
    PackedProperty property;
    if (Packed_ReadProperty(reader, &property) != RESULT_OK) return met + u" broken";
    if (!property.present) continue;
    CimValue value{};
    std::uint32_t count = 1;
    if (property.type == CIM_STRINGA) {
      PackedTexts texts;
      if (Packed_ReadTexts(reader, &texts) != RESULT_OK) return met + u" broken texts";
      for (std::uint32_t k = 0; k < texts.count; ++k)
        met += u'|' + std::u16string(texts.At(k), texts.Length(k));
    } else if (CimType_Element(property.type) < CIM_REFERENCE) {
      if (Packed_ReadValue(reader, property.type, &value) != RESULT_OK)
        return met + u" broken value";
      if (property.type == CIM_STRING) met += u'|' + std::u16string(value.string);
    } else {
      EXPECT_EQ(Packed_ReadValue(reader, property.type, &value), RESULT_INVALID_PARAMETER);
      if (CimType_IsArray(property.type)) (void)Packed_ReadInstanceCount(reader, &count);
      for (; count > 0; --count) met += u'(' + Walk(reader) + u')';
    }
  }
  return Packed_ReadTail(reader) == RESULT_OK ? met : met + u" broken tail";
}

TEST_F(RichTest, AWalkChangesWhatItReads) {
  const std::u16string met = u"Outer|flat(Inner)|one||three(Inner|deep)(Inner|deep)";
  for (int walk = 0; walk < 2; ++walk) {
    PackBuf reader = {Data(), Size(), 0, 0};
    EXPECT_TRUE(Walk(&reader) == met);
    EXPECT_EQ(reader.offset, Size());
  }
}

TEST_F(RichTest, AStepThatFailsMovesOn) {
  const char16_t* text = nullptr;
  const char16_t* const* texts = nullptr;
  const std::uint64_t* wides = nullptr;
  const CimDatetime* whens = nullptr;
  PackedHead head;
  PackedProperty property;
  std::uint32_t count = 77;
  const std::function<Result(PackBuf*)> kSteps[] = {
      [&](PackBuf* reader) { return PackBuf_GetStr(reader, &text); },
      [&](PackBuf* reader) { return PackBuf_GetStrA(reader, &texts, &count); },
      [&](PackBuf* reader) { return PackBuf_GetU64A(reader, &wides, &count); },
      [&](PackBuf* reader) { return PackBuf_GetDatetimeA(reader, &whens, &count); },
      [&](PackBuf* reader) { return Packed_ReadHead(reader, &head); },
      [&](PackBuf* reader) { return Packed_ReadProperty(reader, &property); },
      [&](PackBuf* reader) { return Packed_ReadInstanceCount(reader, &count); },
  };
  // A count that is more than follows, also with the filler of an odd position before it.
  for (const auto& step : kSteps) {
    for (const std::uint32_t offset : {4u, 1u, 10u, 0xFFFFFFFFu}) {
      Bytes bytes("57 99 2B 46 09 00 00 00 00 00 00 00");
      PackBuf reader = bytes.Reader();
      reader.offset = offset;
      EXPECT_EQ(step(&reader), RESULT_FAILED);
      EXPECT_EQ(reader.offset, offset);
      EXPECT_EQ(count, 77u);
    }
  }
}

// Runs `operation` with each of its requests refused in turn, then with none.
void RefuseEachRequest(const std::function<Result()>& operation) {
  for (std::uint64_t failAt = 1;; ++failAt) {
    heap_gate::Arm(failAt);
    const Result result = operation();
    const bool refused = heap_gate::Requests() >= failAt;
    heap_gate::Disarm();
    EXPECT_EQ(result, refused ? RESULT_FAILED : RESULT_OK) << failAt;
    if (!refused) return;
  }
}

TEST_F(RichTest, AnEmptyHeapLosesMemoryOrTheBatch) {
  RefuseEachRequest([&] {
    PackBuf buffer;
    Result result = PackBuf_Init(&buffer, 0);
    if (result == RESULT_OK) result = Instance_Pack(outer_, false, nullptr, nullptr, &buffer);
    EXPECT_EQ(PackBuf_PutU8(&buffer, 1), RESULT_OK);  // usable again
    PackBuf_Destroy(&buffer);
    return result;
  });
  RefuseEachRequest([&] {
    Batch batch;
    Batch_Init(&batch, kNoPageLimit);
    void* bytes = nullptr;
    std::uint32_t size = 0;
    const Result result = Instance_PackToBatch(outer_, nullptr, nullptr, &batch, &bytes, &size);
    EXPECT_EQ(Batch_PageCount(&batch), result == RESULT_OK ? 1u : 0u);
    Batch_Destroy(&batch);
    return result;
  });
  for (const bool hasBatch : {true, false}) {
    for (const bool copy : {true, false}) {
      RefuseEachRequest([&] {
        Bytes bytes = Packed();
        PackBuf reader = bytes.Reader();
        Batch batch;
        Batch_Init(&batch, 0);  // so that each allocation is a request
        Instance* made = nullptr;
        const Result result = Instance_Unpack(&made, &reader, hasBatch ? &batch : nullptr, copy);
        EXPECT_EQ(made != nullptr, result == RESULT_OK);
        EXPECT_EQ(made == nullptr ? RESULT_OK : Instance_Delete(made), RESULT_OK);
        Batch_Destroy(&batch);
        return result;
      });
    }
  }
}

}  // namespace
}  // namespace stewardry
