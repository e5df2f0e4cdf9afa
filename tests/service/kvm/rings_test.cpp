#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "lab/local/served_pipe.h"
#include "service/kvm/agent.h"
#include "service/kvm/kvm_state.h"
#include "service/kvm/mouse_pump.h"
#include "service/kvm/pump_pace.h"

namespace stewardry {
namespace {

using Entries = std::vector<std::uint32_t>;

class Rings : public testing::Test {
 protected:
  Rings() {
    for (std::uint32_t i = 0; i < KeyboardRing::kEntries; ++i) keyboard_.entries[i] = i;
  }
  // Returns the entries that one run handles between these indexes.
  Entries Drain(std::uint32_t readIndex, std::uint32_t writeIndex) {
    keyboard_.readIndex = readIndex;
    keyboard_.writeIndex = writeIndex;
    Entries taken;
    const bool any =
        DrainRing(&keyboard_, stop_, [&](std::uint32_t entry) { taken.push_back(entry); });
    EXPECT_EQ(any, !taken.empty());
    return taken;
  }

  std::unique_ptr<SharedRegion> region_ = std::make_unique<SharedRegion>();
  KeyboardRing& keyboard_ = region_->keyboard;
  std::atomic<bool> stop_{false};
};

TEST_F(Rings, DrainTakesTheEntriesBetweenTheIndexesUntilItIsStopped) {
  struct Row {
    std::uint32_t readIndex, writeIndex;
    Entries taken;
    std::uint32_t readIndexAfter;
  };
  const Row rows[] = {
      {0, 0, {}, 0},
      {8187, 8188, {8187}, 8188},
      {8188, 8189, {}, 8188},  // the last legal index, at which the consumer waits
      {8188, 0, {8188, 8189}, 0},
      {8189, 1, {8189, 0}, 1},
      {0, 8190, {}, 0},
      {5, 0xFFFFFFFF, {}, 5},
      {8190, 2, {0, 1}, 2},  // an index outside the ring counts as 0
  };
  for (const Row& row : rows) {
    EXPECT_EQ(Drain(row.readIndex, row.writeIndex), row.taken) << row.readIndex;
    EXPECT_EQ(keyboard_.readIndex, row.readIndexAfter) << row.readIndex;
  }
  keyboard_.readIndex = 0;
  keyboard_.writeIndex = 100;
  EXPECT_TRUE(DrainRing(&keyboard_, stop_, [&](std::uint32_t entry) { stop_ = entry == 2; }));
  EXPECT_EQ(keyboard_.readIndex, 3u);
}

TEST_F(Rings, RegionLiesInMemoryOfItsSizeThatCanBeWritten) {
  alignas(SharedRegion) static SharedRegion image{{1, 0, {}}, {}};
  static const SharedRegion kConstant{{1, 0, {}}, {}};
  const auto at = [](const void* memory) { return reinterpret_cast<std::uint64_t>(memory); };
  EXPECT_TRUE(IsSharedRegion(at(region_.get())));
  for (const std::uint64_t address :
       {at(region_.get()) + 1, at(&image), at(&kConstant), std::uint64_t{0}, std::uint64_t{8},
        ~std::uint64_t{0} - sizeof(SharedRegion) + 1, std::uint64_t{0x7FFE0000}})
    EXPECT_FALSE(IsSharedRegion(address)) << address;
}

// The server of the pipe's name reads nothing.
TEST(AgentPipes, WriteToASilentServerReturns) {
  const std::string name =
      "StewardrySilentServer" + std::to_string(platform::GetCurrentProcessId());
  lab::ServedPipe server;
  std::string problem;
  ASSERT_TRUE(server.Open(name, &problem)) << problem;
  const std::string message(lab::kMoreThanAPipeHolds, 'm');
  WriteToAgentPipe(("\\\\.\\pipe\\" + name).c_str(), message.data(), lab::kMoreThanAPipeHolds);
}

// The producer writes as the firmware: the entry first, then the index. Each
// round's pump begins at rest.
TEST_F(Rings, PumpSeesEachEntryWholeAfterItWasWrittenUntilItIsStopped) {
  constexpr std::uint32_t kCount = MouseRing::kEntries - 2;  // up to the last legal index
  MouseRing& ring = region_->mouse;
  for (std::uint32_t round = 1; round <= 20; ++round) {
    ring.readIndex = ring.writeIndex = 0;
    std::thread firmware([&] {
      for (std::uint32_t i = 0; i < kCount; ++i) {
        for (std::uint32_t* field :
             {&ring.entries[i].buttonMask, &ring.entries[i].x, &ring.entries[i].y})
          std::atomic_ref(*field).store(round + i, std::memory_order_relaxed);
        std::atomic_ref(ring.writeIndex).store(i + 1, std::memory_order_release);
      }
    });
    std::uint32_t taken = 0, wrong = 0;
    const auto take = [&](const mouseBufferRingData& entry) {
      const std::uint32_t expected = round + taken++;
      wrong += entry.buttonMask != expected || entry.x != expected || entry.y != expected;
      stop_ = taken == kCount;
    };
    RunPump(&ring, stop_, take);
    firmware.join();
    stop_ = false;
    EXPECT_EQ(wrong, 0u);
  }
}

TEST(MouseTranslation, FlagsFollowTheChangeOfButtonsAndPlace) {
  struct Row {
    const char* name;
    mouseBufferRingData last, entry;
    std::uint32_t flags;
    std::int32_t wheel;
    std::uint32_t swappedFlags;
  };
  constexpr Row kRows[] = {
      {"moved, left down", {0, 0, 0}, {1, 5, 0}, 0x8003, 0, 0x8009},
      {"left up", {1, 5, 5}, {0, 5, 5}, 0x8004, 0, 0x8010},
      {"right down", {0, 5, 5}, {4, 5, 5}, 0x8008, 0, 0x8002},
      {"right up", {4, 5, 5}, {0, 5, 5}, 0x8010, 0, 0x8004},
      {"middle up, moved", {2, 0, 0}, {0, 0, 1}, 0x8041, 0, 0x8041},
      {"wheel still up is a second notch", {8, 0, 0}, {8, 0, 0}, 0x8800, 120, 0x8800},
      {"wheel down", {0, 0, 0}, {16, 0, 0}, 0x8800, -120, 0x8800},
      {"both: down wins", {0, 0, 0}, {24, 0, 0}, 0x8800, -120, 0x8800},
      {"all buttons at once", {0, 0, 0}, {7, 0, 0}, 0x802A, 0, 0x802A},
      {"unused bits", {0, 0, 0}, {0xFFFFFFE0, 0, 0}, 0x8000, 0, 0x8000},
  };
  for (const Row& row : kRows) {
    gKvm->gLastMouseRingData = row.last;
    const mouseInfo straight = TranslateMouseEntry(row.entry, 1024, 768, [] { return false; });
    const mouseInfo swapped = TranslateMouseEntry(row.entry, 1024, 768, [] { return true; });
    EXPECT_EQ(straight.flags, row.flags) << row.name;
    EXPECT_EQ(straight.dwData, row.wheel) << row.name;
    EXPECT_EQ(swapped.flags, row.swappedFlags) << row.name;
  }
  gKvm->gLastMouseRingData = {};
}

TEST(MouseTranslation, PlaceIsScaledTo65535) {
  const auto place = [](std::uint32_t x, std::uint32_t y) {
    const mouseInfo message = TranslateMouseEntry({0, x, y}, 1920, 1080, nullptr);
    return std::pair(message.dx, message.dy);
  };
  EXPECT_EQ(place(0, 0), std::pair(0u, 0u));
  EXPECT_EQ(place(1919, 1079), std::pair(65535u, 65535u));
  EXPECT_EQ(place(960, 540), std::pair(32784u, 32797u));
  // Outside any screen the 32-bit product wraps.
  EXPECT_EQ(place(0xFFFFFFFF, 65536), std::pair(static_cast<std::uint32_t>(-65535 / 1919),
                                                static_cast<std::uint32_t>(-65536 / 1079)));
}

}  // namespace
}  // namespace stewardry
