#include "lab/firmware/input_rings.h"

#include <gtest/gtest.h>

#include <cstring>
#include <random>

#include "lab/firmware/kvm_console.h"
#include "lab/firmware/records.h"

namespace orrin {
namespace {

// The host's memory and its end of the rings.
class Region : public RegionAccess {
 public:
  void PokeRegion(std::uint32_t offset, ByteView bytes) override {
    ASSERT_LE(offset + bytes.size(), memory.size());
    std::memcpy(memory.data() + offset, bytes.data(), bytes.size());
    pokes.push_back(offset);
  }
  void PeekRegion(std::uint32_t offset, std::uint32_t count) override {
    EXPECT_EQ(count, kRingIndexes);
    asked.push_back(offset);
  }
  std::uint32_t Word(std::uint32_t offset) const {
    std::uint32_t word = 0;
    std::memcpy(&word, memory.data() + offset, sizeof(word));
    return word;
  }
  void SetWord(std::uint32_t offset, std::uint32_t word) {
    std::memcpy(memory.data() + offset, &word, sizeof(word));
  }
  void Answer(InputRing* ring) {
    ASSERT_FALSE(asked.empty());
    const std::uint32_t offset = asked.front();
    asked.erase(asked.begin());
    ring->Answer(ByteView(memory).subspan(offset, kRingIndexes));
  }
  // Takes at most `count` keys as the host does: nothing while the write index is 8189.
  void TakeKeys(std::uint32_t count) {
    const std::uint32_t write = Word(0);
    if (write >= kKeyboardRing.entries - 1) return;
    std::uint32_t read = Word(4);
    for (; read != write && count > 0; count--) {
      taken.push_back(Word(kRingIndexes + 4 * read));
      read = (read + 1) % kKeyboardRing.entries;
    }
    SetWord(4, read);
  }

  Bytes memory = Bytes(65536, 0xEE);
  std::vector<std::uint32_t> pokes;
  std::vector<std::uint32_t> asked;
  std::vector<std::uint32_t> taken;
};

class InputRingTest : public ::testing::Test {
 protected:
  InputRingTest() { ring.Reset(); }
  void Put(std::uint32_t count) {
    for (std::uint32_t i = 0; i < count; i++) ring.Put(BytesOf(next++));
    ring.Flush();
  }
  void AskAndAnswer() {
    ring.Ask();
    region.Answer(&ring);
  }

