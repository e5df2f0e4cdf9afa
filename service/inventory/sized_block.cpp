// Blocks that grow once.
#include "service/inventory/sized_block.h"

namespace stewardry {

platform::HeapBlock AllocateFor(FillBlock fill, std::uint32_t tooSmall, std::uint32_t* size) {
  const std::uint32_t first = *size;
  platform::HeapBlock block = platform::HeapAlloc(first);
  if (!block) return block;
  if (fill(block.Raw(), size) == tooSmall) {
    block.Reset();  // before the new one, so that the two never stand side by side
    return platform::HeapAlloc(*size);
  }
  // Any other answer leaves the block as it is, whatever the call has made of the size.
  *size = first;
  return block;
}

}  // namespace stewardry
