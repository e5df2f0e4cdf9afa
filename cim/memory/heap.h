// The heap behind the library: every block that it takes comes from here and goes back here. So a
// test can let the n-th request fail, whichever operation makes it, and blocks of the two sizes
// that batches take and free the most are kept for the next batch of any thread.
#pragma once

#include <cstddef>
#include <cstdint>

namespace stewardry::cim {

// The sizes of blocks that are kept: a batch's page, header included, and what holds the body of a
// dynamic instance, for which malloc takes a long road.
constexpr std::size_t kPageBlockSize = 1024;
constexpr std::size_t kBodyBlockSize = 1536;

// At least `size` bytes, aligned for any object, not zeroed; empty when there are none. Any thread.
void* Heap_Allocate(std::size_t size);

// The block with its content, cut or grown to `size`; empty when that can't be had, and the old
// block stays. An empty block is allocated. Any thread.
void* Heap_Reallocate(void* block, std::size_t size);

// Gives a block of the two above back; an empty one does nothing. Any thread.
void Heap_Free(void* block);

// A block of `size` bytes, one of the two above, else as Heap_Allocate: a kept one, if there is
// any. Heap_Free takes it as well. Any thread.
void* Heap_AllocateKept(std::size_t size);

// Frees a block that has at least `size` bytes, one of the two above, whichever operation gave it,
// or keeps it for the next that asks. Any thread.
void Heap_FreeKept(void* block, std::size_t size);

// For tests. One scenario at a time; the requests of all threads count.
namespace heap_gate {

// From now on requests are counted, and the `failAt`-th from here, if that isn't 0, is refused.
void Arm(std::uint64_t failAt);
// Requests since Arm, the refused one included.
std::uint64_t Requests();
void Disarm();

}  // namespace heap_gate

}  // namespace stewardry::cim
