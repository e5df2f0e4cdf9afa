// The test driver's mailbox: what the service's handles, reads and requests are while they wait,
// and what a bridge is told of them. The driver plays no firmware: it hands everything to the one
// bridge that has opened the lab device, as messages of the lab link, and does what comes back.
//
// 1. There is one mailbox for the life of the driver's image; devices come and go around it.
// 2. `lock` guards every list and counter. No request is completed while it is held.
// 3. A request packet is in at most one list. Who takes it out of the list completes it; a cancel
//    routine that lost the race leaves its packet to the other side.
// 4. Everything here runs at PASSIVE_LEVEL but what stands between Lock and its end, and the cancel
//    routine.
#pragma once

// clang-format off
// mingw-w64 declares these two as intrinsics and defines them once more in wdm.h, which C++ refuses.
#include <intrin.h>
#define InterlockedBitTestAndSet KernelBitTestAndSet
#define InterlockedBitTestAndReset KernelBitTestAndReset
#include <ntifs.h>
// clang-format on

#include <initializer_list>

#include "lab/driver/lab_control.h"
#include "lablink/lab_link.h"

namespace tavrin {

constexpr ULONG kPoolTag = 0x76726154;  // "Tarv" in a pool dump

// Bounds on what waits for a bridge or for a read; beyond them a request or a frame is refused with
// STATUS_INSUFFICIENT_RESOURCES, so a peer that doesn't listen costs no more memory than this.
constexpr SIZE_T kMaxEventBytes = 8u << 20;
constexpr SIZE_T kMaxFrameBytes = 8u << 20;

constexpr ULONG kRegions = 2;

// A block of bytes in a list: a message for the bridge, or a frame that waits for a read.
struct Block {
  LIST_ENTRY link;
  ULONG size;
  UCHAR bytes[1];
};

// One open of the mailbox. Which of the service's two handles it is shows at its first use.
struct Handle {
  LIST_ENTRY link;
  UINT64 id;
  FILE_OBJECT* file;
  bool told;       // the bridge knows of it
  bool isRequest;  // first used for a request; else for a read
  bool used;
  HANDLE process;         // of the last caller who asked for a region
  PVOID views[kRegions];  // where that process sees each region
};

struct Mailbox {
  KSPIN_LOCK lock;
  LIST_ENTRY handles;
  LIST_ENTRY reads;        // IRPs, oldest first
  LIST_ENTRY requests;     // IRPs; DriverContext[0] is the id, [1] the caller's process
  LIST_ENTRY bridgeReads;  // IRPs of the bridge
  LIST_ENTRY events;       // Blocks for the bridge
  LIST_ENTRY frames;       // Blocks that no read has taken
  SIZE_T eventBytes;
  SIZE_T frameBytes;
  UINT64 nextHandle;
  UINT64 nextRequest;
  UINT64 readsArmed;
  FILE_OBJECT* bridge;  // null: nobody is told anything
  bool plugged;         // false: the device has left, and nothing may pend
  TavrinMisbehaviour behaviour;
};

extern Mailbox gMailbox;

// Holds the mailbox's spin lock; raises to DISPATCH_LEVEL.
class Lock {
 public:
  Lock() { KeAcquireSpinLock(&gMailbox.lock, &irql_); }
  Lock(const Lock&) = delete;
  Lock& operator=(const Lock&) = delete;
  ~Lock() { KeReleaseSpinLock(&gMailbox.lock, irql_); }

 private:
  KIRQL irql_;
};

// A Windows error number as a status; RtlNtStatusToDosError gives the number back (FACILITY_WIN32).
inline NTSTATUS StatusOfError(ULONG error) {
  return error == 0 ? STATUS_SUCCESS : static_cast<NTSTATUS>(0x80070000u | (error & 0xFFFFu));
}

// Completes a packet. Not under the lock.
NTSTATUS Finish(IRP* irp, NTSTATUS status, ULONG_PTR information);

// Puts a packet at the end of `list`, cancellable. Under the lock. False: it was cancelled already,
// and the caller completes it with STATUS_CANCELLED. On true the caller returns STATUS_PENDING.
bool Pend(LIST_ENTRY* list, IRP* irp);
// Takes a packet out of its list; false if its cancel routine has it already. Under the lock.
bool Take(IRP* irp);
// The first packet of the list, taken out; null if there is none. Under the lock.
IRP* TakeFirst(LIST_ENTRY* list);
// The packet of a list's entry.
IRP* PacketOf(LIST_ENTRY* entry);

void InitializeMailbox();

// --- the mailbox device (mailbox.cpp) ---
NTSTATUS OpenHandle(IRP* irp);
// The handle is being closed: what it has in flight ends with STATUS_CANCELLED, and its views of
// the regions go. May run twice.
void CancelOf(FILE_OBJECT* file);
void CloseHandle(FILE_OBJECT* file);
NTSTATUS Read(IRP* irp);
NTSTATUS Request(IRP* irp);
// Everything in flight fails with `status`.
void FailAll(NTSTATUS status);
// Under the lock: tells a bridge that has just come about all that is there.
void TellAll();

// --- the bridge (bridge_device.cpp): the opener of the lab device that transfers first ---
void CancelBridgeReads(FILE_OBJECT* file);
void CloseBridge(FILE_OBJECT* file);
NTSTATUS ReadEvents(IRP* irp);
NTSTATUS WriteMessage(IRP* irp);
// Leaves a message for the bridge; without one it is dropped. Under the lock. False: no room.
bool Tell(UINT32 kind, UINT64 id, UINT32 word, const void* first = nullptr, ULONG firstSize = 0,
          const void* second = nullptr, ULONG secondSize = 0);
// Hands waiting messages to waiting reads of the bridge. Not under the lock.
void DeliverEvents();

// --- what the firmware sends (mailbox.cpp) ---
NTSTATUS Complete(const lablink::Head& head, const UCHAR* body);
NTSTATUS TakeFrame(const UCHAR* frame, ULONG size);
void FailRead(ULONG error);

// --- the shared memory (regions.cpp) ---
// Makes the regions; PASSIVE_LEVEL, once.
NTSTATUS CreateRegions();
void CloseRegions();
// The region whose address a request with this code asks for or gives back; kRegions: none.
ULONG RegionAskedFor(ULONG code);
ULONG RegionGivenBack(ULONG code);
// Maps a region into the process of that id, once for each handle; null on failure.
PVOID MapFor(Handle* handle, HANDLE process, ULONG region);
void UnmapFor(Handle* handle, ULONG region);
// The firmware's access, from the bridge's own thread. Returns false beyond the region's bounds, or
// if the bridge has taken its view away.
bool Poke(UINT64 region, UINT32 offset, const UCHAR* bytes, ULONG size);
bool Peek(UINT64 region, UINT32 offset, ULONG count);
// That opener leaves: its views go, if it is the bridge. From its own process.
void UnmapBridge(FILE_OBJECT* file);

}  // namespace tavrin
