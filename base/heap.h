// The heap behind the library: every block that it takes comes from here and goes back here. So a
// test can let the n-th request fail, whichever operation makes it, and blocks of one page, of
// which batches take and free the most, are kept for the next batch of the same thread.
#pragma once

#include <cstddef>
#include <cstdint>

namespace stewardry {

// The size of a batch's page, header included.
constexpr std::size_t kPageBlockSize = 1024;

// At least `size` bytes, aligned for any object, not zeroed; empty when there are none. Any thread.
void* Heap_Allocate(std::size_t size);

// The block with its content, cut or grown to `size`; empty when that can't be had, and the old
// block stays. An empty block is allocated. Any thread.
void* Heap_Reallocate(void* block, std::size_t size);

// Gives a block of the two above back; an empty one does nothing. Any thread.
void Heap_Free(void* block);

// A block of kPageBlockSize bytes, else as Heap_Allocate: a kept one, if there is any. Heap_Free
// takes it as well. Any thread.
void* Heap_AllocatePage();

// Frees a block that has at least kPageBlockSize bytes, whichever operation gave it, or keeps it
// for this thread's next page. At its end a thread frees what it keeps.
void Heap_FreePage(void* block);

// For tests. One scenario at a time; the requests of all threads count.
namespace heap_gate {

// From now on requests are counted, and the `failAt`-th from here, if that isn't 0, is refused.
void Arm(std::uint64_t failAt);
// Requests since Arm, the refused one included.
std::uint64_t Requests();
void Disarm();

}  // namespace heap_gate

}  // namespace stewardry
