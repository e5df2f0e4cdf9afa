// The packed form byte for byte, and what survives it.
#include "base/instance/packing.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cstring>
#include <deque>
#include <string>
#include <string_view>
#include <vector>

#include "base/heap.h"
#include "base/instance/instance_body.h"
#include "tests/base/instance/packed_bytes.h"

namespace stewardry {
namespace {

using namespace packed_bytes;

// An instance of "Fan" with one property "V", up to the property's type: bytes 0 to 39.
const std::string kBefore =
    "57 99 2B 46  01 00 00 00  04 00 00 00 'Fan' 00 00  00 00 00 00  01 00 00 00 "
    "00 00 00 00  02 00 00 00 'V' 00 00 ";
const std::string kTail = " E3 74 F4 76";

// A nested "Id", up to where its key ends; the instance that holds it has left the position at a
// multiple of 4. Then its other property.
const std::string kIdKey = "57 99 2B 46  01 00 00 00  03 00 00 00 'Id' 00 00 -- --  00 00 00 00 ";
const std::string kKey = "00 10 00 00  02 00 00 00 'K' 00 00  01 00 00 00  01 07 -- -- ";
const std::string kOther = "00 00 00 00  02 00 00 00 'N' 00 00  01 00 00 00  01 08 -- -- ";
const std::string kReference = kIdKey + "01 00 00 00 " + kKey + kTail;
const std::string kWhole = kIdKey + "02 00 00 00 " + kKey + kOther + kTail;

const std::string kWhen =
    "01 00 00 00  E8 07 00 00  02 00 00 00  1D 00 00 00  0C 00 00 00  0D 00 00 00  0E 00 00 00 "
    "0F 00 00 00  C4 FF FF FF ";

struct Row {
  std::uint32_t type;
  CimValue value;
  std::string bytes;  // from the present byte to the tail
};

class PackingTest : public ::testing::Test {
 protected:
  PackingTest() {
    id_.With(u"K", CIM_UINT8, Number(7), FLAG_KEY).With(u"N", CIM_UINT8, Number(8));
    when_.datetime.timestampForm = 1;
    when_.datetime.timestamp = {2024, 2, 29, 12, 13, 14, 15, -60};
  }
  // One row for each type, in their order, and then the forms that one type can have besides.
  std::vector<Row> Rows() {
    const auto real32 = std::bit_cast<std::uint32_t>(1.5F);
    const auto real64 = std::bit_cast<std::uint64_t>(-2.0);
    return {
        {CIM_BOOLEAN, Number(1), "01 01 -- --"},
        {CIM_UINT8, Number(0xFE), "01 FE -- --"},
        {CIM_SINT8, Number(0xFF), "01 FF -- --"},
        {CIM_UINT16, Number(0x1234), "01 -- 34 12"},
        {CIM_SINT16, Number(0xFFFE), "01 -- FE FF"},
        {CIM_UINT32, Number(0x12345678), "01 -- -- -- 78 56 34 12"},
        {CIM_SINT32, Number(0xFFFFFFFD), "01 -- -- -- FD FF FF FF"},
        {CIM_UINT64, Number(0x123456789ABCDEF0), "01 -- -- -- F0 DE BC 9A 78 56 34 12"},
        {CIM_SINT64, Number(~1ULL), "01 -- -- -- FE FF FF FF FF FF FF FF"},
        {CIM_REAL32, Number(real32), "01 -- -- -- 00 00 C0 3F"},
        {CIM_REAL64, Number(real64), "01 -- -- -- 00 00 00 00 00 00 00 C0"},
        {CIM_CHAR16, Number(u'x'), "01 -- 'x'"},
        {CIM_DATETIME, when_, "01 -- -- -- " + kWhen},
        {CIM_STRING, Text(u"on"), "01 -- -- -- 03 00 00 00 'on' 00 00 -- --"},
        {CIM_REFERENCE, Nested(id_), "01 -- -- -- " + kReference},
        {CIM_INSTANCE, Nested(id_), "01 -- -- -- " + kWhole},
        {CIM_BOOLEANA, Array("\1\0\1", 3), "01 -- -- -- 03 00 00 00 01 00 01 --"},
        {CIM_UINT8A, Array("\1\2\3\4\5", 5), "01 -- -- -- 05 00 00 00 01 02 03 04 05 -- -- --"},
        {CIM_SINT8A, Array("\xFF", 1), "01 -- -- -- 01 00 00 00 FF -- -- --"},
        {CIM_UINT16A, Array(u"ab", 2), "01 -- -- -- 02 00 00 00 'ab'"},
        {CIM_SINT16A, Array(u"\xFFFE", 1), "01 -- -- -- 01 00 00 00 FE FF -- --"},
        {CIM_UINT32A, Array(U"ab", 2), "01 -- -- -- 02 00 00 00 61 00 00 00 62 00 00 00"},
        {CIM_SINT32A, Array(U"c", 1), "01 -- -- -- 01 00 00 00 63 00 00 00"},
        {CIM_UINT64A, Array(numbers_, 1),
         "01 -- -- -- 01 00 00 00 -- -- -- -- 09 00 00 00 0A" + std::string(" 00 00 00")},
        {CIM_SINT64A, Array(numbers_, 2),
         "01 -- -- -- 02 00 00 00 -- -- -- -- 09 00 00 00 0A 00"
         " 00 00 0B 00 00 00 0C 00 00 00"},
        {CIM_REAL32A, Array(U"d", 1), "01 -- -- -- 01 00 00 00 64 00 00 00"},
        {CIM_REAL64A, Array(numbers_, 1),
         "01 -- -- -- 01 00 00 00 -- -- -- -- 09 00 00 00 0A" + std::string(" 00 00 00")},
        {CIM_CHAR16A, Array(u"xyz", 3), "01 -- -- -- 03 00 00 00 'xyz' -- --"},
        {CIM_DATETIMEA, Array(&when_, 1), "01 -- -- -- 01 00 00 00 " + kWhen},
        {CIM_STRINGA, Array(texts_, 3),
         "01 -- -- -- 03 00 00 00 -- -- -- -- 00 00 00 00 00 00 00"
         " 00 06 00 00 00 00 00 00 00 08 00 00 00 00 00 00 00 0C 00"
         " 00 00 00 00 00 00 'up' 00 00 00 00 'x' 00 00"},
        {CIM_REFERENCEA, Array(ids_, 2), "01 -- -- -- 02 00 00 00 " + kReference + kReference},
        {CIM_INSTANCEA, Array(ids_, 1), "01 -- -- -- 01 00 00 00 " + kWhole},
        {CIM_STRING, Text(u""), "01 -- -- -- 01 00 00 00 00 00 -- --"},
        {CIM_STRING, Text(nullptr), "00 -- -- --"},
        {CIM_STRINGA, Array(texts_, 0), "01 -- -- -- 00 00 00 00"},
        {CIM_REFERENCEA, Array(ids_, 0), "01 -- -- -- 00 00 00 00"},
        {CIM_UINT64A, Array(numbers_, 0), "01 -- -- -- 00 00 00 00"},
    };
  }
  static std::string Whole(const Row& row) {
    constexpr char kDigits[] = "0123456789ABCDEF";
    const std::string type = {kDigits[row.type / 16], kDigits[row.type % 16]};
    return kBefore + type + " 00 00 00 " + row.bytes + kTail;
  }

