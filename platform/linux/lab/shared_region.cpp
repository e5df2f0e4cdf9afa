#include "platform/linux/lab/shared_region.h"

#include <algorithm>
#include <atomic>
#include <cassert>
#include <cstring>
#include <iterator>

#include "lablink/lab_link.h"

namespace platform {

namespace {

constexpr std::size_t kPage = 4096;
constexpr std::size_t kWord = sizeof(std::uint32_t);

std::size_t WholeWords(const std::byte* shared, std::size_t size) {
  return reinterpret_cast<std::uintptr_t>(shared) % kWord == 0 ? size / kWord * kWord : 0;
}

void StoreShared(std::span<std::byte> shared, std::span<const std::byte> from) {
  assert(shared.size() == from.size());
  const std::size_t words = WholeWords(shared.data(), from.size());
  for (std::size_t i = 0; i < words; i += kWord) {
    std::uint32_t word;
    std::memcpy(&word, &from[i], sizeof word);
    std::atomic_ref(*reinterpret_cast<std::uint32_t*>(&shared[i]))
        .store(word, std::memory_order_release);
  }
  for (std::size_t i = words; i < from.size(); ++i)
    std::atomic_ref(shared[i]).store(from[i], std::memory_order_release);
}

void LoadShared(std::span<std::byte> to, std::span<std::byte> shared) {
  assert(to.size() == shared.size());
  const std::size_t words = WholeWords(shared.data(), to.size());
  for (std::size_t i = 0; i < words; i += kWord) {
    const std::uint32_t word = std::atomic_ref(*reinterpret_cast<std::uint32_t*>(&shared[i]))
                                   .load(std::memory_order_acquire);
    std::memcpy(&to[i], &word, sizeof word);
  }
  for (std::size_t i = words; i < to.size(); ++i)
    to[i] = std::atomic_ref(shared[i]).load(std::memory_order_acquire);
}

}  // namespace

std::span<std::byte> SharedRegion(std::uint64_t region) {
  alignas(kPage) static std::byte keyboardMouse[lablink::kKeyboardMouseRegionSize];
  alignas(kPage) static std::byte log[lablink::kLogRegionSize];
  if (region == lablink::kKeyboardMouseRegion) return keyboardMouse;
  if (region == lablink::kLogRegion) return log;
  return {};
}

void StoreInRegion(std::uint64_t region, std::uint32_t offset, std::span<const std::byte> bytes) {
  const std::span<std::byte> shared = SharedRegion(region);
  if (offset > shared.size() || bytes.size() > shared.size() - offset) return;
  StoreShared(shared.subspan(offset, bytes.size()), bytes);
}

std::vector<std::byte> LoadFromRegion(std::uint64_t region, std::uint32_t offset,
                                      std::uint32_t count) {
  const std::span<std::byte> shared = SharedRegion(region);
  if (offset > shared.size()) return {};
  std::vector<std::byte> bytes(std::min<std::size_t>(count, shared.size() - offset));
  LoadShared(bytes, shared.subspan(offset, bytes.size()));
  return bytes;
}

void PlaceRegionAddress(std::uint32_t code, void* output, std::uint32_t bytes) {
  for (std::size_t region = 0; region < std::size(lablink::kRegionTable); ++region) {
    std::uint64_t first = 0;
    if (lablink::kRegionTable[region].requestCode != code || bytes < sizeof first) continue;
    std::memcpy(&first, output, sizeof first);
    if (first == 0) return;
    first = reinterpret_cast<std::uint64_t>(SharedRegion(region).data());
    std::memcpy(output, &first, sizeof first);
  }
}

}  // namespace platform