  Region region;
  InputRing ring{kKeyboardRing, region};
  std::uint32_t next = 1;
};

TEST_F(InputRingTest, IndexIsWrittenAfterItsEntries) {
  region.pokes.clear();
  Put(1);
  EXPECT_EQ(region.pokes, (std::vector<std::uint32_t>{kRingIndexes, 0}));
  EXPECT_EQ(region.Word(0), 1u);
  EXPECT_EQ(region.Word(4), 0u);
  EXPECT_EQ(region.Word(8), 1u);
}

// A host that stands still at the last place and a writer that waits for it would wait for ever.
TEST_F(InputRingTest, LastPlaceIsNotShownToAReaderAtTheFirst) {
  Put(20000);
  EXPECT_EQ(region.Word(0), 8188u);
  EXPECT_TRUE(ring.IsBlocked());
  region.TakeKeys(1);
  AskAndAnswer();
  EXPECT_EQ(region.Word(0), 0u);  // past the last place in one step, with one entry left free
  EXPECT_EQ(ring.Waiting(), 20000u - 8190u);
}

TEST_F(InputRingTest, HostAtAnyPaceGetsEveryEntryInOrder) {
  std::minstd_rand engine(7);
  const auto random = [&engine] { return static_cast<std::uint32_t>(engine() >> 8); };
  std::uint32_t sent = 0;
  constexpr std::uint32_t kAll = 60000;
  for (int round = 0; region.taken.size() < kAll && round < 200000; round++) {
    const std::uint32_t some = std::min(kAll - sent, random() % 3000 * (random() % 3 == 0));
    Put(some);
    sent += some;
    region.TakeKeys(random() % 4000 + 1);
    ring.Ask();
    if (random() % 2 == 0) {
      while (!region.asked.empty()) region.Answer(&ring);
    }
    if (sent == kAll && region.Word(0) == 8189) Put(1);  // it moves on with the next event
  }
  ASSERT_GE(region.taken.size(), kAll);
  for (std::uint32_t i = 0; i < kAll; i++) ASSERT_EQ(region.taken[i], i + 1);
  EXPECT_EQ(ring.Dropped(), 0u);
}

TEST_F(InputRingTest, WhatFindsNoPlaceIsCounted) {
  Put(8188);
  EXPECT_EQ(ring.Waiting(), 0u);
  Put(InputRing::kMaxWaiting + 3);
  EXPECT_EQ(ring.Waiting(), InputRing::kMaxWaiting);
  EXPECT_EQ(ring.Dropped(), 3u);
}

TEST_F(InputRingTest, ReadIndexOutsideTheRingIsPassedOver) {
  for (const std::uint32_t index : {8190u, 0xFFFFFFFFu}) {
    region.SetWord(4, index);
    AskAndAnswer();
    Put(1);
  }
  EXPECT_EQ(region.Word(0), 2u);
  ring.Answer(Bytes(3));
  Put(1);
  EXPECT_EQ(region.Word(0), 3u);
}

TEST_F(InputRingTest, KeysOfOneViewerAreNotPlayedToTheNext) {
  Put(9000);
  region.TakeKeys(100);
  ring.Ask();  // answered before the host has stopped taking
  region.TakeKeys(50);
  ring.Abandon();
  EXPECT_FALSE(ring.IsBlocked());
  Put(2);  // of the next viewer, too early
  region.Answer(&ring);
  EXPECT_EQ(region.Word(0), 8188u);
  region.Answer(&ring);
  EXPECT_EQ(region.Word(0), 152u);
  region.taken.clear();
  region.TakeKeys(9000);
  EXPECT_EQ(region.taken, (std::vector<std::uint32_t>{9001, 9002}));
}

TEST_F(InputRingTest, PointerRingLiesBehindTheKeyboard) {
  InputRing pointer(kPointerRing, region);
  pointer.Reset();
  pointer.Put(BytesOf(PointerEntry{5, 319, -1}));
  pointer.Flush();
  EXPECT_EQ(region.Word(32768), 1u);
  EXPECT_EQ(region.Word(32772), 0u);
  EXPECT_EQ(region.Word(32776), 5u);
  EXPECT_EQ(region.Word(32780), 319u);
  EXPECT_EQ(region.Word(32784), 0xFFFFFFFFu);
  for (int i = 0; i < 3000; i++) pointer.Put(BytesOf(PointerEntry{0, i, 0}));
  pointer.Flush();
  EXPECT_EQ(region.Word(32768), 2728u);
  EXPECT_EQ(region.memory[65535], 0xEE);  // its last entry is still untouched
}

TEST(KeyEntry, HasTheLow16BitsAndTheTopOne) {
  EXPECT_EQ(KeyEntry(0x41, true), 0x80000041u);
  EXPECT_EQ(KeyEntry(0x41, false), 0x00000041u);
  EXPECT_EQ(KeyEntry(0x010020AC, true), 0x800020ACu);
}

class Kvm : public KvmOutput {
 public:
  void SendKvmBytes(ByteView bytes) override {
    sent.insert(sent.end(), bytes.begin(), bytes.end());
  }
  void SendCommand(std::uint8_t code) override { commands.push_back(code); }
  bool HasRoom() const override { return true; }
  void PokeInput(std::uint32_t offset, ByteView) override { pokes.push_back(offset); }
  void PeekInput(std::uint32_t offset, std::uint32_t) override { peeks.push_back(offset); }
  void Say(const std::string&) override {}

  Bytes sent;
  Bytes commands;
  std::vector<std::uint32_t> pokes;
  std::vector<std::uint32_t> peeks;
};

TEST(KvmConsole, RingsAreEmptiedForANewHostOnly) {
  Kvm output;
  KvmConsole console(output);
  console.HostArrived();
  console.SetWithholds(true);
  console.RegionWanted();
  EXPECT_TRUE(output.pokes.empty());
  console.SetWithholds(false);
  console.RegionWanted();
  EXPECT_EQ(output.pokes, (std::vector<std::uint32_t>{0, 32768}));
  console.RegionReturned();
  console.RegionWanted();
  EXPECT_EQ(output.pokes.size(), 2u);
  EXPECT_EQ(output.peeks, (std::vector<std::uint32_t>{0, 32768}));
  console.HostLeft();
  console.HostArrived();
  console.RegionWanted();
  EXPECT_EQ(output.pokes.size(), 4u);
}

TEST(KvmConsole, StalledScreenSaysNothingAndHoldsABoundedStream) {
  Kvm output;
  KvmConsole console(output);
  console.Receive(Bytes(5));  // announced by nobody
  console.SetStalled(true);
  console.Begin();
  console.Receive(ViewOf("RFB 003.008\n"));
  console.Pump();
  EXPECT_TRUE(output.sent.empty());
  console.SetStalled(false);
  console.Pump();
  EXPECT_EQ(TextOf(output.sent), std::string_view("RFB 003.008\n\1\1", 14));
  console.SetStalled(true);
  for (int i = 0; i < 17; i++) console.Receive(Bytes(65536));
  EXPECT_EQ(output.commands, Bytes{0x23});
  console.End("test");
  console.SetStalled(false);
}

}  // namespace
}  // namespace orrin
