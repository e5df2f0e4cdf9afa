// The shared rings and what the mouse pump makes of an entry.
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <memory>
#include <thread>
#include <vector>

#include "service/kvm/mouse_pump.h"
#include "service/kvm/shared_region.h"

namespace stewardry {
namespace {

class Rings : public ::testing::Test {
 protected:
  Rings() : region_(std::make_unique<SharedRegion>()) {
    for (std::uint32_t i = 0; i < KeyboardRing::kEntries; ++i) Keyboard().entries[i] = i;
  }
  KeyboardRing& Keyboard() { return region_->keyboard; }
  // The entries that one run takes.
  std::vector<std::uint32_t> Drain() {
    std::vector<std::uint32_t> taken;
    (void)DrainRing(&Keyboard(), stop_, [&](std::uint32_t entry) { taken.push_back(entry); });
    return taken;
  }

  std::unique_ptr<SharedRegion> region_;
  std::atomic<bool> stop_{false};
};

TEST_F(Rings, AnEntryIsLostOrTakenTwiceAroundTheWrap) {
  EXPECT_EQ(Drain(), std::vector<std::uint32_t>());
  Keyboard().writeIndex = 2;
  EXPECT_EQ(Drain(), (std::vector<std::uint32_t>{0, 1}));
  EXPECT_EQ(Keyboard().readIndex, 2u);
  EXPECT_EQ(Drain(), std::vector<std::uint32_t>());

  Keyboard().readIndex = 8187;
  Keyboard().writeIndex = 8188;
  EXPECT_EQ(Drain(), (std::vector<std::uint32_t>{8187}));
  Keyboard().writeIndex = 8189;  // a legal index, at which the consumer stands still
  EXPECT_EQ(Drain(), std::vector<std::uint32_t>());
  EXPECT_EQ(Keyboard().readIndex, 8188u);
  Keyboard().writeIndex = 0;
  EXPECT_EQ(Drain(), (std::vector<std::uint32_t>{8188, 8189}));
  EXPECT_EQ(Keyboard().readIndex, 0u);
  Keyboard().readIndex = 8189;
  Keyboard().writeIndex = 1;
  EXPECT_EQ(Drain(), (std::vector<std::uint32_t>{8189, 0}));
}

TEST_F(Rings, AnIndexLeadsOutOfTheRing) {
  for (const std::uint32_t writeIndex : {8189u, 8190u, 0x7FFFFFFFu, 0xFFFFFFFFu}) {
    Keyboard().writeIndex = writeIndex;
    EXPECT_EQ(Drain(), std::vector<std::uint32_t>()) << writeIndex;
  }
  for (const std::uint32_t readIndex : {8190u, 8191u, 0x80000000u, 0xFFFFFFFFu}) {
    Keyboard().readIndex = readIndex;
    Keyboard().writeIndex = 2;
    EXPECT_EQ(Drain(), (std::vector<std::uint32_t>{0, 1})) << readIndex;
    Keyboard().readIndex = readIndex;
    Keyboard().writeIndex = 0;
    EXPECT_EQ(Drain(), std::vector<std::uint32_t>()) << readIndex;
    EXPECT_EQ(Keyboard().readIndex, 0u);
  }
}

TEST_F(Rings, AStoppedRunGoesOnToItsEnd) {
  Keyboard().writeIndex = 100;
  std::uint32_t taken = 0;
  EXPECT_TRUE(DrainRing(&Keyboard(), stop_, [&](std::uint32_t) { stop_ = ++taken == 3; }));
  EXPECT_EQ(taken, 3u);
  EXPECT_EQ(Keyboard().readIndex, 3u);
}

// Where the producer puts the next entry; waits while there is no room. The last legal index, at
// which the consumer stands still, is passed only with room for the entry behind it: a producer
// that waited there would wait for ever.
std::uint32_t AwaitRoom(MouseRing* ring, std::uint32_t at) {
  const std::uint32_t next = at + 1 == MouseRing::kEntries ? 0 : at + 1;
  for (;;) {
    const std::uint32_t read = std::atomic_ref(ring->readIndex).load(std::memory_order_acquire);
    if (read != next && (next != MouseRing::kEntries - 1 || read != 0)) return next;
    std::this_thread::yield();
  }
}

// The producer as the firmware is: entry first, then the index, one entry always free.
TEST_F(Rings, AnEntryIsSeenBeforeItWasWritten) {
  constexpr std::uint32_t kCount = 50'000;
  std::thread firmware([&] {
    MouseRing& ring = region_->mouse;
    std::uint32_t at = 0;
    for (std::uint32_t i = 1; i <= kCount; ++i) {
      const std::uint32_t next = AwaitRoom(&ring, at);
      std::atomic_ref(ring.entries[at].buttonMask).store(i, std::memory_order_relaxed);
      std::atomic_ref(ring.entries[at].x).store(i, std::memory_order_relaxed);
      std::atomic_ref(ring.entries[at].y).store(i, std::memory_order_relaxed);
      std::atomic_ref(ring.writeIndex).store(next, std::memory_order_release);
      at = next;
    }
  });
  std::uint32_t expected = 1, wrong = 0;
  const std::uint32_t last = kCount % MouseRing::kEntries < MouseRing::kEntries - 1 ? kCount : 0;
  ASSERT_EQ(last, kCount) << "the run would end where the consumer stands still";
  while (expected <= kCount)
    if (!DrainRing(&region_->mouse, stop_, [&](const mouseBufferRingData& entry) {
          wrong += entry.buttonMask != expected || entry.x != expected || entry.y != expected;
          ++expected;
        }))
      std::this_thread::yield();
  firmware.join();
  EXPECT_EQ(wrong, 0u);
}

bool Straight() { return false; }
bool Swapped() { return true; }

struct MouseCase {
  const char* name;
  mouseBufferRingData last, entry;
  std::uint32_t flags;
  std::int32_t wheel;
  std::uint32_t swappedFlags;
};

TEST(MouseTranslation, AChangeIsMissedOrToldTwice) {
  for (const MouseCase& each : {
           MouseCase{"nothing", {0, 0, 0}, {0, 0, 0}, 0x8000, 0, 0x8000},
           {"moved, left down", {0, 0, 0}, {1, 5, 0}, 0x8003, 0, 0x8009},
           {"left held", {1, 5, 5}, {1, 5, 5}, 0x8000, 0, 0x8000},
           {"left up", {1, 5, 5}, {0, 5, 5}, 0x8004, 0, 0x8010},
           {"right down", {0, 5, 5}, {4, 5, 5}, 0x8008, 0, 0x8002},
           {"right up", {4, 5, 5}, {0, 5, 5}, 0x8010, 0, 0x8004},
           {"middle", {0, 0, 0}, {2, 0, 0}, 0x8020, 0, 0x8020},
           {"middle up, moved", {2, 0, 0}, {0, 0, 1}, 0x8041, 0, 0x8041},
           {"wheel up", {0, 0, 0}, {8, 0, 0}, 0x8800, 120, 0x8800},
           {"wheel still up is a second notch", {8, 0, 0}, {8, 0, 0}, 0x8800, 120, 0x8800},
           {"wheel let go", {8, 0, 0}, {0, 0, 0}, 0x8000, 0, 0x8000},
           {"wheel down", {0, 0, 0}, {16, 0, 0}, 0x8800, -120, 0x8800},
           {"both: down wins", {0, 0, 0}, {24, 0, 0}, 0x8800, -120, 0x8800},
           {"all buttons at once", {0, 0, 0}, {7, 0, 0}, 0x802A, 0, 0x802A},
           {"bits that aren't read", {0, 0, 0}, {0xFFFFFFE0, 0, 0}, 0x8000, 0, 0x8000},
       }) {
    gLastMouseRingData = each.last;
    const mouseInfo straight = TranslateMouseEntry(each.entry, 1024, 768, Straight);
    EXPECT_EQ(straight.flags, each.flags) << each.name;
    EXPECT_EQ(straight.dwData, each.wheel) << each.name;
    EXPECT_EQ(TranslateMouseEntry(each.entry, 1024, 768, Swapped).flags, each.swappedFlags)
        << each.name;
  }
  gLastMouseRingData = {};
}

TEST(MouseTranslation, APlaceIsScaledBeyondTheRange) {
  const auto place = [](std::uint32_t x, std::uint32_t y) {
    const mouseInfo message = TranslateMouseEntry({0, x, y}, 1920, 1080, Straight);
    return std::pair(message.dx, message.dy);
  };
  EXPECT_EQ(place(0, 0), std::pair(0u, 0u));
  EXPECT_EQ(place(1919, 1079), std::pair(65535u, 65535u));
  EXPECT_EQ(place(960, 540), std::pair(32784u, 32797u));
  // Beyond any screen the 32-bit product wraps, and what comes of it is no more than a place.
  EXPECT_EQ(place(0xFFFFFFFF, 65536).first, static_cast<std::uint32_t>(-65535 / 1919));
  EXPECT_EQ(place(0, 65536).second, static_cast<std::uint32_t>(-65536 / 1079));
  EXPECT_EQ(TranslateMouseEntry({0, 0x80008000, 0}, 2, 2, Straight).dx,
            static_cast<std::uint32_t>(static_cast<std::int32_t>(0x80008000u * 65535u)));
}

TEST(MouseTranslation, TheWheelsBytesAreAnothers) {
  gLastMouseRingData = {};
  const mouseInfo message = TranslateMouseEntry({16, 0, 0}, 1024, 768, Straight);
  unsigned char bytes[sizeof message];
  std::memcpy(bytes, &message, sizeof bytes);
  EXPECT_EQ((std::vector<unsigned char>(bytes + 12, bytes + 16)),
            (std::vector<unsigned char>{0x88, 0xFF, 0xFF, 0xFF}));
}

}  // namespace
}  // namespace stewardry
