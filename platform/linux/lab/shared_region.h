// The memory that service and firmware share. The service reads and writes a region while the
// firmware does: an index, which is an aligned word, is moved whole, and earlier bytes become
// visible first.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace platform {

// Returns a region of this process, page-aligned; it lives until the process ends. Empty if there
// is no region of that number.
std::span<std::byte> SharedRegion(std::uint64_t region);

// Stores bytes of the firmware in a region. Ignores what doesn't lie within it.
void StoreInRegion(std::uint64_t region, std::uint32_t offset, std::span<const std::byte> bytes);

// Returns `count` bytes of a region, or as many as it has from `offset` on.
std::vector<std::byte> LoadFromRegion(std::uint64_t region, std::uint32_t offset,
                                      std::uint32_t count);

// Completes the output of a request. If `code` requests a region's address, a non-zero first 8
// bytes mean that the region exists; they are replaced by its address in this process.
void PlaceRegionAddress(std::uint32_t code, void* output, std::uint32_t bytes);

}  // namespace platform
