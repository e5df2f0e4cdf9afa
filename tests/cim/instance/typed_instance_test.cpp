// Properties set from text, octet strings, and reads by type.
#include "cim/instance/typed_instance.h"

#include <algorithm>
#include <cstring>

#include "tests/cim/instance/owned_instance.h"
#include "tests/cim/instance/rack_schema.h"

namespace stewardry::cim {
namespace {

using Texts = std::vector<const char16_t*>;
using Octets = std::vector<std::uint8_t>;
using rack_schema::kDisk;

Result SetTexts(Instance* instance, const char16_t* name, const Texts& texts,
                std::uint32_t flags = 0) {
  const char16_t* none = nullptr;
  return Instance_SetArrayFromTexts(instance, name, texts.empty() ? &none : texts.data(),
                                    static_cast<std::uint32_t>(texts.size()), flags);
}

TEST(TypedInstanceTest, ATextBecomesAValueOfThePropertysType) {
  const struct {
    std::uint32_t type;
    const char16_t* text;
    Result scalar, array;
    std::uint64_t bits;  // the value's first bytes
  } kCases[] = {
      {CIM_BOOLEAN, u"True", RESULT_OK, RESULT_OK, 1},
      {CIM_BOOLEAN, u"1", RESULT_FAILED, RESULT_INVALID_PARAMETER, 0},
      {CIM_UINT8, u"300", RESULT_OK, RESULT_OK, 44},
      {CIM_SINT16, u"-2", RESULT_OK, RESULT_OK, 0xFFFE},
      {CIM_UINT64, u"010", RESULT_OK, RESULT_OK, 8},
      {CIM_UINT64, u"8 bytes", RESULT_FAILED, RESULT_INVALID_PARAMETER, 0},
      {CIM_REFERENCE, u"1", RESULT_FAILED, RESULT_FAILED, 0},
  };
  for (const auto& each : kCases) {
    SCOPED_TRACE(kCimTypeNames[each.type]);
    const std::uint32_t arrayType = each.type | CIM_ARRAY;
    const Owned made(u"Any",
                     {{u"One", each.type, {}, FLAG_NULL}, {u"Many", arrayType, {}, FLAG_NULL}});
    EXPECT_EQ(Instance_SetFromText(made, u"one", each.text, 0), each.scalar);
    EXPECT_EQ(Instance_SetFromText(made, u"Many", each.text, 0), each.array);
    EXPECT_EQ(Read(made, u"One").IsNull(), each.scalar != RESULT_OK);
    EXPECT_EQ(Read(made, u"Many").IsNull(), each.array != RESULT_OK);
    if (each.scalar != RESULT_OK) continue;
    const std::size_t size = kElementSizes[each.type];
    const CimValue one = Read(made, u"One", each.type), many = Read(made, u"Many", arrayType);
    EXPECT_EQ(std::memcmp(&one, &each.bits, std::min<std::size_t>(8, size)), 0);
    EXPECT_EQ(std::memcmp(many.array.data, &one, size), 0);
  }
}

TEST(TypedInstanceTest, ARefusedTextLeavesTheOldValue) {
  const Owned made(
      u"Any", {{u"One", CIM_UINT32, {}}, {u"Many", CIM_UINT32A, {}}, {u"Words", CIM_STRINGA, {}}});
  EXPECT_EQ(Instance_SetFromText(made, u"None", u"1", 0), RESULT_NO_SUCH_PROPERTY);
  EXPECT_EQ(SetTexts(made, u"One", {u"1"}), RESULT_TYPE_MISMATCH);
  EXPECT_EQ(SetTexts(made, u"Words", {u"1", nullptr}), RESULT_FAILED);
  EXPECT_EQ(SetTexts(made, u"Many", {u"1", u"0x2", u"03"}), RESULT_OK);
  EXPECT_EQ(SetTexts(made, u"Many", {u"1", u"x", u"3"}), RESULT_INVALID_PARAMETER);
  EXPECT_EQ(SetTexts(made, u"Many", {u"1", nullptr}), RESULT_INVALID_PARAMETER);
  EXPECT_EQ(ElementsOf<std::uint32_t>(Read(made, u"Many", CIM_UINT32A)),
            (std::vector<std::uint32_t>{1, 2, 3}));
}

TEST(TypedInstanceTest, ATextIsAnOctetStringForAPropertyWithTheQualifier) {
  const Octets kAbc = {0, 0, 0, 7, 'a', 'b', 'c'};
  const struct {
    const char16_t* property;
    Texts texts;
    std::uint32_t flags;
    Result result;
    Octets octets;
  } kCases[] = {
      {u"Data", {u"YWJj"}, 2, RESULT_OK, kAbc},
      {u"Data", {u"YWJj", u"!"}, 0xFF, RESULT_OK, kAbc},             // only the first text
      {u"Data", {u"\u0159\u0357\u044A\u056A"}, 2, RESULT_OK, kAbc},  // the low bytes
      {u"Data", {u""}, 2, RESULT_OK, {0, 0, 0, 4}},
      {u"Data", {u"YW!j"}, 2, RESULT_FAILED, {}},
      {u"Data", {}, 2, RESULT_INVALID_PARAMETER, {}},
      {u"Data", {nullptr}, 2, RESULT_INVALID_PARAMETER, {}},
      {u"Data", {u"YWJj"}, 1, RESULT_INVALID_PARAMETER, {}},
      {u"Data", {u"1", u"2"}, 0, RESULT_OK, {1, 2}},
      {u"Raw", {u"1", u"2"}, 2, RESULT_OK, {1, 2}},
  };
  for (const auto& each : kCases) {
    const Owned disk(&kDisk);
    EXPECT_EQ(SetTexts(disk, each.property, each.texts, each.flags), each.result);
    EXPECT_EQ(Read(disk, each.property).IsNull(), each.result != RESULT_OK);
    EXPECT_EQ(ElementsOf<std::uint8_t>(Read(disk, each.property).value), each.octets);
  }
}

TEST(TypedInstanceTest, AnOctetStringBeyond32BitsIsRefused) {
  OctetSink sink{};
  EXPECT_EQ(OctetSink_Append(&rack_schema::kYes, 1, &sink), 0);
  EXPECT_EQ(OctetSink_Append(&rack_schema::kYes, 0xFFFFFFFB, &sink), -1);  // unread
  EXPECT_EQ(sink.data, nullptr);
}

TEST(TypedInstanceTest, AValueIsReadAsItsOwnType) {
  const Owned made(u"Any", {{u"Nothing", CIM_UINT16, {}, FLAG_NULL}});
  std::uint8_t out[3] = {0xEE, 0xEE, 0xEE};
  EXPECT_EQ(Instance_GetValueOfType(made, u"Nothing", nullptr, CIM_UINT8), RESULT_TYPE_MISMATCH);
  EXPECT_EQ(Instance_GetValueOfType(made, u"Nothing", nullptr, CIM_UINT16), RESULT_NOT_FOUND);
  EXPECT_EQ(Instance_SetFromText(made, u"Nothing", u"7", 0), RESULT_OK);
  EXPECT_EQ(Instance_GetValueOfType(made, u"Nothing", out, CIM_UINT16), RESULT_OK);
  EXPECT_EQ(Octets(out, out + 3), (Octets{7, 0, 0xEE}));  // two bytes
}

TEST(TypedInstanceTest, AFailedChangeLeavesANull) {
  const std::u16string big(4000, u'Y');
  const Given kChanges[] = {
      {u"Data", 0, Text(big.c_str())}, {u"Data", 0, Text(u"")}, {u"Temperatures", 0, Text(u"1")}};
  for (const Given& each : kChanges) {
    for (HeapSweep sweep; sweep.Next();) {
      const Owned disk(&kDisk);
      (void)Batch_Alloc(disk->batch, 504);  // fills the page
      (void)Batch_Alloc(disk->batch, 504);
      const Result result = sweep.Run(
          [&] { return SetTexts(disk, each.name, {each.value.string}, kTextOctetString); });
      EXPECT_EQ(result == RESULT_OK, !sweep.HasRefused());
      EXPECT_EQ(Read(disk, each.name).IsNull(), sweep.HasRefused());
    }
  }
}

}  // namespace
}  // namespace stewardry::cim
