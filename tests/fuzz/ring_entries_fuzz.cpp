// Fuzz target: a shared region as a firmware might leave it, with any indexes and entries, through
// both consumers with a keyboard that answers from the same bytes. The region is a heap block of
// its own, so that a sanitizer reports a read beyond it.
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "service/kvm/key_translation.h"
#include "service/kvm/kvm_state.h"
#include "service/kvm/mouse_pump.h"
#include "service/kvm/shared_region.h"

namespace stewardry {
namespace {

std::uint32_t gAnswers;  // what the layout answers next

std::uint32_t Answer() { return gAnswers = gAnswers * 1664525 + 1013904223; }

constexpr KeyboardHost kHost = {
    [](std::uint8_t) { return static_cast<std::uint16_t>(Answer() >> 16); },
    [](std::uint8_t) { return static_cast<std::uint8_t>(Answer() >> 24); },
    [](std::uint8_t, const KeyStates&) { return static_cast<int>(Answer()); },
    [] { return (Answer() >> 31) != 0; },
    [](std::uint8_t) { return (Answer() >> 31) != 0; },
    [](std::uint8_t, std::uint8_t, std::uint32_t flags) {
      if ((flags & ~(kKeyExtended | kKeyUp)) != 0) std::abort();
    },
    [](const char*) {},
};

}  // namespace
}  // namespace stewardry

extern "C" int LLVMFuzzerInitialize(int*, char***) { return 0; }

// The input: four indexes, then the entries of both rings in turn, repeated over the region.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  using namespace stewardry;
  constexpr std::size_t kIndexes = 16;
  if (size < kIndexes + 4) return 0;
  const auto region = std::make_unique<SharedRegion>();
  auto* bytes = reinterpret_cast<std::uint8_t*>(region.get());
  for (std::size_t at = 0; at < sizeof(SharedRegion); at += size - kIndexes)
    std::memcpy(bytes + at, data + kIndexes, std::min(size - kIndexes, sizeof(SharedRegion) - at));
  std::memcpy(&region->keyboard.writeIndex, data, 4);
  std::memcpy(&region->keyboard.readIndex, data + 4, 4);
  std::memcpy(&region->mouse.writeIndex, data + 8, 4);
  std::memcpy(&region->mouse.readIndex, data + 12, 4);
  std::memcpy(&gAnswers, data + kIndexes, sizeof gAnswers);

  static const std::atomic<bool> stop{false};
  gKvm->gLastMouseRingData = {};
  DrainRing(&region->keyboard, stop, [](std::uint32_t entry) {
    ResetDeadKeys(kHost);
    KeyboardActionEvent(kHost, entry & 0xFFFF, (entry & 0x80000000) != 0);
  });
  DrainRing(&region->mouse, stop, [](const mouseBufferRingData& entry) {
    (void)TranslateMouseEntry(entry, 1024, 768, [] { return (Answer() >> 31) != 0; });
    gKvm->gLastMouseRingData = entry;
  });
  if (region->keyboard.readIndex >= KeyboardRing::kEntries &&
      region->keyboard.writeIndex < KeyboardRing::kEntries - 1)
    std::abort();
  return 0;
}
