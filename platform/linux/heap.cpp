// The process heap.
#include "platform/heap.h"

#include <cstdlib>

#include "platform/linux/gate.h"

namespace platform {

void HeapFree(RawHandle raw) {
  gate::Note("HeapFree");
  std::free(raw);
}

HeapBlock HeapAlloc(std::size_t size) {
  if (gate::Fails("HeapAlloc", "%zu", size)) return HeapBlock();
  return HeapBlock(std::malloc(size));
}

}  // namespace platform
