// The heap of the library: all its blocks are allocated and freed here. So a test can make the n-th
// request fail, whichever operation makes it, and freed blocks of the two most frequent sizes are
// kept for the next batch of any thread.
#pragma once

#include <cstddef>
#include <cstdint>

namespace stewardry::cim {

// The sizes of blocks that are kept: a batch's page, header included, and the block that holds the
// body of a dynamic instance, a size for which malloc is slow.
constexpr std::size_t kPageBlockSize = 1024;
constexpr std::size_t kBodyBlockSize = 1536;

// Returns `size` bytes, aligned for any object, not zeroed; null if there are none. Any thread.
void* Heap_Allocate(std::size_t size);

// Returns the block with its content, cut or grown to `size`; null if that fails, and the old block
// stays. A null block makes it equivalent to Heap_Allocate. Any thread.
void* Heap_Reallocate(void* block, std::size_t size);

// Frees a block of the two above; ignores a null one. Any thread.
void Heap_Free(void* block);

// Does as Heap_Allocate for `size`, one of the two sizes above, and prefers a kept block. Heap_Free
// accepts the block too. Any thread.
void* Heap_AllocateKept(std::size_t size);

// Frees a block of any operation here that has at least `size` bytes, one of the two sizes above,
// or keeps it for the next request. Ignores a null one. Any thread.
void Heap_FreeKept(void* block, std::size_t size);

// For tests. One scenario at a time; requests of all threads are counted.
namespace heap_gate {

// Starts to count requests, and makes the `failAt`-th from here fail. 0 fails none.
void Arm(std::uint64_t failAt);
// Returns the number of requests since Arm, the failed one included.
std::uint64_t Requests();
void Disarm();

}  // namespace heap_gate

}  // namespace stewardry::cim
