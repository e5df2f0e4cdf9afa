// Pages, their bounds, and what a batch does when the heap is empty.
#include "base/batch.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "base/heap.h"
#include "base/size.h"

namespace stewardry {
namespace {

std::uint8_t* Take(Batch* batch, std::size_t size) {
  return static_cast<std::uint8_t*>(Batch_Alloc(batch, size));
}

class BatchTest : public ::testing::Test {
 protected:
  BatchTest() { Batch_Init(&batch_, kNoPageLimit); }
  ~BatchTest() override { Batch_Destroy(&batch_); }
  std::vector<std::uint64_t> Sizes() {
    std::vector<BatchPageInfo> list(Batch_PageCount(&batch_));
    EXPECT_EQ(Batch_PageList(&batch_, list.data()), list.size());
    std::vector<std::uint64_t> sizes;
    for (const BatchPageInfo& each : list) sizes.push_back(each.size);
    return sizes;
  }
  Batch batch_;
};

TEST_F(BatchTest, ARequestIsServedFromTheWrongBlock) {
  EXPECT_EQ(Take(&batch_, 0), nullptr);  // no page yet
  std::uint8_t* first = Take(&batch_, 1);
  EXPECT_EQ(Take(&batch_, 0), first + 8);
  EXPECT_EQ(Take(&batch_, 496), first + 8);  // leaves 504 of the page's 1008
  EXPECT_EQ(Sizes(), (std::vector<std::uint64_t>{504}));
  std::uint8_t* second = Take(&batch_, 512);
  EXPECT_EQ(Batch_PageAt(&batch_, 0), second);
  EXPECT_EQ(Sizes(), (std::vector<std::uint64_t>{512, 1008}));  // 504 bytes are given up
  std::uint8_t* alone = Take(&batch_, 513);
  EXPECT_EQ(Batch_PageAt(&batch_, 0), alone);
  EXPECT_EQ(Take(&batch_, 8), second + 512);
  EXPECT_EQ(Sizes(), (std::vector<std::uint64_t>{520, 520, 1008}));
  EXPECT_EQ(Batch_PageAt(&batch_, 3), nullptr);
  EXPECT_EQ(batch_.pageCount, 2u);
  std::uint32_t word;
  std::memcpy(&word, second - 8, sizeof word);
  EXPECT_EQ(word, 0x7E0u);  // 1008 above the bit of a standalone block
  std::memcpy(&word, alone - 8, sizeof word);
  EXPECT_EQ(word, 520u << 1 | 1);
}

TEST_F(BatchTest, APageOrAStrangeBlockIsReleased) {
  std::uint8_t* inPage = Take(&batch_, 8);
  std::uint8_t* alone = Take(&batch_, 600);
  std::uint8_t* another = Take(&batch_, 700);
  std::uint8_t strange[8];
  for (std::uint8_t* each : {inPage, strange, static_cast<std::uint8_t*>(nullptr), another + 8})
    Batch_Release(&batch_, each);
  EXPECT_EQ(Batch_PageCount(&batch_), 3u);
  Batch_Release(&batch_, alone);
  EXPECT_EQ(Sizes(), (std::vector<std::uint64_t>{704, 8}));
  Batch_Release(&batch_, another);
  EXPECT_EQ(Sizes(), (std::vector<std::uint64_t>{8}));
}

TEST_F(BatchTest, ABatchThatLiesInItsOwnBlockIsFreedTooEarly) {
  for (const std::uint64_t limit : {std::uint64_t{0}, std::uint64_t{1}, kNoPageLimit}) {
    Batch* batch = Batch_Create(limit);
    ASSERT_NE(batch, nullptr);
    EXPECT_EQ(Batch_PageAt(batch, 0), batch);
    for (int i = 0; i < 300; ++i) std::memset(Take(batch, 100), 1, 100);
    EXPECT_EQ(batch->pageCount, limit == kNoPageLimit ? 34u : limit);
    Batch_Destroy(batch);
  }
}

TEST_F(BatchTest, TheCallersBufferIsFreedOrOverrun) {
  alignas(8) std::uint8_t buffer[64];
  Batch_InitOnBuffer(&batch_, buffer, sizeof buffer, kNoPageLimit);
  EXPECT_EQ(Take(&batch_, 60), buffer);
  EXPECT_EQ(Batch_PageCount(&batch_), 0u);
  EXPECT_NE(Take(&batch_, 8), nullptr);
  EXPECT_EQ(Batch_PageCount(&batch_), 1u);
}

TEST_F(BatchTest, ACopyIsCutOrWidenedOtherwise) {
  EXPECT_STREQ(Batch_DupNarrow(&batch_, "text"), "text");
  EXPECT_EQ(std::u16string(Batch_DupText(&batch_, u"\xC4\u20AC")), u"\xC4\u20AC");
  EXPECT_EQ(std::u16string(Batch_WidenText(&batch_, "a\xE9")), u"a\xFFE9");
  EXPECT_STREQ(Batch_NarrowText(&batch_, u"a\u20ACz"), "a\xACz");
  EXPECT_EQ(Batch_DupNarrow(&batch_, nullptr), nullptr);
  EXPECT_EQ(Batch_WidenText(nullptr, "a"), nullptr);
  EXPECT_EQ(Batch_NarrowText(&batch_, nullptr), nullptr);

  const TextRecord record = {{"1", "2", nullptr, "4", "5"}, 6, "7"};
  const TextRecord* copy = Batch_CloneTextRecord(&batch_, &record);
  ASSERT_NE(copy, nullptr);
  EXPECT_STREQ(copy->texts[4], "5");
  EXPECT_NE(copy->texts[4], record.texts[4]);
  EXPECT_EQ(copy->texts[2], nullptr);
  EXPECT_EQ(copy->number, 6u);
  EXPECT_STREQ(copy->last, "7");
}

TEST_F(BatchTest, AGrownBlockKeepsOtherBytes) {
  char* old = Batch_DupNarrow(&batch_, "1234567");
  char* grown = static_cast<char*>(Batch_Realloc(&batch_, old, 8, 1000));
  EXPECT_STREQ(grown, "1234567");
  for (int i = 8; i < 1000; ++i) ASSERT_EQ(grown[i], 0);
  EXPECT_EQ(std::memcmp(Batch_Realloc(&batch_, old, 8, 3), "123", 3), 0);
  EXPECT_NE(Batch_Realloc(&batch_, nullptr, 8, 3), nullptr);
}

TEST_F(BatchTest, AShippedPointerLeadsElsewhere) {
  std::vector<std::uint8_t> sender(2048);  // addresses, as the sender had them
  std::uint8_t* sent = sender.data() + 8;
  const BatchPageInfo list[] = {{sent, 40}, {sent + 40, 10}, {sent + 50, 1008}};
  Batch* batch = nullptr;
  ASSERT_TRUE(Batch_FromPageSizes(&batch, list, 3));
  EXPECT_EQ(batch->nextFree, nullptr);
  auto* newest = static_cast<std::uint8_t*>(Batch_PageAt(batch, 0));
  auto* middle = static_cast<std::uint8_t*>(Batch_PageAt(batch, 1));
  std::memset(Batch_PageAt(batch, 2), 7, 1008);
  for (int i = 0; i < 3; ++i) (void)Take(batch, 400);  // blocks before the shipped ones
  const auto lands = [&](std::uint8_t* at) {
    void* pointer = at;
    const bool found = Batch_TranslatePointer(batch, list, 3, &pointer);
    EXPECT_TRUE(found || pointer == at);
    return found ? static_cast<std::uint8_t*>(pointer) : nullptr;
  };
  EXPECT_EQ(lands(sent), newest);
  EXPECT_EQ(lands(sent + 39), newest + 39);
  EXPECT_EQ(lands(sent + 40), middle);
  EXPECT_EQ(lands(sent + 49), middle + 9);
  EXPECT_EQ(lands(sent - 1), nullptr);
  EXPECT_EQ(lands(sent + 50 + 1008), nullptr);
  Batch_Destroy(batch);

  // More pages than there are, and sizes that no block has.
  void* pointer = sent;
  EXPECT_FALSE(Batch_TranslatePointer(&batch_, list, 3, &pointer));
  const BatchPageInfo endless[] = {{sent, ~std::uint64_t{0}}, {sent, 8}};
  batch = nullptr;
  EXPECT_FALSE(Batch_FromPageSizes(&batch, endless, 2));
  EXPECT_EQ(batch, nullptr);
}

TEST_F(BatchTest, AnAttachedPageIsLost) {
  auto* page = static_cast<BatchPage*>(Heap_Allocate(sizeof(BatchPage) + 24));
  *page = {nullptr, 1, 24, 9};
  Batch_AttachPage(&batch_, page);
  EXPECT_EQ(Batch_PageAt(&batch_, 0), page + 1);
  Batch_Release(&batch_, page + 1);  // a page now
  EXPECT_EQ(Sizes(), (std::vector<std::uint64_t>{24}));
}

TEST_F(BatchTest, AnEmptyHeapIsPassedOver) {
  const TextRecord record = {{"1", nullptr, nullptr, nullptr, "5"}, 6, "7"};
  const std::string longText(600, 'x');
  const std::u16string longWide(600, u'x');
  const BatchPageInfo list[] = {{nullptr, 8}, {nullptr, 8}};
  const auto isRefused = [&](std::uint64_t at, auto operation) {
    Batch empty;
    Batch_Init(&empty, kNoPageLimit);
    heap_gate::Arm(at);
    const bool refused = operation(&empty);
    heap_gate::Disarm();
    Batch_Destroy(&empty);
    return refused;
  };
  EXPECT_TRUE(isRefused(1, [](Batch*) { return Batch_Create(0) == nullptr; }));
  EXPECT_TRUE(isRefused(1, [](Batch*) { return Batch_Create(1) == nullptr; }));
  EXPECT_TRUE(isRefused(1, [](Batch* b) { return Batch_Alloc(b, 8) == nullptr; }));
  EXPECT_TRUE(isRefused(1, [](Batch* b) { return Batch_AllocZero(b, 600) == nullptr; }));
  EXPECT_TRUE(isRefused(1, [](Batch* b) { return Batch_Realloc(b, "1", 2, 8) == nullptr; }));
  EXPECT_TRUE(isRefused(1, [&](Batch* b) { return !Batch_DupNarrow(b, longText.c_str()); }));
  EXPECT_TRUE(isRefused(1, [&](Batch* b) { return !Batch_DupText(b, longWide.c_str()); }));
  EXPECT_TRUE(isRefused(1, [&](Batch* b) { return !Batch_WidenText(b, longText.c_str()); }));
  EXPECT_TRUE(isRefused(1, [&](Batch* b) { return !Batch_NarrowText(b, longWide.c_str()); }));
  EXPECT_TRUE(isRefused(1, [&](Batch* b) { return !Batch_CloneTextRecord(b, &record); }));
  for (const std::uint64_t at : {1u, 2u})
    EXPECT_TRUE(isRefused(at, [&](Batch*) {
      Batch* made = nullptr;
      return !Batch_FromPageSizes(&made, list, 2) && made == nullptr;
    }));
  // Sizes that no heap has are refused before it is asked.
  for (const std::size_t size : {kMaxPayload + 1, ~std::size_t{0}, ~std::size_t{0} - 7})
    EXPECT_EQ(Batch_Alloc(&batch_, size), nullptr);
}

TEST(Size, AnOverflowIsTakenForASize) {
  std::size_t size = 0;
  EXPECT_EQ(Size_Add(1, 2, &size), 0u);
  EXPECT_EQ(size, 3u);
  EXPECT_EQ(Size_Add(~std::size_t{0}, 1, &size), 0x80070216u);
  EXPECT_EQ(size, 0xFFFFFFFFu);
  EXPECT_EQ(Size_Mul(~std::size_t{0} / 2, 2, &size), 0u);
  EXPECT_EQ(Size_Mul(~std::size_t{0} / 2 + 1, 2, &size), 0x80070216u);
  EXPECT_EQ(size, 0xFFFFFFFFu);
}

}  // namespace
}  // namespace stewardry
