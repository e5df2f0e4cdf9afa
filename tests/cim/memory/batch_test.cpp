#include "cim/memory/batch.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "cim/memory/heap.h"

namespace stewardry::cim {
namespace {

using BlockSizes = std::vector<std::uint64_t>;

class BatchTest : public ::testing::Test {
 protected:
  BatchTest() { Batch_Init(&batch_, kNoPageLimit); }
  ~BatchTest() override { Batch_Destroy(&batch_); }
  std::uint8_t* Take(std::size_t size) {
    return static_cast<std::uint8_t*>(Batch_Alloc(&batch_, size));
  }
  BlockSizes Sizes() {
    std::vector<BatchPageInfo> list(Batch_PageCount(&batch_));
    EXPECT_EQ(Batch_PageList(&batch_, list.data()), list.size());
    BlockSizes sizes;
    for (const BatchPageInfo& each : list) sizes.push_back(each.size);
    return sizes;
  }
  Batch batch_;
};

TEST_F(BatchTest, SmallRequestsShareAPageAndLargeOnesHaveABlockEach) {
  EXPECT_EQ(Take(0), nullptr);  // no page yet
  std::uint8_t* first = Take(1);
  EXPECT_EQ(Take(0), first + 8);
  EXPECT_EQ(Take(496), first + 8);  // leaves 504 of the page's 1008
  EXPECT_EQ(Sizes(), (BlockSizes{504}));
  std::uint8_t* second = Take(512);
  EXPECT_EQ(Sizes(), (BlockSizes{512, 1008}));  // 504 bytes stay unused
  std::uint8_t* alone = Take(513);
  EXPECT_EQ(Batch_PageAt(&batch_, 0), alone);
  EXPECT_EQ(Take(8), second + 512);
  EXPECT_EQ(Sizes(), (BlockSizes{520, 520, 1008}));
  // Impossible sizes are refused without a request to the heap.
  for (const std::size_t size : {kMaxPayload + 1, ~std::size_t{0}, ~std::size_t{0} - 7})
    EXPECT_EQ(Take(size), nullptr);
}

TEST_F(BatchTest, OnlyBlocksOfOneRequestAreReleased) {
  std::uint8_t* inPage = Take(8);
  std::uint8_t* alone = Take(600);
  std::uint8_t strange[8];
  for (const std::uint8_t* each : {inPage, strange, static_cast<std::uint8_t*>(nullptr), alone + 8})
    Batch_Release(&batch_, each);
  EXPECT_EQ(Sizes(), (BlockSizes{600, 8}));
  Batch_Release(&batch_, alone);
  EXPECT_EQ(Sizes(), (BlockSizes{8}));
}

TEST_F(BatchTest, CopiesKeepTheirContentAndUnusedBytesOfAPageAreZero) {
  alignas(8) std::uint8_t page[256];
  std::memset(page, 0xA5, sizeof page);  // as a heap's block may hold
  Batch_InitOnBuffer(&batch_, page, sizeof page, kNoPageLimit);
  EXPECT_STREQ(Batch_DupNarrow(&batch_, "text"), "text");
  EXPECT_EQ(std::u16string(Batch_WidenText(&batch_, "a\xE9")), u"a\xFFE9");
  EXPECT_STREQ(Batch_NarrowText(&batch_, u"a\u20ACz"), "a\xACz");
  const TextRecord record = {{"1", nullptr, "3", "4", "5"}, 6, "7"};
  TextRecord* copy = Batch_CloneTextRecord(&batch_, &record);
  EXPECT_STREQ(copy->texts[4], "5");
  EXPECT_EQ(copy->texts[1], nullptr);
  *copy = {};  // an address may contain the byte that is counted below
  char* grown = static_cast<char*>(Batch_Realloc(&batch_, "1234567", 8, 1000));
  EXPECT_EQ(std::string(grown, 1000), "1234567" + std::string(993, '\0'));
  EXPECT_NE(Batch_AllocZero(&batch_, 1), Batch_Realloc(&batch_, "c", 1, 1));
  (void)Take(512);  // the rest of the page stays unused
  EXPECT_EQ(std::count(page, std::end(page), 0xA5), 0);
}

TEST_F(BatchTest, ShippedPointersAreTranslatedToTheSameByte) {
  std::vector<std::uint8_t> sender(2048);  // addresses of the sender
  std::uint8_t* sent = sender.data() + 8;
  const BatchPageInfo list[] = {{sent, 40}, {sent + 40, 10}, {sent + 50, 1008}};
  Batch* batch = nullptr;
  ASSERT_TRUE(Batch_FromPageSizes(&batch, list, 3));
  auto* newest = static_cast<std::uint8_t*>(Batch_PageAt(batch, 0));
  auto* middle = static_cast<std::uint8_t*>(Batch_PageAt(batch, 1));
  std::memset(Batch_PageAt(batch, 2), 7, 1008);
  for (int i = 0; i < 3; ++i) (void)Batch_Alloc(batch, 400);  // blocks before the shipped ones
  const struct {
    std::uint8_t *sent, *found;
  } rows[] = {{sent, newest},          {sent + 39, newest + 39}, {sent + 40, middle},
              {sent + 49, middle + 9}, {sent - 1, nullptr},      {sent + 50 + 1008, nullptr}};
  for (const auto& row : rows) {
    void* pointer = row.sent;
    EXPECT_EQ(Batch_TranslatePointer(batch, list, 3, &pointer), row.found != nullptr);
    EXPECT_EQ(pointer, row.found != nullptr ? row.found : row.sent);
  }
  Batch_Destroy(batch);

  // A list of more pages than the batch has, and one with an impossible size.
  void* pointer = sent;
  EXPECT_FALSE(Batch_TranslatePointer(&batch_, list, 3, &pointer));
  const BatchPageInfo endless[] = {{sent, ~std::uint64_t{0}}, {sent, 8}};
  batch = nullptr;
  EXPECT_FALSE(Batch_FromPageSizes(&batch, endless, 2));
  EXPECT_EQ(batch, nullptr);
}

TEST_F(BatchTest, FailedAllocationReturnsNullAndLeavesNoBlock) {
  const BatchPageInfo list[] = {{nullptr, 8}, {nullptr, 8}};
  for (const std::uint64_t failAt : {1u, 2u}) {  // at the second page the first one is freed
    heap_gate::Arm(failAt);
    Batch* batch = nullptr;
    EXPECT_FALSE(Batch_FromPageSizes(&batch, list, 2));
    EXPECT_EQ(batch, nullptr);
  }
  heap_gate::Arm(1);
  EXPECT_EQ(Batch_Realloc(&batch_, "1", 2, 8), nullptr);
  heap_gate::Disarm();
  EXPECT_EQ(Batch_PageCount(&batch_), 0u);
}

}  // namespace
}  // namespace stewardry::cim
