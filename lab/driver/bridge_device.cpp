// The lab device. Each read returns one whole message of the lab link, each write carries one.
#include "lab/driver/mailbox.h"

namespace tavrin {

namespace {

FILE_OBJECT* FileOf(IRP* irp) { return IoGetCurrentIrpStackLocation(irp)->FileObject; }

void FreeBlocks(LIST_ENTRY* blocks) {
  while (!IsListEmpty(blocks))
    ExFreePoolWithTag(CONTAINING_RECORD(RemoveHeadList(blocks), Block, link), kPoolTag);
}

// Moves all entries of `from` to the empty list `to`.
void MoveEntries(LIST_ENTRY* from, LIST_ENTRY* to) {
  while (!IsListEmpty(from)) InsertTailList(to, RemoveHeadList(from));
}

// Carries out a message of the firmware.
NTSTATUS HandleMessage(const lablink::Head& head, const UCHAR* body) {
  switch (head.kind) {
    case lablink::kComplete:
      return Complete(head, body);
    case lablink::kFrame:
      return TakeFrame(body, head.length);
    case lablink::kFailRead:
      FailRead(head.word);
      return STATUS_SUCCESS;
    case lablink::kPoke:
      return Poke(head.id, head.word, body, head.length) ? STATUS_SUCCESS
                                                         : STATUS_INVALID_PARAMETER;
    case lablink::kPeek: {
      UINT32 count = 0;
      if (head.length < sizeof count) return STATUS_INVALID_PARAMETER;
      RtlCopyMemory(&count, body, sizeof count);
      return Peek(head.id, head.word, count) ? STATUS_SUCCESS : STATUS_INVALID_PARAMETER;
    }
    default:
      return STATUS_INVALID_PARAMETER;
  }
}

// Under the lock. Makes the first opener that transfers the bridge, and refuses the others.
NTSTATUS ClaimBridge(FILE_OBJECT* file) {
  if (!gMailbox.plugged) return STATUS_DEVICE_NOT_CONNECTED;
  if (gMailbox.bridge == nullptr) {
    gMailbox.bridge = file;
    ReportAll();
  }
  return gMailbox.bridge == file ? STATUS_SUCCESS : STATUS_SHARING_VIOLATION;
}

}  // namespace

void CancelBridgeReads(FILE_OBJECT* file) {
  for (;;) {
    IRP* irp = nullptr;
    {
      Lock lock;
      if (gMailbox.bridge != file) return;
      irp = TakeFirst(&gMailbox.bridgeReads);
    }
    if (irp == nullptr) return;
    Finish(irp, STATUS_CANCELLED, 0);
  }
}

void CloseBridge(FILE_OBJECT* file) {
  CancelBridgeReads(file);
  LIST_ENTRY undelivered;
  InitializeListHead(&undelivered);
  {
    Lock lock;
    if (gMailbox.bridge != file) return;
    gMailbox.bridge = nullptr;
    gMailbox.eventBytes = 0;
    MoveEntries(&gMailbox.events, &undelivered);
  }
  FreeBlocks(&undelivered);
}

bool QueueMessage(UINT32 kind, UINT64 id, UINT32 word, const void* first, ULONG firstSize,
                  const void* second, ULONG secondSize) {
  if (gMailbox.bridge == nullptr) return true;
  const lablink::Head head = lablink::MakeHead(kind, id, word, firstSize + secondSize);
  const ULONG size = static_cast<ULONG>(sizeof head) + firstSize + secondSize;
  if (size > lablink::kMaxMessage || gMailbox.eventBytes + size > kMaxEventBytes) return false;
  auto* block =
      static_cast<Block*>(ExAllocatePoolWithTag(NonPagedPool, sizeof(Block) + size, kPoolTag));
  if (block == nullptr) return false;
  block->size = size;
  RtlCopyMemory(block->bytes, &head, sizeof head);
  if (firstSize > 0) RtlCopyMemory(block->bytes + sizeof head, first, firstSize);
  if (secondSize > 0) RtlCopyMemory(block->bytes + sizeof head + firstSize, second, secondSize);
  InsertTailList(&gMailbox.events, &block->link);
  gMailbox.eventBytes += size;
  return true;
}

void DeliverEvents() {
  for (;;) {
    IRP* irp;
    Block* block;
    {
      Lock lock;
      if (IsListEmpty(&gMailbox.events)) return;
      irp = TakeFirst(&gMailbox.bridgeReads);
      if (irp == nullptr) return;
      block = CONTAINING_RECORD(RemoveHeadList(&gMailbox.events), Block, link);
      gMailbox.eventBytes -= block->size;
    }
    // ReadEvents has refused every buffer that could be too small.
    RtlCopyMemory(irp->AssociatedIrp.SystemBuffer, block->bytes, block->size);
    Finish(irp, STATUS_SUCCESS, block->size);
    ExFreePoolWithTag(block, kPoolTag);
  }
}

NTSTATUS ReadEvents(IRP* irp) {
  if (IoGetCurrentIrpStackLocation(irp)->Parameters.Read.Length < lablink::kMaxMessage)
    return Finish(irp, STATUS_BUFFER_TOO_SMALL, 0);
  NTSTATUS status;
  {
    Lock lock;
    status = ClaimBridge(FileOf(irp));
    if (status == STATUS_SUCCESS && !Pend(&gMailbox.bridgeReads, irp)) status = STATUS_CANCELLED;
  }
  if (status != STATUS_SUCCESS) return Finish(irp, status, 0);
  DeliverEvents();
  return STATUS_PENDING;
}

NTSTATUS WriteMessage(IRP* irp) {
  const ULONG size = IoGetCurrentIrpStackLocation(irp)->Parameters.Write.Length;
  const auto* bytes = static_cast<const UCHAR*>(irp->AssociatedIrp.SystemBuffer);
  lablink::Head head;
  if (!lablink::IsOneMessage(bytes, size, &head)) return Finish(irp, STATUS_INVALID_PARAMETER, 0);
  NTSTATUS status;
  {
    Lock lock;
    status = ClaimBridge(FileOf(irp));
  }
  if (status == STATUS_SUCCESS) status = HandleMessage(head, bytes + sizeof head);
  DeliverEvents();
  return Finish(irp, status, status == STATUS_SUCCESS ? size : 0);
}

}  // namespace tavrin
