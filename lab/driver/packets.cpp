// Request packets that wait: a list from which either the driver or a cancel takes each packet,
// never both (IoSetCancelRoutine decides the race).
#include "lab/driver/mailbox.h"

namespace tavrin {

namespace {

// The I/O manager cancels a packet that waits. Its list is left to whoever holds the lock.
VOID NTAPI CancelPacket(DEVICE_OBJECT*, IRP* irp) {
  const ULONG_PTR isRequest =
      IoGetCurrentIrpStackLocation(irp)->MajorFunction == IRP_MJ_DEVICE_CONTROL;
  const UINT64 id = reinterpret_cast<ULONG_PTR>(irp->Tail.Overlay.DriverContext[0]);
  IoReleaseCancelSpinLock(irp->CancelIrql);
  {
    Lock lock;
    RemoveEntryList(&irp->Tail.Overlay.ListEntry);
    if (isRequest) (void)Tell(lablink::kCancel, id, 0);  // unheard at worst
  }
  DeliverEvents();
  Finish(irp, STATUS_CANCELLED, 0);
}

}  // namespace

NTSTATUS Finish(IRP* irp, NTSTATUS status, ULONG_PTR information) {
  irp->IoStatus.Status = status;
  irp->IoStatus.Information = information;
  IoCompleteRequest(irp, IO_NO_INCREMENT);
  return status;
}

bool Pend(LIST_ENTRY* list, IRP* irp) {
  (void)IoSetCancelRoutine(irp, CancelPacket);  // there was none before
  if (irp->Cancel && IoSetCancelRoutine(irp, nullptr) != nullptr) return false;
  // A cancel that began in between waits for the lock in CancelPacket and finds the packet listed.
  IoMarkIrpPending(irp);
  InsertTailList(list, &irp->Tail.Overlay.ListEntry);
  return true;
}

IRP* PacketOf(LIST_ENTRY* entry) { return CONTAINING_RECORD(entry, IRP, Tail.Overlay.ListEntry); }

bool Take(IRP* irp) {
  RemoveEntryList(&irp->Tail.Overlay.ListEntry);
  if (IoSetCancelRoutine(irp, nullptr) != nullptr) return true;
  // The cancel routine runs and will take the packet out of a list: of one, then, of its own.
  InitializeListHead(&irp->Tail.Overlay.ListEntry);
  return false;
}

IRP* TakeFirst(LIST_ENTRY* list) {
  while (!IsListEmpty(list)) {
    IRP* irp = PacketOf(list->Flink);
    if (Take(irp)) return irp;
  }
  return nullptr;
}

}  // namespace tavrin
