#include "service/kvm/shared_region.h"

#include "platform/process.h"
#include "service/diagnostics/side_log.h"
#include "service/kvm/kvm_state.h"
#include "service/mailbox/request.h"

namespace stewardry {

namespace {

// The driver's answer.
struct KeyboardMouseBuffer {
  std::uint64_t address;
  std::uint64_t unread;
};
static_assert(sizeof(KeyboardMouseBuffer) == 16);

void StoreRegion(std::uint64_t address) {
  gKvm->KeyBoardBufferVirtualAddress.store(address, std::memory_order_relaxed);
  if (gKvm->gKeyboardTailReset.exchange(1, std::memory_order_relaxed) == 0) {
    auto* region = reinterpret_cast<SharedRegion*>(address);
    std::atomic_ref(region->keyboard.readIndex).store(0, std::memory_order_release);
  }
  SideLog(kSideLogKeyboardMouse, "KeyBoardBufferVirtualAddress High 0x%x low 0x%x \n",
          static_cast<std::uint32_t>(address >> 32), static_cast<std::uint32_t>(address));
  gKvm->MouseBufferVirtualAddress.store(address + offsetof(SharedRegion, mouse),
                                        std::memory_order_relaxed);
}

}  // namespace

bool IsSharedRegion(std::uint64_t address) {
  if (address == 0 || address % alignof(SharedRegion) != 0) return false;
  platform::MemoryInformation memory;
  if (!platform::VirtualQuery(address, &memory)) return false;
  const std::uint32_t access =
      memory.protect & 0xFF;  // the higher bits are caching and the guard page
  return memory.state == platform::kMemCommit && memory.type != platform::kMemImage &&
         (access == platform::kPageReadWrite || access == platform::kPageExecuteReadWrite) &&
         (memory.protect & platform::kPageGuard) == 0 &&
         memory.regionSize - (address - memory.baseAddress) >= sizeof(SharedRegion);
}

bool InitializeKeyboardMousePointers() {
  KeyboardMouseBuffer buffer{};
  RequestOutcome outcome;
  gKvm->KeyBoardBufferVirtualAddress.store(0, std::memory_order_relaxed);
  gKvm->MouseBufferVirtualAddress.store(0, std::memory_order_relaxed);
  if (ReadRecord<Operation::kInitializeKeyboardMousePointers>(&buffer, &outcome) != 0) return false;
  if (outcome.completed &&
      (outcome.bytes < sizeof buffer.address || !IsSharedRegion(buffer.address))) {
    SideLog(kSideLogKeyboardMouse, "Invalid keyboard and mouse buffer address\n");
    return false;
  }
  if (outcome.completed) StoreRegion(buffer.address);
  gKvm->gKeyboardMouseReady.store(1, std::memory_order_relaxed);
  return true;
}

void UninitializeKeyboardMousePointers() {
  gKvm->KeyBoardBufferVirtualAddress.store(0, std::memory_order_relaxed);
  gKvm->MouseBufferVirtualAddress.store(0, std::memory_order_relaxed);
  gKvm->gKeyboardMouseReady.store(0, std::memory_order_relaxed);
  SideLog(kSideLogKeyboardMouse, "Exit UninitializeKeyboardMousePointers\n");
}

}  // namespace stewardry