  Made id_{u"Id"};
  Instance* ids_[2] = {id_, id_};
  CimValue when_{};
  static constexpr std::uint64_t numbers_[2] = {0xA00000009, 0xC0000000B};
  static constexpr const char16_t* texts_[3] = {u"up", u"", u"x"};
};

TEST_F(PackingTest, AValueIsLaidOutOtherThanItsTypeSays) {
  for (const Row& row : Rows()) {
    Made fan(u"Fan");
    // Borrowed, so that an array without elements keeps its data.
    fan.With(u"V", row.type, row.value, FLAG_BORROW);
    const_cast<PropertyDef*>(Instance_Body(fan)->def->properties[0])->flags = 0;
    Writer packed;
    ASSERT_EQ(Instance_Pack(fan, false, nullptr, nullptr, &packed), RESULT_OK);
    ExpectBytes(packed, Whole(row), kCimTypeNames[row.type]);
  }
}

TEST_F(PackingTest, AValueIsReadOtherThanItWasWritten) {
  for (const Row& row : Rows()) {
    Bytes bytes(Whole(row));
    PackBuf reader = bytes.Reader();
    Instance* fan = nullptr;
    ASSERT_EQ(Instance_Unpack(&fan, &reader, nullptr, true), RESULT_OK) << row.bytes;
    EXPECT_EQ(reader.offset, reader.size);
    Writer again;
    const Result result = Instance_Pack(fan, false, nullptr, nullptr, &again);
    // An array of numbers that came without elements has no data, which isn't packed.
    if (row.type == CIM_UINT64A && row.value.array.size == 0) {
      EXPECT_EQ(result, RESULT_FAILED);
    } else {
      EXPECT_EQ(result, RESULT_OK);
      ExpectBytes(again, Whole(row), kCimTypeNames[row.type]);
    }
    EXPECT_EQ(Instance_Delete(fan), RESULT_OK);
  }
}

TEST_F(PackingTest, ThePropertiesOfAnInstanceAreMixedUp) {
  Made fan(u"Fan");
  EXPECT_EQ(Instance_SetNamespace(fan, u"root"), RESULT_OK);
  fan.With(u"Key", CIM_UINT8, Number(1), FLAG_KEY).With(u"Speed", CIM_UINT16, Number(2));
  const std::string head =
      "57 99 2B 46  01 00 00 00  04 00 00 00 'Fan' 00 00  05 00 00 00 'root' 00 00 -- -- ";
  const std::string key = "00 10 00 00  04 00 00 00 'Key' 00 00  01 00 00 00  01 01 -- -- ";
  const std::string speed = "00 00 00 00  06 00 00 00 'Speed' 00 00  03 00 00 00  01 -- 02 00 ";
  struct Named {
    bool keysOnly;
    std::u16string_view refused;
    std::string bytes;
  };
  const Named cases[] = {
      {false, u"", "02 00 00 00 " + key + speed},
      {false, u"Key", "01 00 00 00 " + speed},
      {false, u"*", "00 00 00 00 "},
      {true, u"", "01 00 00 00 " + key},
      {true, u"Key", "01 00 00 00 " + key},  // the keys stay what they are
  };
  for (const Named& each : cases) {
    Writer packed;
    const PackFilter filter = [](const char16_t* name, void* data) {
      const auto& refused = *static_cast<std::u16string_view*>(data);
      return refused == u"*" || refused == name;
    };
    std::u16string_view refused = each.refused;
    ASSERT_EQ(Instance_Pack(fan, each.keysOnly, filter, &refused, &packed), RESULT_OK);
    ExpectBytes(packed, head + each.bytes + kTail, each.bytes.c_str());
  }
}

TEST_F(PackingTest, AResultComesBackUnderTheWrongName) {
  struct Named {
    std::uint32_t flags;
    const char16_t *name, *packed;
  };
  constexpr std::uint32_t kOut = FLAG_PARAMETER | FLAG_OUT;
  for (const Named& each : {Named{kOut, u"LumoReturn", u"ReturnValue"},
                            {kOut | FLAG_KEY, u"LumoReturn", u"ReturnValue"},
                            {FLAG_PARAMETER, u"LumoReturn", u"LumoReturn"},
                            {FLAG_OUT, u"LumoReturn", u"LumoReturn"},
                            {kOut, u"LumoRetur", u"LumoRetur"},
                            {kOut, u"LumoReturns", u"LumoReturns"},
                            {kOut, u"lumoReturn", u"lumoReturn"}}) {
    Made fan(u"Fan");
    fan.With(each.name, CIM_UINT8, Number(1), each.flags);
    Writer packed;
    ASSERT_EQ(Instance_Pack(fan, false, nullptr, nullptr, &packed), RESULT_OK);
    PackedHead head;
    PackedProperty property{};
    PackBuf reader = {packed.data, packed.size, 0, 0};
    ASSERT_EQ(Packed_ReadHead(&reader, &head), RESULT_OK);
    ASSERT_EQ(Packed_ReadProperty(&reader, &property), RESULT_OK);
    EXPECT_EQ(std::u16string(property.name), each.packed);
  }
}

TEST_F(PackingTest, AValueThatCantBePackedIs) {
  const Instance* holed[2] = {id_, nullptr};
  const char16_t* holedTexts[2] = {u"x", nullptr};
  const CimValue noData = Array<char>(nullptr, 0), noElements = Array<char>(nullptr, 2);
  struct Named {
    std::uint32_t type;
    CimValue value;
    Result result;
  };
  for (const Named& each : {Named{CIM_UINT8A, noData, RESULT_FAILED},
                            {CIM_DATETIMEA, noData, RESULT_FAILED},
                            {CIM_STRINGA, noData, RESULT_OK},
                            {CIM_INSTANCEA, noData, RESULT_OK},
                            {CIM_STRINGA, noElements, RESULT_FAILED},
                            {CIM_REFERENCEA, noElements, RESULT_FAILED},
                            {CIM_STRINGA, Array(holedTexts, 2), RESULT_FAILED},
                            {CIM_REFERENCEA, Array(holed, 2), RESULT_INVALID_PARAMETER},
                            {CIM_INSTANCEA, Array(holed, 2), RESULT_INVALID_PARAMETER},
                            {CIM_INSTANCE, Nested(nullptr), RESULT_FAILED},
                            {CIM_REFERENCE, Nested(nullptr), RESULT_FAILED}}) {
    Made fan(u"Fan");
    fan.With(u"V", each.type, Nested(nullptr));
    auto* slot = reinterpret_cast<std::uint8_t*>(Instance_Body(fan) + 1);
    std::memcpy(slot, &each.value, kElementSizes[each.type]);  // as no operation would set it
    slot[kElementSizes[each.type]] = 1;
    slot[kElementSizes[each.type] + 1] = SLOT_BORROWED;
    Writer packed;
    EXPECT_EQ(Instance_Pack(fan, false, nullptr, nullptr, &packed), each.result)
        << kCimTypeNames[each.type];
  }
  Writer packed;
  EXPECT_EQ(Instance_Pack(nullptr, false, nullptr, nullptr, &packed), RESULT_INVALID_PARAMETER);
  EXPECT_EQ(Instance_Pack(id_, false, nullptr, nullptr, nullptr), RESULT_INVALID_PARAMETER);
}

TEST_F(PackingTest, ManyTextsLoseTheirLengths) {
  for (const std::uint32_t count : {63u, 64u, 65u, 200u}) {
    std::deque<std::u16string> kept;
    std::vector<const char16_t*> texts;
    for (std::uint32_t i = 0; i < count; ++i)
      texts.push_back(kept.emplace_back(i, static_cast<char16_t>(u'0' + i)).c_str());
    Made fan(u"Fan");
    fan.With(u"V", CIM_STRINGA, Array(texts.data(), count));
    Writer packed;
    ASSERT_EQ(Instance_Pack(fan, false, nullptr, nullptr, &packed), RESULT_OK);
    Instance* back = nullptr;
    ASSERT_TRUE(Instance_UnpackBytes(nullptr, packed.data, packed.size, &back));
    CimValue value;
    ASSERT_EQ(Instance_ReadProperty(back, u"V", &value, nullptr, nullptr, nullptr), RESULT_OK);
    ASSERT_EQ(value.array.size, count);
    const auto* table = static_cast<const char16_t**>(value.array.data);
    for (std::uint32_t i = 0; i < count; ++i) EXPECT_EQ(table[i], kept[i]);
    EXPECT_EQ(Instance_Delete(back), RESULT_OK);
  }
}

// Bytes with a text, a list of texts and an instance with a text of its own.
Bytes MixedBytes(std::uint32_t flags) {
  static constexpr const char16_t* kTexts[] = {u"one", u"two"};
  Made inner(u"Inner"), outer(u"Outer");
  inner.With(u"Text", CIM_STRING, Text(u"deep"), flags);
  outer.With(u"Text", CIM_STRING, Text(u"flat"), flags)
      .With(u"Texts", CIM_STRINGA, Array(kTexts, 2), flags)
      .With(u"Inner", CIM_INSTANCE, Nested(inner), flags);
  Instance* inners[] = {inner, inner};
  outer.With(u"Inners", CIM_INSTANCEA, Array(inners, 2), flags);
  Writer packed;
  EXPECT_EQ(Instance_Pack(outer, false, nullptr, nullptr, &packed), RESULT_OK);
  return Bytes(packed);
}

TEST_F(PackingTest, ACopyStillLooksIntoTheBytes) {
  // What was borrowed when it was packed says so in its flags.
  for (const std::uint32_t flags : {std::uint32_t{0}, FLAG_BORROW}) {
    Instance* copy = nullptr;
    {
      Bytes bytes = MixedBytes(flags);
      PackBuf reader = bytes.Reader();
      ASSERT_EQ(Instance_Unpack(&copy, &reader, nullptr, true), RESULT_OK);
      std::fill(bytes.Get().begin(), bytes.Get().end(), std::uint8_t{0xEE});
    }
    CimValue value;
    const char16_t* name = nullptr;
    for (std::uint32_t i = 0; i < 4; ++i) {
      std::uint32_t type = 0, found = 0;
      ASSERT_EQ(Instance_PropertyAt(copy, i, &name, &value, &type, &found), RESULT_OK);
      EXPECT_EQ(found & FLAG_BORROW, 0u);
      const auto* slot = reinterpret_cast<const std::uint8_t*>(Instance_Body(copy) + 1) + 40 * i;
      EXPECT_EQ(slot[kElementSizes[type] + 1], 0) << i;
    }
    const auto* inners = static_cast<Instance**>(value.array.data);
    ASSERT_EQ(Instance_PropertyAt(inners[1], 0, nullptr, &value, nullptr, nullptr), RESULT_OK);
    EXPECT_EQ(std::u16string(value.string), u"deep");
    EXPECT_EQ(Instance_ClearProperty(copy, u"Inners"), RESULT_OK);  // as an owner may
    EXPECT_EQ(Instance_Delete(copy), RESULT_OK);
  }
}

TEST_F(PackingTest, ABorrowedValueIsCopiedOrTakenForOwned) {
  Bytes bytes = MixedBytes(0);
  Batch* batch = Batch_Create(kNoPageLimit);
  ASSERT_NE(batch, nullptr);
  Instance* made = nullptr;
  ASSERT_TRUE(Instance_UnpackBytes(batch, bytes.Get().data(), bytes.Reader().size, &made));
  const auto* first = bytes.Get().data();
  for (std::uint32_t i = 0; i < 4; ++i) {
    CimValue value;
    std::uint32_t type = 0, flags = 0;
    ASSERT_EQ(Instance_PropertyAt(made, i, nullptr, &value, &type, &flags), RESULT_OK);
    EXPECT_NE(flags & FLAG_BORROW, 0u);
    const auto* slot = reinterpret_cast<const std::uint8_t*>(Instance_Body(made) + 1) + 40 * i;
    EXPECT_EQ(slot[kElementSizes[type] + 1], SLOT_BORROWED) << i;
    if (i < 2) {
      const auto* place = reinterpret_cast<const std::uint8_t*>(value.string);
      EXPECT_TRUE(place >= first && place < first + bytes.Get().size());
    }
  }
  Batch_Destroy(batch);
}

TEST_F(PackingTest, BytesAtAnOddAddressAreReadThere) {
  Bytes bytes = MixedBytes(0);
  std::vector<std::uint8_t> odd = {0};
  odd.insert(odd.end(), bytes.Get().begin(), bytes.Get().end());
  Instance* made = nullptr;
  const std::uint32_t size = bytes.Reader().size;
  EXPECT_FALSE(Instance_UnpackBytes(nullptr, odd.data() + 1, size, &made));
  EXPECT_EQ(made, nullptr);
  Batch* batch = Batch_Create(kNoPageLimit);
  EXPECT_TRUE(Instance_UnpackBytes(batch, odd.data() + 1, size, &made));
  Batch_Destroy(batch);
}

TEST_F(PackingTest, PackedBytesAreCopiedOnTheirWayIntoABatch) {
  Batch* batch = Batch_Create(kNoPageLimit);
  void* bytes = nullptr;
  std::uint32_t size = 0;
  ASSERT_EQ(Instance_PackToBatch(id_, nullptr, nullptr, batch, &bytes, &size), RESULT_OK);
  EXPECT_EQ(Batch_PageAt(batch, 0), bytes);
  BatchPageInfo pages[2];
  ASSERT_EQ(Batch_PageList(batch, pages), 2u);
  EXPECT_EQ(pages[0].size, size);
  EXPECT_EQ(size, Parse(kWhole).size());
  Instance* made = nullptr;
  EXPECT_TRUE(Instance_UnpackBytes(batch, bytes, size, &made));
  for (int missing = 0; missing < 4; ++missing) {
    EXPECT_EQ(Instance_PackToBatch(missing == 0 ? nullptr : static_cast<Instance*>(id_), nullptr,
                                   nullptr, missing == 1 ? nullptr : batch,
                                   missing == 2 ? nullptr : &bytes, missing == 3 ? nullptr : &size),
              RESULT_INVALID_PARAMETER);
  }
  Batch_Destroy(batch);
}

TEST(PackBufTest, ABufferGrowsWithoutItsContentOrOutOfProportion) {
  PackBuf buffer;
  ASSERT_EQ(PackBuf_Init(&buffer, 5), RESULT_OK);
  EXPECT_EQ(buffer.capacity, 256u);
  for (std::uint32_t i = 0; i < 65; ++i) ASSERT_EQ(PackBuf_PutU32(&buffer, i), RESULT_OK);
  EXPECT_EQ(buffer.capacity, 512u);
  EXPECT_EQ(buffer.size, 260u);
  EXPECT_EQ(buffer.data[256], 64);
  EXPECT_EQ(PackBuf_Reserve(&buffer, 512), RESULT_OK);
  EXPECT_EQ(buffer.capacity, 512u);
  EXPECT_EQ(PackBuf_Reserve(&buffer, 513), RESULT_OK);
  EXPECT_EQ(buffer.capacity, 1024u);
  EXPECT_EQ(PackBuf_Reserve(&buffer, 2048), RESULT_OK);
  EXPECT_EQ(buffer.capacity, 2048u);
  EXPECT_EQ(PackBuf_Reserve(&buffer, kMaxPackCapacity + 1), RESULT_FAILED);
  EXPECT_EQ(PackBuf_PutRaw(&buffer, "x", 1), RESULT_OK);
  EXPECT_EQ(PackBuf_PutStrLen(&buffer, u"", 0xFFFFFFFF), RESULT_FAILED);
  EXPECT_EQ(PackBuf_Align8(&buffer), RESULT_OK);
  EXPECT_EQ(buffer.size, 264u);
  BatchPage* block = PackBuf_TakeBlock(&buffer);
  EXPECT_EQ(block->size, 2048u);
  EXPECT_EQ(block->next, nullptr);
  EXPECT_EQ(buffer.data, nullptr);
  EXPECT_EQ(PackBuf_TakeBlock(&buffer), nullptr);
  Heap_Free(block);
  EXPECT_EQ(PackBuf_PutU8(&buffer, 1), RESULT_OK);  // into a new block
  PackBuf_Destroy(&buffer);
  PackBuf_Destroy(&buffer);
}

}  // namespace
}  // namespace stewardry
