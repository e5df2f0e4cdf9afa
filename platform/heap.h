// Heap blocks that platform calls fill. Each is aligned for any object; its owner is empty if
// allocation fails.
#pragma once

#include <cstddef>

#include "platform/handle.h"

namespace platform {

void HeapFree(RawHandle raw);
using HeapBlock = Owned<struct HeapBlockTag, HeapFree>;

// Allocates from the process heap, not zeroed.
HeapBlock HeapAlloc(std::size_t size);

void LocalFree(RawHandle raw);
using LocalBlock = Owned<struct LocalBlockTag, LocalFree>;

// Allocates a zeroed block (LocalAlloc with LPTR).
LocalBlock LocalAlloc(std::size_t size);

}  // namespace platform
