#include "platform/heap.h"

#include <cassert>
#include <cstdlib>

#include "platform/linux/runtime/gate.h"

namespace platform {

void HeapFree(RawHandle raw) {
  gate::Note("HeapFree");
  assert(raw != nullptr);
  std::free(raw);
}

HeapBlock HeapAlloc(std::size_t size) {
  if (gate::Fails("HeapAlloc", "%zu", size)) return HeapBlock();
  return HeapBlock(std::malloc(size));
}

void LocalFree(RawHandle raw) {
  gate::Note("LocalFree");
  assert(raw != nullptr);
  std::free(raw);
}

LocalBlock LocalAlloc(std::size_t size) {
  if (gate::Fails("LocalAlloc", "%zu", size)) return LocalBlock();
  return LocalBlock(std::calloc(1, size));
}

}  // namespace platform
