// Blocks for the platform's list calls, which fill a caller's block and tell how large it should
// have been.
#pragma once

#include <cstdint>

#include "platform/heap.h"

namespace stewardry {

// Fills a block of *size bytes: 0 or an error; on the error for "too small" *size is what it needs.
using FillBlock = std::uint32_t (*)(void* block, std::uint32_t* size);

// Allocates *size bytes and tries `fill` on them; if it answers `tooSmall`, the block makes way for
// one of the size it asked for. The block's content doesn't count: the caller fills it again, and
// that call's result decides. An empty owner when the heap has no block. *size is the block's size.
platform::HeapBlock AllocateFor(FillBlock fill, std::uint32_t tooSmall, std::uint32_t* size);

}  // namespace stewardry
