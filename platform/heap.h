// Blocks of the process heap for platform calls that fill a caller's block.
#pragma once

#include <cstddef>

#include "platform/handle.h"

namespace platform {

void HeapFree(RawHandle raw);
using HeapBlock = Owned<struct HeapBlockTag, HeapFree>;

// HeapAlloc(GetProcessHeap(), 0, size): aligned for any object; empty owner when there is none.
HeapBlock HeapAlloc(std::size_t size);

void LocalFree(RawHandle raw);
using LocalBlock = Owned<struct LocalBlockTag, LocalFree>;

// LocalAlloc(LPTR, size): a zeroed block, aligned for any object; empty owner when there is none.
LocalBlock LocalAlloc(std::size_t size);

}  // namespace platform
