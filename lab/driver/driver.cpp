// tavrin_mailbox.sys: a mailbox driver for test machines. A root-enumerated Plug and Play device
// has the mailbox's interface class (mailbox.cpp); a second device, for the lab, serves the bridge
// and the setup program (bridge_device.cpp). Both are created and deleted together: a remaining lab
// device would keep the image loaded, and the next installation would need a restart.
#include "lab/driver/mailbox.h"

// Defines the class's GUID here.
#include <initguid.h>
DEFINE_GUID(kMailboxInterfaceClass, 0x70A9067B, 0x708F, 0x443C, 0x84, 0xBA, 0xBC, 0x39, 0x1F, 0xDB,
            0xF7, 0x2B);

namespace tavrin {

namespace {

// The head of both device extensions. A deleted device exists until its last handle is closed, so
// requests may reach it after its successor was created: comparing pointers can't show the kind.
struct Extension {
  bool isLab;
};

// The extension of the mailbox device.
struct MailboxDevice : Extension {
  DEVICE_OBJECT* lower;
  UNICODE_STRING interfaceName;
  IO_REMOVE_LOCK removeLock;  // held by each dispatch call, not by a pending request
};

// Null without a device. Written by Plug and Play calls, which the system serializes.
DEVICE_OBJECT* gMailboxDevice;
DEVICE_OBJECT* gLabDevice;

bool IsLab(DEVICE_OBJECT* device) {
  return static_cast<Extension*>(device->DeviceExtension)->isLab;
}

MailboxDevice* ExtensionOf(DEVICE_OBJECT* device) {
  return static_cast<MailboxDevice*>(device->DeviceExtension);
}

UNICODE_STRING Text(const wchar_t* text) {
  UNICODE_STRING result;
  RtlInitUnicodeString(&result, text);
  return result;
}

void SetInterface(bool on) {
  if (gMailboxDevice == nullptr) return;
  // It fails only without a name, and then the device was not created.
  (void)IoSetDeviceInterfaceState(&ExtensionOf(gMailboxDevice)->interfaceName, on ? TRUE : FALSE);
}

NTSTATUS SetBehaviour(IRP* irp) {
  const auto& sizes = IoGetCurrentIrpStackLocation(irp)->Parameters.DeviceIoControl;
  TavrinMisbehaviour wanted;
  if (sizes.InputBufferLength != sizeof wanted) return Finish(irp, STATUS_INVALID_PARAMETER, 0);
  RtlCopyMemory(&wanted, irp->AssociatedIrp.SystemBuffer, sizeof wanted);
  if (wanted.mode > kTavrinGone) return Finish(irp, STATUS_INVALID_PARAMETER, 0);
  {
    Lock lock;
    gMailbox.behaviour = wanted;
  }
  SetInterface(wanted.mode != kTavrinGone);
  if (wanted.mode == kTavrinGone) FailAll(STATUS_DEVICE_NOT_CONNECTED);
  return Finish(irp, STATUS_SUCCESS, 0);
}

ULONG Length(const LIST_ENTRY* list) {
  ULONG count = 0;
  for (const LIST_ENTRY* at = list->Flink; at != list; at = at->Flink) ++count;
  return count;
}

NTSTATUS ReportStatus(IRP* irp) {
  const auto& sizes = IoGetCurrentIrpStackLocation(irp)->Parameters.DeviceIoControl;
  TavrinStatus status{};
  if (sizes.OutputBufferLength != sizeof status) return Finish(irp, STATUS_INVALID_PARAMETER, 0);
  {
    Lock lock;
    status = {gMailbox.behaviour.mode, Length(&gMailbox.handles), Length(&gMailbox.reads),
              Length(&gMailbox.requests), gMailbox.bridge != nullptr ? 1ul : 0ul};
  }
  RtlCopyMemory(irp->AssociatedIrp.SystemBuffer, &status, sizeof status);
  return Finish(irp, STATUS_SUCCESS, sizeof status);
}

NTSTATUS DispatchLab(IRP* irp) {
  IO_STACK_LOCATION* stack = IoGetCurrentIrpStackLocation(irp);
  switch (stack->MajorFunction) {
    case IRP_MJ_CREATE:
      return Finish(irp, STATUS_SUCCESS, 0);
    case IRP_MJ_CLEANUP:  // in the context of the closing process, unlike CLOSE
      UnmapBridge(stack->FileObject);
      CancelBridgeReads(stack->FileObject);
      return Finish(irp, STATUS_SUCCESS, 0);
    case IRP_MJ_CLOSE:
      CloseBridge(stack->FileObject);
      return Finish(irp, STATUS_SUCCESS, 0);
    case IRP_MJ_READ:
      return ReadEvents(irp);
    case IRP_MJ_WRITE:
      return WriteMessage(irp);
    case IRP_MJ_DEVICE_CONTROL:
      switch (stack->Parameters.DeviceIoControl.IoControlCode) {
        case IOCTL_TAVRIN_MISBEHAVE:
          return SetBehaviour(irp);
        case IOCTL_TAVRIN_STATUS:
          return ReportStatus(irp);
      }
      return Finish(irp, STATUS_INVALID_DEVICE_REQUEST, 0);
    default:
      return Finish(irp, STATUS_INVALID_DEVICE_REQUEST, 0);
  }
}

NTSTATUS DispatchMailbox(IRP* irp) {
  IO_STACK_LOCATION* stack = IoGetCurrentIrpStackLocation(irp);
  switch (stack->MajorFunction) {
    case IRP_MJ_CREATE:
      return OpenHandle(irp);
    case IRP_MJ_CLEANUP:
      CancelInFlight(stack->FileObject);
      return Finish(irp, STATUS_SUCCESS, 0);
    case IRP_MJ_CLOSE:
      CloseHandle(stack->FileObject);
      return Finish(irp, STATUS_SUCCESS, 0);
    case IRP_MJ_READ:
      return Read(irp);
    case IRP_MJ_DEVICE_CONTROL:
      return Request(irp);
    default:
      return Finish(irp, STATUS_INVALID_DEVICE_REQUEST, 0);
  }
}

NTSTATUS NTAPI Dispatch(DEVICE_OBJECT* device, IRP* irp) {
  if (IsLab(device)) return DispatchLab(irp);
  MailboxDevice* mailbox = ExtensionOf(device);
  const NTSTATUS held = IoAcquireRemoveLock(&mailbox->removeLock, irp);
  if (!NT_SUCCESS(held)) return Finish(irp, held, 0);
  const NTSTATUS status = DispatchMailbox(irp);
  IoReleaseRemoveLock(&mailbox->removeLock, irp);
  return status;
}

NTSTATUS NTAPI PassDown(DEVICE_OBJECT* device, IRP* irp) {
  if (IsLab(device)) return Finish(irp, STATUS_INVALID_DEVICE_REQUEST, 0);
  IoSkipCurrentIrpStackLocation(irp);
  return IoCallDriver(ExtensionOf(device)->lower, irp);
}

NTSTATUS NTAPI SignalDone(DEVICE_OBJECT*, IRP*, PVOID done) {
  KeSetEvent(static_cast<KEVENT*>(done), IO_NO_INCREMENT, FALSE);
  return STATUS_MORE_PROCESSING_REQUIRED;  // Start continues with the packet
}

// Starts the devices below first.
NTSTATUS Start(MailboxDevice* mailbox, IRP* irp) {
  KEVENT done;
  KeInitializeEvent(&done, NotificationEvent, FALSE);
  IoCopyCurrentIrpStackLocationToNext(irp);
  IoSetCompletionRoutine(irp, SignalDone, &done, TRUE, TRUE, TRUE);
  NTSTATUS status = IoCallDriver(mailbox->lower, irp);
  if (status == STATUS_PENDING) {
    KeWaitForSingleObject(&done, Executive, KernelMode, FALSE, nullptr);
    status = irp->IoStatus.Status;
  }
  if (NT_SUCCESS(status)) SetInterface(true);
  return Finish(irp, status, 0);
}

// Ends everything that pends, for the service and for the bridge.
void Unplug() {
  SetInterface(false);
  {
    Lock lock;
    gMailbox.plugged = false;
  }
  FailAll(STATUS_DEVICE_NOT_CONNECTED);
}

void DeleteLabDevice() {
  UNICODE_STRING link = Text(TAVRIN_LAB_LINK);
  IoDeleteSymbolicLink(&link);
  IoDeleteDevice(
      gLabDevice);  // its name is free now; the object exists until its last handle is closed
  gLabDevice = nullptr;
}

NTSTATUS Remove(DEVICE_OBJECT* device, IRP* irp) {
  MailboxDevice* mailbox = ExtensionOf(device);
  Unplug();
  IoReleaseRemoveLockAndWait(&mailbox->removeLock, irp);
  irp->IoStatus.Status = STATUS_SUCCESS;
  const NTSTATUS status = PassDown(device, irp);
  gMailboxDevice = nullptr;
  DeleteLabDevice();
  RtlFreeUnicodeString(&mailbox->interfaceName);
  IoDetachDevice(mailbox->lower);
  IoDeleteDevice(device);
  return status;
}

NTSTATUS NTAPI DispatchPnp(DEVICE_OBJECT* device, IRP* irp) {
  if (IsLab(device)) return Finish(irp, STATUS_INVALID_DEVICE_REQUEST, 0);
  MailboxDevice* mailbox = ExtensionOf(device);
  const NTSTATUS held = IoAcquireRemoveLock(&mailbox->removeLock, irp);
  if (!NT_SUCCESS(held)) return Finish(irp, held, 0);
  NTSTATUS status;
  switch (IoGetCurrentIrpStackLocation(irp)->MinorFunction) {
    case IRP_MN_START_DEVICE:
      status = Start(mailbox, irp);
      break;
    case IRP_MN_REMOVE_DEVICE:
      return Remove(device, irp);  // releases the lock itself
    case IRP_MN_SURPRISE_REMOVAL:
      Unplug();
      irp->IoStatus.Status = STATUS_SUCCESS;
      status = PassDown(device, irp);
      break;
    case IRP_MN_QUERY_REMOVE_DEVICE:
    case IRP_MN_CANCEL_REMOVE_DEVICE:
    case IRP_MN_QUERY_STOP_DEVICE:
    case IRP_MN_CANCEL_STOP_DEVICE:
    case IRP_MN_STOP_DEVICE:  // there is no resource to release
      irp->IoStatus.Status = STATUS_SUCCESS;
      status = PassDown(device, irp);
      break;
    default:
      status = PassDown(device, irp);
  }
  IoReleaseRemoveLock(&mailbox->removeLock, irp);
  return status;
}

NTSTATUS NTAPI DispatchPower(DEVICE_OBJECT* device, IRP* irp) {
  if (IsLab(device)) return Finish(irp, STATUS_INVALID_DEVICE_REQUEST, 0);
  PoStartNextPowerIrp(irp);
  IoSkipCurrentIrpStackLocation(irp);
  return PoCallDriver(ExtensionOf(device)->lower, irp);
}

NTSTATUS CreateLabDevice(DRIVER_OBJECT* driver) {
  UNICODE_STRING name = Text(TAVRIN_LAB_DEVICE), link = Text(TAVRIN_LAB_LINK);
  DEVICE_OBJECT* device;
  NTSTATUS status = IoCreateDevice(driver, sizeof(Extension), &name, FILE_DEVICE_UNKNOWN,
                                   FILE_DEVICE_SECURE_OPEN, FALSE, &device);
  if (!NT_SUCCESS(status)) return status;
  static_cast<Extension*>(device->DeviceExtension)->isLab = true;
  device->Flags |= DO_BUFFERED_IO;
  status = IoCreateSymbolicLink(&link, &name);
  if (!NT_SUCCESS(status)) {
    IoDeleteDevice(device);
    return status;
  }
  device->Flags &= ~static_cast<ULONG>(DO_DEVICE_INITIALIZING);
  gLabDevice = device;
  return status;
}

// Undoes its earlier steps if one fails.
NTSTATUS Attach(DRIVER_OBJECT* driver, DEVICE_OBJECT* device, DEVICE_OBJECT* physical) {
  MailboxDevice* mailbox = ExtensionOf(device);
  NTSTATUS status = IoRegisterDeviceInterface(physical, &kMailboxInterfaceClass, nullptr,
                                              &mailbox->interfaceName);
  if (!NT_SUCCESS(status)) return status;
  status = CreateLabDevice(driver);
  if (NT_SUCCESS(status)) {
    mailbox->lower = IoAttachDeviceToDeviceStack(device, physical);
    if (mailbox->lower != nullptr) return status;
    DeleteLabDevice();
    status = STATUS_NO_SUCH_DEVICE;
  }
  RtlFreeUnicodeString(&mailbox->interfaceName);
  return status;
}

NTSTATUS NTAPI AddDevice(DRIVER_OBJECT* driver, DEVICE_OBJECT* physical) {
  if (gMailboxDevice != nullptr)
    return STATUS_DEVICE_ALREADY_ATTACHED;  // there is only one mailbox
  DEVICE_OBJECT* device;
  NTSTATUS status = IoCreateDevice(driver, sizeof(MailboxDevice), nullptr, FILE_DEVICE_UNKNOWN,
                                   FILE_DEVICE_SECURE_OPEN, FALSE, &device);
  if (!NT_SUCCESS(status)) return status;
  MailboxDevice* mailbox = ExtensionOf(device);
  RtlZeroMemory(mailbox, sizeof *mailbox);
  IoInitializeRemoveLock(&mailbox->removeLock, kPoolTag, 0, 0);
  status = Attach(driver, device, physical);
  if (!NT_SUCCESS(status)) {
    IoDeleteDevice(device);
    return status;
  }
  gMailboxDevice = device;
  {
    Lock lock;
    gMailbox.plugged = true;
  }
  device->Flags |= DO_BUFFERED_IO | (mailbox->lower->Flags & DO_POWER_PAGABLE);
  device->Flags &= ~static_cast<ULONG>(DO_DEVICE_INITIALIZING);
  return STATUS_SUCCESS;
}

// Runs when both devices are deleted and no handle is open.
VOID NTAPI Unload(DRIVER_OBJECT*) { CloseRegions(); }

}  // namespace

}  // namespace tavrin

extern "C" NTSTATUS NTAPI DriverEntry(DRIVER_OBJECT* driver, UNICODE_STRING*) {
  using namespace tavrin;
  InitializeMailbox();
  const NTSTATUS status = CreateRegions();
  if (!NT_SUCCESS(status)) return status;
  for (ULONG major : {IRP_MJ_CREATE, IRP_MJ_CLEANUP, IRP_MJ_CLOSE, IRP_MJ_READ, IRP_MJ_WRITE,
                      IRP_MJ_DEVICE_CONTROL})
    driver->MajorFunction[major] = Dispatch;
  driver->MajorFunction[IRP_MJ_PNP] = DispatchPnp;
  driver->MajorFunction[IRP_MJ_POWER] = DispatchPower;
  driver->MajorFunction[IRP_MJ_SYSTEM_CONTROL] = PassDown;
  driver->DriverExtension->AddDevice = AddDevice;
  driver->DriverUnload = Unload;
  return STATUS_SUCCESS;
}
