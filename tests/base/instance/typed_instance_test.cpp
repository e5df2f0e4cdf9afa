// Text into properties, octet strings, values out by type; then whole instances onto a schema.
#include "base/instance/typed_instance.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

#include "base/heap.h"
#include "base/log.h"
#include "tests/base/instance/dynamic_instance.h"
#include "tests/base/instance/rack_schema.h"

namespace stewardry {
namespace {

using Texts = std::vector<const char16_t*>;

TEST(TypedInstanceTest, ATextBecomesAnotherValueThanItsPropertyTakes) {
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
      {CIM_UINT32, u"0x10", RESULT_OK, RESULT_OK, 16},
      {CIM_UINT64, u"010", RESULT_OK, RESULT_OK, 8},
      {CIM_UINT64, u"8 bytes", RESULT_FAILED, RESULT_INVALID_PARAMETER, 0},
      {CIM_REAL32, u"1", RESULT_OK, RESULT_OK, 0x3F800000},
      {CIM_REAL64, u"", RESULT_OK, RESULT_OK, 0},
      {CIM_CHAR16, u"65", RESULT_OK, RESULT_OK, 65},
      {CIM_DATETIME, u"PT1S", RESULT_OK, RESULT_OK, 0},
      {CIM_DATETIME, u"soon", RESULT_FAILED, RESULT_INVALID_PARAMETER, 0},
      {CIM_REFERENCE, u"1", RESULT_FAILED, RESULT_FAILED, 0},
      {CIM_INSTANCE, u"1", RESULT_FAILED, RESULT_FAILED, 0},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(kCimTypeNames[c.type]);
    Dynamic made(u"Any");
    made.Null(u"One", c.type).Null(u"Many", c.type | CIM_ARRAY);
    EXPECT_EQ(Instance_SetFromText(made.Get(), u"one", c.text, 0), c.scalar);
    EXPECT_EQ(Instance_SetFromText(made.Get(), u"Many", c.text, 0), c.array);
    EXPECT_EQ(IsNull(made.Get(), u"One"), c.scalar != RESULT_OK);
    EXPECT_EQ(IsNull(made.Get(), u"Many"), c.array != RESULT_OK);
    if (c.scalar != RESULT_OK) continue;
    const CimValue one = Read(made.Get(), u"One", c.type);
    EXPECT_EQ(std::memcmp(&one, &c.bits, std::min<std::size_t>(8, kElementSizes[c.type])), 0);
    const ArrayValue many = Read(made.Get(), u"Many", c.type | CIM_ARRAY).array;
    ASSERT_EQ(many.size, 1u);
    EXPECT_EQ(std::memcmp(many.data, &one, kElementSizes[c.type]), 0);
  }
}

TEST(TypedInstanceTest, AStringIsChangedOrOnlyBorrowed) {
  Dynamic made(u"Any");
  made.Null(u"One", CIM_STRING).Null(u"Many", CIM_STRINGA);
  const std::u16string text = u" 0x10 ";
  EXPECT_EQ(Instance_SetFromText(made.Get(), u"One", text.c_str(), 0), RESULT_OK);
  EXPECT_EQ(Instance_SetFromText(made.Get(), u"Many", text.c_str(), kTextOctetString), RESULT_OK);
  const char16_t* one = Read(made.Get(), u"One", CIM_STRING).string;
  EXPECT_TRUE(one == text);
  EXPECT_NE(one, text.c_str());
  EXPECT_EQ(Read(made.Get(), u"Many", CIM_STRINGA).array.size, 1u);
}

TEST(TypedInstanceTest, AnArgumentThatIsMissingOrWrongPasses) {
  Dynamic made(u"Any");
  made.Null(u"One", CIM_UINT32).Null(u"Many", CIM_UINT32A).Null(u"Words", CIM_STRINGA);
  Instance* it = made.Get();
  const char16_t* text = u"1";
  const Texts mixed = {u"1", u"x", u"3"}, holed = {u"1", nullptr}, good = {u"1", u"0x2", u"03"};
  EXPECT_EQ(Instance_SetFromText(nullptr, u"One", text, 0), RESULT_INVALID_PARAMETER);
  EXPECT_EQ(Instance_SetFromText(it, nullptr, text, 0), RESULT_INVALID_PARAMETER);
  EXPECT_EQ(Instance_SetFromText(it, u"One", nullptr, 0), RESULT_INVALID_PARAMETER);
  EXPECT_EQ(Instance_SetFromText(it, u"None", text, 0), RESULT_NO_SUCH_PROPERTY);
  EXPECT_EQ(Instance_SetArrayFromTexts(nullptr, u"Many", &text, 1, 0), RESULT_INVALID_PARAMETER);
  EXPECT_EQ(Instance_SetArrayFromTexts(it, nullptr, &text, 1, 0), RESULT_INVALID_PARAMETER);
  EXPECT_EQ(Instance_SetArrayFromTexts(it, u"Many", nullptr, 1, 0), RESULT_INVALID_PARAMETER);
  EXPECT_EQ(Instance_SetArrayFromTexts(it, u"None", &text, 1, 0), RESULT_NO_SUCH_PROPERTY);
  EXPECT_EQ(Instance_SetArrayFromTexts(it, u"One", &text, 1, 0), RESULT_TYPE_MISMATCH);
  EXPECT_EQ(Instance_SetArrayFromTexts(it, u"Words", holed.data(), 2, 0), RESULT_FAILED);

  EXPECT_EQ(Instance_SetArrayFromTexts(it, u"Many", good.data(), 3, 0), RESULT_OK);
  for (const Texts& texts : {mixed, holed}) {
    const auto count = static_cast<std::uint32_t>(texts.size());
    EXPECT_EQ(Instance_SetArrayFromTexts(it, u"Many", texts.data(), count, 0),
              RESULT_INVALID_PARAMETER);
  }
  const ArrayValue many = Read(it, u"Many", CIM_UINT32A).array;  // the old value has stayed
  ASSERT_EQ(many.size, 3u);
  for (std::uint32_t i = 0; i < 3; ++i) EXPECT_EQ(static_cast<std::uint32_t*>(many.data)[i], i + 1);
  EXPECT_EQ(Instance_SetArrayFromTexts(it, u"Many", good.data(), 0, 0), RESULT_OK);
  EXPECT_EQ(Read(it, u"Many", CIM_UINT32A).array.size, 0u);
}

TEST(TypedInstanceTest, AnOctetStringIsMistakenForNumbersOrTheOtherWay) {
  const Bytes kAbc = {0, 0, 0, 7, 'a', 'b', 'c'};
  const struct {
    const char16_t* property;
    Texts texts;
    std::uint32_t flags;
    Result result;
    Bytes bytes;
  } kCases[] = {
      {u"Data", {u"YWJj"}, 2, RESULT_OK, kAbc},
      {u"Data", {u"YWJj", u"!"}, 0xFF, RESULT_OK, kAbc},             // the first text alone
      {u"Data", {u"\u0159\u0357\u044A\u056A"}, 2, RESULT_OK, kAbc},  // the low bytes
      {u"Data", {u""}, 2, RESULT_OK, {0, 0, 0, 4}},
      {u"Data", {u"YQ=="}, 2, RESULT_OK, {0, 0, 0, 5, 'a'}},
      {u"Data", {u"YW!j"}, 2, RESULT_FAILED, {}},
      {u"Data", {u"YWJjY"}, 2, RESULT_FAILED, {}},
      {u"Data", {}, 2, RESULT_INVALID_PARAMETER, {}},
      {u"Data", {nullptr}, 2, RESULT_INVALID_PARAMETER, {}},
      {u"Data", {u"YWJj"}, 1, RESULT_INVALID_PARAMETER, {}},
      {u"Data", {u"1", u"2"}, 0, RESULT_OK, {1, 2}},
      {u"Raw", {u"YWJj"}, 2, RESULT_INVALID_PARAMETER, {}},
      {u"Raw", {u"1", u"2"}, 2, RESULT_OK, {1, 2}},
      {u"Odd", {u"1", u"2"}, 2, RESULT_OK, {1, 2}},
  };
  for (const auto& c : kCases) {
    Instance* disk = nullptr;
    ASSERT_EQ(Instance_Create(&disk, &rack_schema::kDisk, nullptr), RESULT_OK);
    const char16_t* none = nullptr;
    const char16_t* const* texts = c.texts.empty() ? &none : c.texts.data();
    EXPECT_EQ(Instance_SetArrayFromTexts(disk, c.property, texts,
                                         static_cast<std::uint32_t>(c.texts.size()), c.flags),
              c.result);
    EXPECT_EQ(IsNull(disk, c.property), c.result != RESULT_OK);
    if (c.result == RESULT_OK) {
      EXPECT_EQ(ReadBytes(disk, c.property), c.bytes);
    }
    EXPECT_EQ(Instance_Delete(disk), RESULT_OK);
  }
}

TEST(TypedInstanceTest, ABadOctetStringIsNotReported) {
  const auto path = std::filesystem::temp_directory_path() /
                    ("stewardry-octets-" + std::to_string(std::random_device{}()) + ".log");
  ASSERT_EQ(LibLog_Attach(path.u16string().c_str()), 0);
  Instance* disk = nullptr;
  ASSERT_EQ(Instance_Create(&disk, &rack_schema::kDisk, nullptr), RESULT_OK);
  EXPECT_EQ(Instance_SetFromText(disk, u"Data", u"YW!j", kTextOctetString), RESULT_FAILED);
  EXPECT_EQ(Instance_Delete(disk), RESULT_OK);
  LibLog_Detach();
  std::string lines;
  {
    std::ifstream file(path);
    lines.assign(std::istreambuf_iterator<char>(file), {});
  }
  EXPECT_NE(lines.find("Base64Dec failed"), std::string::npos) << lines;
  std::filesystem::remove(path);
}

TEST(TypedInstanceTest, ALongOctetStringLosesAChunkOrItsLength) {
  Instance* disk = nullptr;
  ASSERT_EQ(Instance_Create(&disk, &rack_schema::kDisk, nullptr), RESULT_OK);
  std::u16string text;
  for (int i = 0; i < 25000; ++i) text += u"YWJj";
  EXPECT_EQ(Instance_SetFromText(disk, u"Data", text.c_str(), kTextOctetString), RESULT_OK);
  const Bytes bytes = ReadBytes(disk, u"Data");
  ASSERT_EQ(bytes.size(), 75004u);
  EXPECT_EQ(Bytes(bytes.begin(), bytes.begin() + 4), (Bytes{0, 1, 0x24, 0xFC}));
  for (std::size_t i = 4; i < bytes.size(); ++i) ASSERT_EQ(bytes[i], 'a' + (i - 4) % 3);
  EXPECT_EQ(Instance_Delete(disk), RESULT_OK);

  OctetSink sink{};
  EXPECT_EQ(OctetSink_Append(bytes.data(), 5, &sink), 0);
  EXPECT_EQ(OctetSink_Append(bytes.data(), 0xFFFFFFF7, &sink), -1);  // refused before it is read
  EXPECT_EQ(sink.data, nullptr);
  EXPECT_EQ(sink.size, 0u);
}

TEST(TypedInstanceTest, AValueOfAnotherTypeIsGivenOut) {
  Dynamic made(u"Any");
  made.Null(u"Nothing", CIM_UINT16).Text(u"Word", u"w");
  std::uint8_t out[9];
  std::memset(out, 0xEE, sizeof out);
  const Instance* it = made.Get();
  EXPECT_EQ(Instance_GetValueOfType(it, u"Word", out, CIM_STRINGA), RESULT_TYPE_MISMATCH);
  EXPECT_EQ(Instance_GetValueOfType(it, u"Nothing", nullptr, CIM_UINT8), RESULT_TYPE_MISMATCH);
  EXPECT_EQ(Instance_GetValueOfType(it, u"Nothing", nullptr, CIM_UINT16), RESULT_NOT_FOUND);
  EXPECT_EQ(Instance_GetValueOfType(it, u"Word", nullptr, CIM_STRING), RESULT_INVALID_PARAMETER);
  EXPECT_EQ(Instance_GetValueOfType(it, u"None", out, CIM_STRING), RESULT_NO_SUCH_PROPERTY);
  EXPECT_EQ(Instance_GetValueOfType(it, nullptr, out, CIM_STRING), RESULT_INVALID_PARAMETER);
  EXPECT_EQ(Instance_GetValueOfType(nullptr, u"Word", out, CIM_STRING), RESULT_INVALID_PARAMETER);
  EXPECT_EQ(out[0], 0xEE);
  EXPECT_EQ(Instance_SetFromText(made.Get(), u"Nothing", u"7", 0), RESULT_OK);
  EXPECT_EQ(Instance_GetValueOfType(it, u"Nothing", out, CIM_UINT16), RESULT_OK);
  EXPECT_EQ(Bytes(out, out + 3), (Bytes{7, 0, 0xEE}));  // the element's two bytes, no more
}

TEST(TypedInstanceTest, AFailingHeapLeaksOrChangesTheOldValue) {
  const Texts texts = {u"1", u"2", u"3"};
  const std::u16string big(4000, u'Y');
  struct Operation {
    const char16_t* property;
    Result (*run)(Instance*, const char16_t*, const std::u16string&, const Texts&);
  };
  const Operation kOperations[] = {
      {u"Serial", [](Instance* it, const char16_t* name, const std::u16string& text,
                     const Texts&) { return Instance_SetFromText(it, name, text.c_str(), 0); }},
      {u"Data",
       [](Instance* it, const char16_t* name, const std::u16string& text, const Texts&) {
         return Instance_SetFromText(it, name, text.c_str(), kTextOctetString);
       }},
      {u"Data", [](Instance* it, const char16_t* name, const std::u16string&,
                   const Texts&) { return Instance_SetFromText(it, name, u"", kTextOctetString); }},
      {u"Temperatures",
       [](Instance* it, const char16_t* name, const std::u16string&, const Texts& all) {
         return Instance_SetArrayFromTexts(it, name, all.data(), 3, 0);
       }},
  };
  for (const Operation& operation : kOperations) {
    for (std::uint64_t failAt = 1;; ++failAt) {
      Instance* disk = nullptr;
      ASSERT_EQ(Instance_Create(&disk, &rack_schema::kDisk, nullptr), RESULT_OK);
      (void)Batch_Alloc(disk->batch, 504);  // the page is full, so that the batch needs the heap
      (void)Batch_Alloc(disk->batch, 504);
      heap_gate::Arm(failAt);
      const Result result = operation.run(disk, operation.property, big, texts);
      const bool reached = heap_gate::Requests() >= failAt;
      heap_gate::Disarm();
      EXPECT_EQ(result == RESULT_OK, !reached) << failAt;
      EXPECT_EQ(IsNull(disk, operation.property), reached);
      EXPECT_EQ(Instance_Delete(disk), RESULT_OK);
      if (!reached) break;
    }
  }
}

}  // namespace
}  // namespace stewardry
