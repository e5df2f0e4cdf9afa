// The memory that firmware and service share: two sections, mapped into the service's process when
// the firmware answers its request, and into the bridge's for the firmware's access. A process can
// unmap its view at any time, so the driver accesses it through GuardedCopy only.
#include <atomic>

#include "lab/driver/mailbox.h"

// Copies `size` bytes. Returns 0 if the processor faults on one of the addresses. GCC has no __try,
// so the function has its own unwind data: a scope table of one entry, whose filter is the constant
// 1 (EXCEPTION_EXECUTE_HANDLER). It copies words of four bytes, then the rest, because the service
// may read an index of a ring at the same time and must see it whole.
extern "C" int GuardedCopy(void* to, const void* from, SIZE_T size);
asm(R"(
  .text
  .globl GuardedCopy
  .def GuardedCopy; .scl 2; .type 32; .endef
  .seh_proc GuardedCopy
GuardedCopy:
  pushq %rdi
  .seh_pushreg %rdi
  pushq %rsi
  .seh_pushreg %rsi
  subq $40, %rsp
  .seh_stackalloc 40
  .seh_endprologue
  movq %rcx, %rdi
  movq %rdx, %rsi
  movq %r8, %rcx
  shrq $2, %rcx
.LguardedBegin:
  rep movsl
  movq %r8, %rcx
  andq $3, %rcx
  rep movsb
.LguardedEnd:
  movl $1, %eax
.LguardedLeave:
  addq $40, %rsp
  popq %rsi
  popq %rdi
  ret
.LguardedFault:
  xorl %eax, %eax
  jmp .LguardedLeave
  .seh_handler __C_specific_handler, @except
  .seh_handlerdata
  .long 1
  .rva .LguardedBegin, .LguardedEnd
  .long 1
  .rva .LguardedFault
  .text
  .seh_endproc
)");

namespace tavrin {

namespace {

constexpr auto& kRegion = lablink::kRegionTable;
static_assert(sizeof kRegion == kRegions * sizeof kRegion[0]);

HANDLE gSections[kRegions];
// The views in the bridge's process. Used by the bridge's calls only, which come one at a time.
PVOID gBridgeViews[kRegions];

PVOID Map(ULONG region, HANDLE process) {
  PVOID base = nullptr;
  SIZE_T size = 0;
  LARGE_INTEGER offset{};
  const NTSTATUS status = ZwMapViewOfSection(gSections[region], process, &base, 0, 0, &offset,
                                             &size, ViewUnmap, 0, PAGE_READWRITE);
  return NT_SUCCESS(status) ? base : nullptr;
}

// Opens the process of that id. Returns null if it has exited. The caller closes it.
HANDLE OpenProcess(HANDLE id) {
  OBJECT_ATTRIBUTES attributes;
  InitializeObjectAttributes(&attributes, nullptr, OBJ_KERNEL_HANDLE, nullptr, nullptr);
  CLIENT_ID client{id, nullptr};
  HANDLE process = nullptr;
  const NTSTATUS status = ZwOpenProcess(&process, PROCESS_ALL_ACCESS, &attributes, &client);
  return NT_SUCCESS(status) ? process : nullptr;
}

// Returns the bytes of a region in the bridge's view; null beyond its bounds.
UCHAR* BridgeBytes(UINT64 region, UINT32 offset, ULONG size) {
  if (region >= kRegions) return nullptr;
  if (offset > kRegion[region].size || size > kRegion[region].size - offset) return nullptr;
  PVOID& view = gBridgeViews[region];
  if (view == nullptr) view = Map(static_cast<ULONG>(region), ZwCurrentProcess());
  return view == nullptr ? nullptr : static_cast<UCHAR*>(view) + offset;
}

}  // namespace

NTSTATUS CreateRegions() {
  OBJECT_ATTRIBUTES attributes;
  InitializeObjectAttributes(&attributes, nullptr, OBJ_KERNEL_HANDLE, nullptr, nullptr);
  for (ULONG i = 0; i < kRegions; ++i) {
    LARGE_INTEGER size;
    size.QuadPart = kRegion[i].size;
    const NTSTATUS status = ZwCreateSection(&gSections[i], SECTION_ALL_ACCESS, &attributes, &size,
                                            PAGE_READWRITE, SEC_COMMIT, nullptr);
    if (!NT_SUCCESS(status)) {
      CloseRegions();
      return status;
    }
  }
  return STATUS_SUCCESS;
}

void CloseRegions() {
  for (HANDLE& section : gSections) {
    if (section != nullptr) ZwClose(section);
    section = nullptr;
  }
}

ULONG RegionAskedFor(ULONG code) {
  for (ULONG i = 0; i < kRegions; ++i)
    if (kRegion[i].requestCode == code) return i;
  return kRegions;
}

ULONG RegionGivenBack(ULONG code) {
  for (ULONG i = 0; i < kRegions; ++i)
    if (kRegion[i].releaseCode == code) return i;
  return kRegions;
}

PVOID MapFor(Handle* handle, HANDLE process, ULONG region) {
  if (handle->views[region] != nullptr && handle->process == process) return handle->views[region];
  const HANDLE owner = OpenProcess(process);
  if (owner == nullptr) return nullptr;
  handle->views[region] = Map(region, owner);
  handle->process = process;
  ZwClose(owner);
  return handle->views[region];
}

void UnmapFor(Handle* handle, ULONG region) {
  PVOID view = handle->views[region];
  handle->views[region] = nullptr;
  if (view == nullptr) return;
  const HANDLE owner = OpenProcess(handle->process);
  if (owner == nullptr) return;  // its views ended with the process
  ZwUnmapViewOfSection(owner, view);
  ZwClose(owner);
}

bool Poke(UINT64 region, UINT32 offset, const UCHAR* bytes, ULONG size) {
  UCHAR* to = BridgeBytes(region, offset, size);
  if (to == nullptr) return false;
  const bool copied = GuardedCopy(to, bytes, size) != 0;
  std::atomic_thread_fence(std::memory_order_release);  // a later write becomes visible later
  return copied;
}

bool Peek(UINT64 region, UINT32 offset, ULONG count) {
  const UCHAR* from = BridgeBytes(region, offset, count);
  if (from == nullptr) return false;
  // Copied before the lock, because the view may fault.
  auto* copy =
      static_cast<UCHAR*>(ExAllocatePoolWithTag(NonPagedPool, count == 0 ? 1 : count, kPoolTag));
  if (copy == nullptr) return false;
  bool sent = GuardedCopy(copy, from, count) != 0;
  if (sent) {
    Lock lock;
    sent = QueueMessage(lablink::kMemory, region, offset, copy, count);
  }
  ExFreePoolWithTag(copy, kPoolTag);
  return sent;
}

void UnmapBridge(FILE_OBJECT* file) {
  {
    Lock lock;
    if (gMailbox.bridge != file) return;
  }
  for (PVOID& view : gBridgeViews) {
    if (view != nullptr) ZwUnmapViewOfSection(ZwCurrentProcess(), view);
    view = nullptr;
  }
}

}  // namespace tavrin
