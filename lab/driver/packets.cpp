// Pending request packets. Either the driver or a cancel removes a packet from its list, never
// both; IoSetCancelRoutine decides the race.
#include "lab/driver/mailbox.h"

namespace tavrin {

namespace {

// Called by the I/O manager for a pending packet.
VOID NTAPI CancelPacket(DEVICE_OBJECT*, IRP* irp) {
  const ULONG_PTR isRequest =
      IoGetCurrentIrpStackLocation(irp)->MajorFunction == IRP_MJ_DEVICE_CONTROL;
  const UINT64 id = reinterpret_cast<ULONG_PTR>(irp->Tail.Overlay.DriverContext[0]);
  IoReleaseCancelSpinLock(irp->CancelIrql);
  {
    Lock lock;
    RemoveEntryList(&irp->Tail.Overlay.ListEntry);
    if (isRequest) (void)QueueMessage(lablink::kCancel, id, 0);  // may be lost without room
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
  (void)IoSetCancelRoutine(irp, CancelPacket);  // it had none
  if (irp->Cancel && IoSetCancelRoutine(irp, nullptr) != nullptr) return false;
  // A cancel that began in between blocks on the lock in CancelPacket and finds the packet listed.
  IoMarkIrpPending(irp);
  InsertTailList(list, &irp->Tail.Overlay.ListEntry);
  return true;
}

IRP* PacketOf(LIST_ENTRY* entry) { return CONTAINING_RECORD(entry, IRP, Tail.Overlay.ListEntry); }

bool TakePacket(IRP* irp) {
  RemoveEntryList(&irp->Tail.Overlay.ListEntry);
  if (IoSetCancelRoutine(irp, nullptr) != nullptr) return true;
  // The cancel routine runs and will remove the packet from a list: make that a list of its own.
  InitializeListHead(&irp->Tail.Overlay.ListEntry);
  return false;
}

IRP* TakeFirst(LIST_ENTRY* list) {
  while (!IsListEmpty(list)) {
    IRP* irp = PacketOf(list->Flink);
    if (TakePacket(irp)) return irp;
  }
  return nullptr;
}

}  // namespace tavrin
