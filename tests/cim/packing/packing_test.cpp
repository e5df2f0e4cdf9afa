// The packed form byte by byte, and instances packed and unpacked.
#include "cim/packing/packing.h"

#include <string_view>

#include "cim/instance/instance_body.h"
#include "tests/cim/packing/packed_bytes.h"

namespace stewardry::cim {
namespace {

using namespace packed_bytes;

// A nested "Id" at a multiple of 4: up to its properties, its key, and its other property.
const std::string kIdKey = "57 99 2B 46  01 00 00 00  03 00 00 00 'Id' 00 00 -- --  00 00 00 00 ";
const std::string kKey = "00 10 00 00  02 00 00 00 'K' 00 00  01 00 00 00  01 07 -- -- ";
const std::string kOther = "00 00 00 00  02 00 00 00 'N' 00 00  01 00 00 00  01 08 -- -- ";
const std::string kReference = kIdKey + "01 00 00 00 " + kKey + kTail;
const std::string kWhole = kIdKey + "02 00 00 00 " + kKey + kOther + kTail;

const std::string kWhen =
    "01 00 00 00  E8 07 00 00  02 00 00 00  1D 00 00 00  0C 00 00 00  0D 00 00 00  0E 00 00 00 "
    "0F 00 00 00  C4 FF FF FF ";

struct Row {
  std::vector<std::uint32_t> types;
  CimValue value;
  std::string bytes;  // from the present byte to the tail
};

class PackingTest : public ::testing::Test {
 protected:
  const Owned id_{u"Id", {{u"K", CIM_UINT8, Number(7), FLAG_KEY}, {u"N", CIM_UINT8, Number(8)}}};
  Instance* ids_[2] = {id_, id_};
  static constexpr CimValue kWhenValue = {
      .datetime = {.timestampForm = 1, .timestamp = {2024, 2, 29, 12, 13, 14, 15, -60}}};
  static constexpr std::uint64_t numbers_[2] = {0xA00000009, 0xC0000000B};
  static constexpr const char16_t* texts_[3] = {u"up", u"", u"x"};
  // Every type, in each of its forms.
  const std::vector<Row> rows_ = {
      {{CIM_BOOLEAN, CIM_UINT8, CIM_SINT8}, Number(0xFE), "01 FE -- --"},
      {{CIM_UINT16, CIM_SINT16, CIM_CHAR16}, Number(0x1234), "01 -- 34 12"},
      {{CIM_UINT32, CIM_SINT32, CIM_REAL32}, Number(0x12345678), "01 -- -- -- 78 56 34 12"},
      {{CIM_UINT64, CIM_SINT64, CIM_REAL64},
       Number(0xA00000009),
       "01 -- -- -- 09 00 00 00 0A 00 00 00"},
      {{CIM_DATETIME}, kWhenValue, "01 -- -- -- " + kWhen},
      {{CIM_STRING}, Text(u"on"), "01 -- -- -- 03 00 00 00 'on' 00 00 -- --"},
      {{CIM_STRING}, Text(u""), "01 -- -- -- 01 00 00 00 00 00 -- --"},
      {{CIM_STRING}, Text(nullptr), "00 -- -- --"},
      {{CIM_REFERENCE}, Nested(id_), "01 -- -- -- " + kReference},
      {{CIM_INSTANCE}, Nested(id_), "01 -- -- -- " + kWhole},
      {{CIM_BOOLEANA, CIM_UINT8A, CIM_SINT8A},
       Array("\1\0\1\2\3", 5),
       "01 -- -- -- 05 00 00 00 01 00 01 02 03 -- -- --"},
      {{CIM_UINT16A, CIM_SINT16A, CIM_CHAR16A},
       Array(u"xyz", 3),
       "01 -- -- -- 03 00 00 00 'xyz' -- --"},
      {{CIM_UINT32A, CIM_SINT32A, CIM_REAL32A},
       Array(U"ab", 2),
       "01 -- -- -- 02 00 00 00 61 00 00 00 62 00 00 00"},
      {{CIM_UINT64A, CIM_SINT64A, CIM_REAL64A},
       Array(numbers_, 2),
       "01 -- -- -- 02 00 00 00 -- -- -- -- 09 00 00 00 0A 00 00 00 0B 00 00 00 0C 00 00 00"},
      {{CIM_UINT64A, CIM_STRINGA, CIM_REFERENCEA}, Array(numbers_, 0), "01 -- -- -- 00 00 00 00"},
      {{CIM_DATETIMEA}, Array(&kWhenValue, 1), "01 -- -- -- 01 00 00 00 " + kWhen},
      {{CIM_STRINGA},
       Array(texts_, 3),
       "01 -- -- -- 03 00 00 00 -- -- -- -- 00 00 00 00 00 00 00 00 06 00 00 00 00 00 00 00 08 00 "
       "00 00 00 00 00 00 0C 00 00 00 00 00 00 00 'up' 00 00 00 00 'x' 00 00"},
      {{CIM_REFERENCEA}, Array(ids_, 2), "01 -- -- -- 02 00 00 00 " + kReference + kReference},
      {{CIM_INSTANCEA}, Array(ids_, 1), "01 -- -- -- 01 00 00 00 " + kWhole},
  };
};

void ExpectPacked(std::uint32_t type, const CimValue& value, const std::string& rest) {
  constexpr char kDigits[] = "0123456789ABCDEF";
  const std::string digits = {kDigits[type / 16], kDigits[type % 16]};
  std::string whole = kOne + digits + " 00 00 00 " + rest + kTail;
  // Borrowing preserves the data pointer of an array without elements.
  const Owned fan(u"Fan", {{u"V", type, value, FLAG_BORROW}});
  const_cast<PropertyDef*>(Instance_Body(fan)->def->properties[0])->flags = 0;
  ExpectBytes(Writer(fan), whole);

  Bytes bytes(whole);
  PackBuf reader = bytes.Reader();
  Owned read;
  ASSERT_EQ(Instance_Unpack(read.Out(), &reader, nullptr, true), RESULT_OK) << whole;
  EXPECT_EQ(reader.offset, reader.size);
  // The class of a copied "Id" has no flags.
  for (std::size_t at = 0; (at = whole.find("01 00 00 00  03", at)) != whole.npos;)
    whole[at + 1] = '0';
  // An unpacked array of numbers without elements has no data and cannot be packed.
  if (type != CIM_UINT64A || value.array.size != 0) ExpectBytes(Writer(read), whole);
}

TEST_F(PackingTest, EachTypeHasItsBytes) {
  for (const Row& row : rows_)
    for (const std::uint32_t type : row.types) ExpectPacked(type, row.value, row.bytes);
}

TEST_F(PackingTest, AFilterLeavesPropertiesOutAndKeysOnlyTakesKeys) {
  const Owned fan(u"Fan",
                  {{u"Key", CIM_UINT8, Number(1), FLAG_KEY}, {u"Speeds", CIM_UINT16, Number(2)}});
  EXPECT_EQ(Instance_SetNamespace(fan, u"root"), RESULT_OK);
  const std::string head =
      "57 99 2B 46  01 00 00 00  04 00 00 00 'Fan' 00 00  05 00 00 00 'root' 00 00 -- -- ";
  const std::string key = "00 10 00 00  04 00 00 00 'Key' 00 00  01 00 00 00  01 01 -- -- ";
  const std::string speed =
      "00 00 00 00  07 00 00 00 'Speeds' 00 00 -- --  03 00 00 00  01 -- 02 00 ";
  const PackFilter filter = [](const char16_t* name, void* refused) {
    return *static_cast<std::u16string_view*>(refused) == name;
  };
  const auto expect = [&](bool keysOnly, std::u16string_view refused, const std::string& bytes) {
    Writer packed;
    ASSERT_EQ(Instance_Pack(fan, keysOnly, filter, &refused, &packed), RESULT_OK);
    ExpectBytes(packed, head + bytes + kTail);
  };
  expect(false, u"", "02 00 00 00 " + key + speed);
  expect(false, u"Key", "01 00 00 00 " + speed);
  expect(true, u"Key", "01 00 00 00 " + key);
}

TEST_F(PackingTest, AReturnedParameterIsPackedAsReturnValue) {
  constexpr std::uint32_t kOut = FLAG_PARAMETER | FLAG_OUT;
  for (const Given& each : {Given{u"LumoReturn", CIM_UINT8, Number(1), kOut},
                            {u"LumoReturn", CIM_UINT8, Number(0), FLAG_PARAMETER},
                            {u"LumoReturn", CIM_UINT8, Number(0), FLAG_OUT},
                            {u"lumoReturn", CIM_UINT8, Number(0), kOut}}) {
    Bytes bytes{Writer(Owned(u"Fan", {each}))};
    Owned read;
    ASSERT_TRUE(Instance_UnpackBytes(nullptr, bytes.Get().data(), bytes.Reader().size, read.Out()));
    EXPECT_EQ(Read(read, u"ReturnValue").result == RESULT_OK, each.value.uint8 == 1);
    EXPECT_EQ(Read(read, each.name).result == RESULT_OK, each.value.uint8 == 0);
  }
}

TEST_F(PackingTest, ABorrowedArrayWithoutDataOrWithNullElementsIsRefused) {
  const Instance* holed[2] = {id_, nullptr};
  const char16_t* holedTexts[2] = {u"x", nullptr};
  const CimValue noData = Array<char>(nullptr, 2);
  for (const auto& [given, result] :
       {std::pair<Given, Result>{{u"V", CIM_UINT8A, noData, FLAG_BORROW}, RESULT_FAILED},
        {{u"V", CIM_STRINGA, noData, FLAG_BORROW}, RESULT_OK},  // it has no elements
        {{u"V", CIM_STRINGA, Array(holedTexts, 2), FLAG_BORROW}, RESULT_FAILED},
        {{u"V", CIM_REFERENCEA, Array(holed, 2), FLAG_BORROW}, RESULT_INVALID_PARAMETER}}) {
    const Owned fan(u"Fan", {given});
    Writer packed;
    EXPECT_EQ(Instance_Pack(fan, false, nullptr, nullptr, &packed), result);
  }
}

TEST(PackBufTest, ABufferHasALimit) {
  Writer buffer;
  EXPECT_EQ(PackBuf_Reserve(&buffer, kMaxPackCapacity + 1), RESULT_FAILED);
  EXPECT_EQ(PackBuf_PutStrLen(&buffer, u"", 0xFFFFFFFF), RESULT_FAILED);
  EXPECT_EQ(buffer.size, 0u);
}

}  // namespace
}  // namespace stewardry::cim
