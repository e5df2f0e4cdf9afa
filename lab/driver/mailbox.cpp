#include "lab/driver/mailbox.h"

namespace tavrin {

Mailbox gMailbox;

namespace {

FILE_OBJECT* FileOf(IRP* irp) { return IoGetCurrentIrpStackLocation(irp)->FileObject; }
Handle* HandleOf(IRP* irp) { return static_cast<Handle*>(FileOf(irp)->FsContext); }
ULONG CodeOf(IRP* irp) {
  return IoGetCurrentIrpStackLocation(irp)->Parameters.DeviceIoControl.IoControlCode;
}
UINT64 IdOf(IRP* irp) { return reinterpret_cast<ULONG_PTR>(irp->Tail.Overlay.DriverContext[0]); }
HANDLE ProcessOf(IRP* irp) { return irp->Tail.Overlay.DriverContext[1]; }

// Under the lock. Reports a handle to the bridge once its first use has shown which one it is.
bool ReportHandle(Handle* handle) {
  if (!handle->used || handle->isReported) return true;
  handle->isReported = QueueMessage(lablink::kOpen, handle->id, handle->isRequest ? 1 : 0);
  return handle->isReported;
}

bool RecordUse(Handle* handle, bool isRequest) {
  if (!handle->used) handle->isRequest = isRequest;
  handle->used = true;
  return gMailbox.bridge == nullptr || ReportHandle(handle);
}

// Under the lock. The body is the size of the output buffer and then the input.
bool ReportRequest(IRP* irp) {
  const auto& sizes = IoGetCurrentIrpStackLocation(irp)->Parameters.DeviceIoControl;
  const UINT32 outputSize = sizes.OutputBufferLength;
  return QueueMessage(lablink::kRequest, IdOf(irp), sizes.IoControlCode, &outputSize,
                      sizeof outputSize, irp->AssociatedIrp.SystemBuffer, sizes.InputBufferLength);
}

ULONG ReadSizeOf(IRP* irp) { return IoGetCurrentIrpStackLocation(irp)->Parameters.Read.Length; }

// A frame goes into a read whole, or not at all.
void FinishRead(IRP* irp, const UCHAR* frame, ULONG size) {
  if (size > ReadSizeOf(irp)) {
    Finish(irp, STATUS_BUFFER_OVERFLOW, 0);
    return;
  }
  if (size > 0) RtlCopyMemory(irp->AssociatedIrp.SystemBuffer, frame, size);
  Finish(irp, STATUS_SUCCESS, size);
}

// Removes all packets of one file (null: of every file) from a list and completes them one by one.
void CancelList(LIST_ENTRY* list, FILE_OBJECT* file, NTSTATUS status) {
  for (;;) {
    IRP* found = nullptr;
    {
      Lock lock;
      for (LIST_ENTRY* at = list->Flink; at != list && found == nullptr;) {
        IRP* irp = PacketOf(at);
        at = at->Flink;
        if ((file == nullptr || FileOf(irp) == file) && TakePacket(irp)) found = irp;
      }
      if (found != nullptr && list == &gMailbox.requests)
        (void)QueueMessage(lablink::kCancel, IdOf(found), 0);  // may be lost without room
    }
    if (found == nullptr) return;
    Finish(found, status, 0);
  }
}

// Under the lock. Returns whether the device is unplugged or must behave so.
bool IsGone() { return !gMailbox.plugged || gMailbox.behaviour.mode == kTavrinGone; }

// Under the lock. Returns whether a request is completed at once, and stores with which *status.
bool AnswersAtOnce(NTSTATUS* status) {
  if (IsGone()) {
    *status = STATUS_DEVICE_NOT_CONNECTED;
    return true;
  }
  switch (gMailbox.behaviour.mode) {
    case kTavrinAtOnce:
      *status = STATUS_SUCCESS;
      return true;
    case kTavrinFail:
      *status = StatusOfError(gMailbox.behaviour.error);
      return true;
    default:
      return false;
  }
}

// Under the lock. Removes the request of that id and returns it; null if there is none.
IRP* TakeRequest(UINT64 id) {
  for (LIST_ENTRY* at = gMailbox.requests.Flink; at != &gMailbox.requests; at = at->Flink)
    if (IdOf(PacketOf(at)) == id) return TakePacket(PacketOf(at)) ? PacketOf(at) : nullptr;
  return nullptr;
}

// Replaces a non-zero address in the answer by that of the region in the caller's process.
bool PlaceRegion(IRP* irp, UCHAR* output, ULONG size) {
  UINT64 address = 0;
  const ULONG region = RegionAskedFor(CodeOf(irp));
  if (region == kRegions || size < sizeof address) return true;
  RtlCopyMemory(&address, output, sizeof address);
  if (address == 0) return true;
  const PVOID view = MapFor(HandleOf(irp), ProcessOf(irp), region);
  if (view == nullptr) return false;
  address = reinterpret_cast<ULONG_PTR>(view);
  RtlCopyMemory(output, &address, sizeof address);
  return true;
}

}  // namespace

void InitializeMailbox() {
  KeInitializeSpinLock(&gMailbox.lock);
  for (LIST_ENTRY* list : {&gMailbox.handles, &gMailbox.reads, &gMailbox.requests,
                           &gMailbox.bridgeReads, &gMailbox.events, &gMailbox.frames})
    InitializeListHead(list);
}

NTSTATUS OpenHandle(IRP* irp) {
  auto* handle =
      static_cast<Handle*>(ExAllocatePoolWithTag(NonPagedPool, sizeof(Handle), kPoolTag));
  if (handle == nullptr) return Finish(irp, STATUS_INSUFFICIENT_RESOURCES, 0);
  RtlZeroMemory(handle, sizeof *handle);
  handle->file = FileOf(irp);
  NTSTATUS status = STATUS_DEVICE_NOT_CONNECTED;
  {
    Lock lock;
    if (!IsGone()) {
      handle->id = ++gMailbox.nextHandle;
      InsertTailList(&gMailbox.handles, &handle->link);
      FileOf(irp)->FsContext = handle;
      status = STATUS_SUCCESS;
    }
  }
  if (status != STATUS_SUCCESS) ExFreePoolWithTag(handle, kPoolTag);
  return Finish(irp, status, 0);
}

void CancelInFlight(FILE_OBJECT* file) {
  auto* handle = static_cast<Handle*>(file->FsContext);
  CancelList(&gMailbox.reads, file, STATUS_CANCELLED);
  CancelList(&gMailbox.requests, file, STATUS_CANCELLED);
  if (handle != nullptr)
    for (ULONG region = 0; region < kRegions; ++region) UnmapFor(handle, region);
  DeliverEvents();
}

void CloseHandle(FILE_OBJECT* file) {
  auto* handle = static_cast<Handle*>(file->FsContext);
  if (handle == nullptr) return;
  CancelInFlight(file);
  {
    Lock lock;
    file->FsContext = nullptr;
    RemoveEntryList(&handle->link);
    if (handle->isReported)
      (void)QueueMessage(lablink::kClose, handle->id, handle->isRequest ? 1 : 0);
  }
  ExFreePoolWithTag(handle, kPoolTag);
  DeliverEvents();
}

NTSTATUS Read(IRP* irp) {
  Block* frame = nullptr;
  NTSTATUS status = STATUS_PENDING;
  {
    Lock lock;
    if (IsGone()) {
      status = STATUS_DEVICE_NOT_CONNECTED;
    } else if (!RecordUse(HandleOf(irp), false)) {
      status = STATUS_INSUFFICIENT_RESOURCES;
    } else {
      ++gMailbox.readsArmed;
      (void)QueueMessage(lablink::kRead, gMailbox.readsArmed,
                         ReadSizeOf(irp));  // it is armed also without room
      if (!IsListEmpty(&gMailbox.frames)) {
        frame = CONTAINING_RECORD(RemoveHeadList(&gMailbox.frames), Block, link);
        gMailbox.frameBytes -= frame->size;
        IoMarkIrpPending(irp);  // for the caller every read finishes later
      } else if (!Pend(&gMailbox.reads, irp)) {
        status = STATUS_CANCELLED;
      }
    }
  }
  DeliverEvents();
  if (status != STATUS_PENDING) return Finish(irp, status, 0);
  if (frame != nullptr) {
    FinishRead(irp, frame->bytes, frame->size);
    ExFreePoolWithTag(frame, kPoolTag);
  }
  return STATUS_PENDING;
}

NTSTATUS Request(IRP* irp) {
  NTSTATUS status = STATUS_PENDING;
  {
    Lock lock;
    if (!AnswersAtOnce(&status)) {
      irp->Tail.Overlay.DriverContext[0] = reinterpret_cast<PVOID>(++gMailbox.nextRequest);
      irp->Tail.Overlay.DriverContext[1] = PsGetCurrentProcessId();
      if (!RecordUse(HandleOf(irp), true) || !ReportRequest(irp)) {
        status = STATUS_INSUFFICIENT_RESOURCES;
      } else if (!Pend(&gMailbox.requests, irp)) {
        (void)QueueMessage(lablink::kCancel, IdOf(irp), 0);  // may be lost without room
        status = STATUS_CANCELLED;
      }
    }
  }
  DeliverEvents();
  return status == STATUS_PENDING ? status : Finish(irp, status, 0);
}

void FailAll(NTSTATUS status) {
  CancelList(&gMailbox.reads, nullptr, status);
  CancelList(&gMailbox.requests, nullptr, status);
  DeliverEvents();
  bool plugged;
  {
    Lock lock;
    plugged = gMailbox.plugged;
  }
  if (!plugged)
    CancelList(&gMailbox.bridgeReads, nullptr, status);  // the lab device is deleted, too
}

void ReportAll() {
  for (LIST_ENTRY* at = gMailbox.handles.Flink; at != &gMailbox.handles; at = at->Flink) {
    auto* handle = CONTAINING_RECORD(at, Handle, link);
    handle->isReported = false;
    (void)ReportHandle(handle);
  }
  ULONG armed = 0;
  for (LIST_ENTRY* at = gMailbox.reads.Flink; at != &gMailbox.reads; at = at->Flink)
    (void)QueueMessage(lablink::kRead, ++armed, ReadSizeOf(PacketOf(at)));
  gMailbox.readsArmed = armed;  // a new firmware counts from the reads that it finds
  for (LIST_ENTRY* at = gMailbox.requests.Flink; at != &gMailbox.requests; at = at->Flink)
    (void)ReportRequest(PacketOf(at));
}

NTSTATUS Complete(const lablink::Head& head, const UCHAR* body) {
  IRP* irp;
  {
    Lock lock;
    irp = TakeRequest(head.id);
  }
  if (irp == nullptr) return STATUS_SUCCESS;  // cancelled meanwhile
  const ULONG code = CodeOf(irp);
  const ULONG room =
      IoGetCurrentIrpStackLocation(irp)->Parameters.DeviceIoControl.OutputBufferLength;
  // Only a buffered transfer brings output back through this buffer.
  const ULONG bytes = METHOD_FROM_CTL_CODE(code) != METHOD_BUFFERED ? 0
                      : head.length < room                          ? head.length
                                                                    : room;
  auto* output = static_cast<UCHAR*>(irp->AssociatedIrp.SystemBuffer);
  if (bytes > 0) RtlCopyMemory(output, body, bytes);
  NTSTATUS status = StatusOfError(head.word);
  if (status == STATUS_SUCCESS && !PlaceRegion(irp, output, bytes))
    status = STATUS_INSUFFICIENT_RESOURCES;
  if (status == STATUS_SUCCESS && RegionGivenBack(code) != kRegions)
    UnmapFor(HandleOf(irp), RegionGivenBack(code));
  Finish(irp, status, status == STATUS_SUCCESS ? bytes : 0);
  return STATUS_SUCCESS;
}

NTSTATUS TakeFrame(const UCHAR* frame, ULONG size) {
  if (size > lablink::kMaxFrame) return STATUS_INVALID_BUFFER_SIZE;
  auto* waiting =
      static_cast<Block*>(ExAllocatePoolWithTag(NonPagedPool, sizeof(Block) + size, kPoolTag));
  if (waiting == nullptr) return STATUS_INSUFFICIENT_RESOURCES;
  waiting->size = size;
  RtlCopyMemory(waiting->bytes, frame, size);
  IRP* read;
  NTSTATUS status = STATUS_SUCCESS;
  {
    Lock lock;
    read = TakeFirst(&gMailbox.reads);
    if (read == nullptr && gMailbox.frameBytes + size > kMaxFrameBytes) {
      status = STATUS_INSUFFICIENT_RESOURCES;
    } else if (read == nullptr) {
      InsertTailList(&gMailbox.frames, &waiting->link);
      gMailbox.frameBytes += size;
      return status;
    }
  }
  if (read != nullptr) FinishRead(read, waiting->bytes, size);
  ExFreePoolWithTag(waiting, kPoolTag);
  return status;
}

void FailRead(ULONG error) {
  IRP* read;
  {
    Lock lock;
    read = TakeFirst(&gMailbox.reads);
  }
  if (read != nullptr) Finish(read, StatusOfError(error), 0);
}

}  // namespace tavrin
