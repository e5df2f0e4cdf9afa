// Malformed and truncated bytes, and failing allocations.
#include <algorithm>

#include "tests/cim/packing/packed_bytes.h"

namespace stewardry::cim {
namespace {

using namespace packed_bytes;

const std::string kForm = kOne + "01 00 00 00 01 05 -- --" + kTail;

std::string Repeat(std::uint32_t times, const std::string& text) {
  std::string repeated;
  for (std::uint32_t i = 0; i < times; ++i) repeated += text;
  return repeated;
}

// Returns the bytes of the offsets of two texts and of their end.
std::string Offsets(std::uint64_t first, std::uint64_t second, std::uint64_t end) {
  std::string bytes;
  for (const std::uint64_t offset : {first, second, end}) {
    for (int shift = 0; shift < 64; shift += 8)
      bytes += {"0123456789ABCDEF"[offset >> (shift + 4) & 15],
                "0123456789ABCDEF"[offset >> shift & 15], ' '};
  }
  return bytes;
}

std::size_t MemoryOf(const Batch* batch) {
  std::vector<BatchPageInfo> pages(Batch_PageCount(batch));
  (void)Batch_PageList(batch, pages.data());
  std::size_t sum = 0;
  for (const BatchPageInfo& each : pages) sum += each.size;
  return sum;
}

// Unpacks into the instance that *used holds, and expects the result and the properties of a new
// one. The bytes of the call before are overwritten.
Result UnpackInto(Owned* used, Bytes* bytes, const Bytes& from) {
  std::fill(bytes->Get().begin(), bytes->Get().end(), 0xEE);
  *bytes = from;
  PackBuf reader = bytes->Reader();
  const Result result = Instance_UnpackInto(used->Out(), &reader);
  Bytes again = from;
  PackBuf other = again.Reader();
  Owned fresh;
  EXPECT_EQ(Instance_Unpack(fresh.Out(), &other, nullptr, false), result);
  EXPECT_EQ(*used != nullptr, result == RESULT_OK);
  EXPECT_TRUE(result != RESULT_OK || reader.offset == other.offset);
  if (result != RESULT_OK) return result;
  EXPECT_EQ(Bytes(Writer(*used)).Get(), Bytes(Writer(fresh)).Get());
  return result;
}

// Unpacks with and without a batch, with and without copying, into a used instance, and expects one
// result. Memory is proportional to the bytes: an instance of 28 bytes takes nearly two kilobytes.
Result Unpack(const Bytes& original, const Bytes& before = Bytes(kForm)) {
  std::vector<Result> results;
  for (const unsigned way : {0u, 1u, 2u, 3u}) {
    Bytes bytes = original;
    PackBuf reader = bytes.Reader();
    OwnBatch batch;
    Owned made;
    results.push_back(
        Instance_Unpack(made.Out(), &reader, way > 1 ? &batch : nullptr, way % 2 == 0));
    EXPECT_EQ(made != nullptr, results.back() == RESULT_OK);
    EXPECT_LE(MemoryOf(&batch), 4096 + 64 * bytes.Get().size());
  }
  Owned used;
  Bytes bytes("");
  EXPECT_EQ(UnpackInto(&used, &bytes, before), RESULT_OK);
  results.push_back(UnpackInto(&used, &bytes, original));
  EXPECT_EQ(std::count(results.begin(), results.end(), results[0]), 5);
  return results[0];
}

TEST(UnpackingTest, MalformedBytesAreRefused) {
  // "V" in several types, up to the value.
  const std::string text = kOne + "0D 00 00 00 01 -- -- -- ";
  const std::string texts = kOne + "1D 00 00 00 01 -- -- -- 02 00 00 00 -- -- -- -- ";
  const std::string instances = kOne + "1E 00 00 00 01 -- -- -- ";
  const std::string ab = "'a' 00 00 'b' 00 00", mark = "57 99 2B 46 01 00 00 00 ";
  const std::string bad = "00 00 00 00 02 00 00 00 '-' 00 00 01 00 00 00 00 -- -- --";
  constexpr Result kOk = RESULT_OK, kFailed = RESULT_FAILED, kInvalid = RESULT_INVALID_PARAMETER;
  const struct {
    const char* what;
    Result result;
    std::string bytes;  // before the tail
  } kRows[] = {
      {"the form itself", kOk, kOne + "01 00 00 00 01 05 -- --"},
      {"wrong head", kFailed, "56 99 2B 46" + kHead.substr(11)},
      {"wrong tail", kInvalid, kHead + "00 00 00 00 E3 74 F4 77"},
      {"no class name", kInvalid, mark + Repeat(12, "00 ")},
      {"open class name", kFailed, mark + "02 00 00 00 'Fa'" + Repeat(8, "00 ")},
      {"open name space", kFailed,
       mark + "02 00 00 00 'F' 00 00 01 00 00 00 'x' -- -- 00 00 00 00"},
      {"more properties than bytes", kFailed, kHead + "FF FF FF FF"},
      {"bad property name of 4096", kInvalid, kHead + "00 10 00 00" + bad},
      {"one property too many", kFailed, kHead + "01 10 00 00" + bad},  // none is read
      {"null of type 32", kFailed, kOne + "20 00 00 00 00 -- -- --"},
      {"value of type FFFFFFFF", kFailed, kOne + "FF FF FF FF 01 05 -- --"},
      {"text of 4 GiB", kFailed, text + "00 00 00 80"},
      {"text without end", kFailed, text + "02 00 00 00 'ab'"},
      {"bytes, too many", kFailed, kOne + "11 00 00 00 01 -- -- -- 05 00 00 00"},
      {"numbers of 4 GiB", kFailed, kOne + "17 00 00 00 01 -- -- -- 00 00 00 20"},
      {"dates of 4 GiB", kFailed, kOne + "1C 00 00 00 01 -- -- -- 8F E3 38 0E"},
      {"texts backwards", kFailed, texts + Offsets(0, 4, 2) + ab},
      {"texts far outside", kFailed, texts + Offsets(0, ~3ULL, 8) + ab},
      {"texts at odd places", kFailed, texts + Offsets(0, 3, 8) + Repeat(8, "00 ")},
      {"no end among texts", kFailed, texts + Offsets(0, 2, 6) + "'a' 'b' 00 00 -- --"},
      {"texts counted from elsewhere", kOk, texts + Offsets(0xF1, 0xF5, 0xF9) + ab},
      {"instances of 4 GiB", kFailed, kOne + "1F 00 00 00 01 -- -- -- 00 00 00 20"},
      {"one instance too many", kFailed, instances + "02 00 00 00" + kHead + "00 00 00 00" + kTail},
  };
  for (const auto& row : kRows) EXPECT_EQ(Unpack(Bytes(row.bytes + kTail)), row.result) << row.what;
  Owned made;
  EXPECT_FALSE(Instance_UnpackBytes(nullptr, nullptr, 0, made.Out()));
  Bytes null(kHead + "01 00 00 00 00 00 00 20 02 00 00 00 'V' 00 00 01 00 00 00 01 05 -- --" +
             kTail);
  EXPECT_TRUE(Instance_UnpackBytes(nullptr, null.Get().data(), null.Reader().size, made.Out()));
  EXPECT_TRUE(Read(made, u"V").IsNull());  // by its flag, although it has a value
}

TEST(UnpackingTest, NestingIsLimited) {
  const std::string level = kOne + "0F 00 00 00 01 -- -- -- ";
  const auto nested = [&](std::uint32_t depth) {
    return Bytes(Repeat(depth, level) + kHead + "00 00 00 00" + Repeat(depth + 1, kTail));
  };
  EXPECT_EQ(Unpack(nested(kMaxPackedDepth - 1)), RESULT_OK);
  EXPECT_EQ(Unpack(nested(kMaxPackedDepth)), RESULT_FAILED);
  EXPECT_EQ(Unpack(Bytes(Repeat(20000, level))), RESULT_FAILED);
}

// The first 32 names are compared in another way than later ones.
TEST(UnpackingTest, TwoPropertiesOfOneNameAreRefused) {
  const auto property = [](std::uint32_t number, char letter) {
    const std::string name = {'\'', letter, static_cast<char>('a' + number / 26),
                              static_cast<char>('a' + number % 26), '\''};
    return "00 00 00 00 04 00 00 00 " + name + " 00 00 01 00 00 00 01 05 -- -- ";
  };
  std::string properties;
  for (std::uint32_t count = 1; count <= 70; ++count) {
    properties += property(count, 'P');
    const auto unpack = [&](std::uint32_t size, const std::string& last) {
      const std::string head = kHead + Offsets(size, 0, 0).substr(0, 12);
      return Unpack(Bytes(head + properties + last + kTail));
    };
    EXPECT_EQ(unpack(count, ""), RESULT_OK) << count;
    for (const std::uint32_t twice : {1u, count})
      EXPECT_EQ(unpack(count + 1, property(twice, 'p')), RESULT_ALREADY_EXISTS) << count;
  }
}

// An instance with a value of each packed form. Its borrowed properties have FLAG_BORROW.
class RichTest : public ::testing::Test {
 protected:
  static constexpr std::uint64_t kWides[] = {1, 2};
  static constexpr const char16_t* kTexts[] = {u"one", u"", u"three"};
  static constexpr CimValue kWhen = {.datetime = {.timestampForm = 1, .timestamp = {}}};
  const Owned inner_{u"Inner",
                     {{u"Id", CIM_UINT32, Number(7), FLAG_KEY},
                      {u"Note", CIM_STRING, Text(u"deep"), FLAG_BORROW}}};
  Instance* inners_[2] = {inner_, inner_};
  const Owned outer_{u"Outer",
                     {{u"Text", CIM_STRING, Text(u"flat"), FLAG_BORROW},
                      {u"Ref", CIM_REFERENCE, Nested(inner_), FLAG_BORROW},
                      {u"Words", CIM_UINT16A, Array(u"words", 5), FLAG_BORROW},
                      {u"Wides", CIM_SINT64A, Array(kWides, 2), FLAG_BORROW},
                      {u"Texts", CIM_STRINGA, Array(kTexts, 3), FLAG_BORROW},
                      {u"Inners", CIM_INSTANCEA, Array(inners_, 2), FLAG_BORROW},
                      {u"When", CIM_DATETIME, kWhen}}};
};

// Checks the properties that hold pointers.
void ExpectBorrowed(const Instance* made, bool borrowed) {
  for (std::uint32_t i = 0; i < 6; ++i) {
    std::uint32_t flags = 0;
    ASSERT_EQ(Instance_PropertyAt(made, i, nullptr, nullptr, nullptr, &flags), RESULT_OK);
    EXPECT_EQ((flags & FLAG_BORROW) != 0, borrowed) << i;
  }
}

TEST_F(RichTest, ACopyOwnsWhatItRead) {
  Owned copy;
  {
    Bytes bytes{Writer(outer_)};
    PackBuf reader = bytes.Reader();
    ASSERT_EQ(Instance_Unpack(copy.Out(), &reader, nullptr, true), RESULT_OK);
    bytes.Get().assign(reader.size, 0xEE);
  }
  ExpectBorrowed(copy, false);
  const auto inners = ElementsOf<Instance*>(Read(copy, u"Inners", CIM_INSTANCEA));
  EXPECT_EQ(std::u16string(Read(inners.at(1), u"Note", CIM_STRING).string), u"deep");
  EXPECT_EQ(Instance_ClearProperty(copy, u"Inners"), RESULT_OK);  // it owns them
  EXPECT_TRUE(Read(copy, u"Inners").IsNull());
}

TEST_F(RichTest, AnUncopiedInstanceBorrowsFromAlignedBytes) {
  Bytes bytes{Writer(outer_)};
  const std::uint32_t size = bytes.Reader().size;
  OwnBatch batch;
  Instance* made = nullptr;
  ASSERT_TRUE(Instance_UnpackBytes(&batch, bytes.Get().data(), size, &made));
  ExpectBorrowed(made, true);
  const void* text = Read(made, u"Text", CIM_STRING).string;
  EXPECT_TRUE(text > bytes.Get().data() && text < bytes.Get().data() + size);

  Bytes odd{Writer(outer_)};
  odd.Get().insert(odd.Get().begin(), 0);
  EXPECT_FALSE(Instance_UnpackBytes(nullptr, odd.Get().data() + 1, size, &made));
  EXPECT_EQ(made, nullptr);
  EXPECT_TRUE(Instance_UnpackBytes(&batch, odd.Get().data() + 1, size, &made));  // copied
}

// Each row differs from the one before in what its comment says, so a row without an allocation is
// refilled and the others are not.
TEST_F(RichTest, AUsedInstanceTakesOtherValues) {
  const Writer rich(outer_);
  ASSERT_EQ(Instance_StoreProperty(outer_, u"Text", nullptr, CIM_STRING, 0), RESULT_OK);
  const CimValue one = Array(kWides, 1), texts = Array(kTexts + 1, 2),
                 instances = Array(inners_, 1);
  ASSERT_EQ(Instance_StoreProperty(outer_, u"Wides", &one, CIM_SINT64A, FLAG_BORROW), RESULT_OK);
  ASSERT_EQ(Instance_StoreProperty(outer_, u"Texts", &texts, CIM_STRINGA, FLAG_BORROW), RESULT_OK);
  const Writer other(outer_);
  ASSERT_EQ(Instance_StoreProperty(outer_, u"Inners", &instances, CIM_INSTANCEA, 0), RESULT_OK);
  const Writer shorter(outer_);
  ASSERT_EQ(Instance_SetNamespace(outer_, u"root"), RESULT_OK);
  const std::string value = "01 00 00 00 01 05 -- --" + kTail;
  const struct {
    Bytes bytes;
    bool isRefilled;
  } kRows[] = {
      {Bytes(rich), false},
      {Bytes(other), true},  // a null, shorter arrays
      {Bytes(rich), true},
      {Bytes(shorter), false},         // fewer instances
      {Bytes(Writer(outer_)), false},  // a name space
      {Bytes(kForm), false},           // another class
      {Bytes(kOne + "01 00 00 00 01 06 -- --" + kTail), true},
      {Bytes(kOne + "02 00 00 00 01 05 -- --" + kTail), false},                          // the type
      {Bytes(kHead + "01 00 00 00 00 00 00 00 02 00 00 00 'W' 00 00 " + value), false},  // the name
      {Bytes(kHead + "01 00 00 00 00 10 00 00 02 00 00 00 'W' 00 00 " + value),
       false},                                        // the flags
      {Bytes(kHead + "00 00 00 00" + kTail), false},  // the number of properties
      {Bytes(kHead + "00 00 00 00" + kTail), true},
  };
  Owned used;
  Bytes bytes("");
  for (const auto& row : kRows) {
    Bytes arrived = row.bytes;
    PackBuf reader = arrived.Reader();
    heap_gate::Arm(0);
    const Result result = Instance_UnpackInto(used.Out(), &reader);
    heap_gate::Disarm();
    ASSERT_EQ(result, RESULT_OK);
    EXPECT_EQ(heap_gate::Requests() == 0, row.isRefilled) << &row - kRows;
    EXPECT_EQ(UnpackInto(&used, &bytes, row.bytes), RESULT_OK);
  }
  Instance_Retain(used);  // held by somebody else: it stays
  Instance* const held = used;
  PackBuf reader = bytes.Reader();
  EXPECT_EQ(Instance_UnpackInto(used.Out(), &reader), RESULT_OK);
  EXPECT_NE(used, held);
  Instance_Drop(held);
}

TEST_F(RichTest, BytesThatEndTooSoonAreRefused) {
  const Writer packed(outer_);
  EXPECT_EQ(Unpack(Bytes(packed)), RESULT_OK);
  for (std::uint32_t size = 0; size < packed.size; ++size)
    EXPECT_EQ(Unpack(Bytes(PackBuf{packed.data, size, 0, 0}), Bytes(packed)), RESULT_FAILED)
        << size;
}

TEST_F(RichTest, AFailedAllocationLeavesNothing) {
  ASSERT_EQ(Instance_SetNamespace(outer_, u"root"), RESULT_OK);
  for (HeapSweep sweep; sweep.Next();) {
    OwnBatch batch;
    void* bytes = nullptr;
    std::uint32_t size = 0;
    const Result result = sweep.Run(
        [&] { return Instance_PackToBatch(outer_, nullptr, nullptr, &batch, &bytes, &size); });
    EXPECT_EQ(result, sweep.HasRefused() ? RESULT_FAILED : RESULT_OK);
    EXPECT_EQ(Batch_PageCount(&batch), sweep.HasRefused() ? 0u : 1u);
  }
  for (const unsigned way : {0u, 1u, 2u, 3u}) {
    for (HeapSweep sweep; sweep.Next();) {
      Bytes bytes{Writer(outer_)};
      PackBuf reader = bytes.Reader();
      OwnBatch batch(0);
      Owned made;
      const Result result = sweep.Run([&] {
        return Instance_Unpack(made.Out(), &reader, way > 1 ? &batch : nullptr, way % 2 == 0);
      });
      EXPECT_EQ(result, sweep.HasRefused() ? RESULT_FAILED : RESULT_OK);
      EXPECT_EQ(made == nullptr, sweep.HasRefused());
    }
  }
}

}  // namespace
}  // namespace stewardry::cim
