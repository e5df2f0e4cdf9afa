// The test driver's mailbox: the service's handles, reads and requests while they pend. The driver
// does not act as firmware: it sends everything to the bridge, the opener of the lab device, as
// messages of the lab link, and carries out what the bridge sends back.
//
// 1. There is one mailbox for the life of the driver's image; devices come and go.
// 2. `lock` guards every list and counter. No request is completed while it is held.
// 3. A request packet is in at most one list. Whoever removes it from the list completes it; a
// cancel
//    routine that lost the race leaves its packet to the other side.
// 4. Everything runs at PASSIVE_LEVEL except code under Lock and the cancel routine.
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

// Limits on what waits for the bridge or for a read. Beyond them a request or a frame is refused
// with STATUS_INSUFFICIENT_RESOURCES.
constexpr SIZE_T kMaxEventBytes = 8u << 20;
constexpr SIZE_T kMaxFrameBytes = 8u << 20;

constexpr ULONG kRegions = 2;

// A block of bytes in a list: a message for the bridge, or a frame that waits for a read.
struct Block {
  LIST_ENTRY link;
  ULONG size;
  UCHAR bytes[1];
};

// One open of the mailbox. Its first use shows which of the service's two handles it is.
struct Handle {
  LIST_ENTRY link;
  UINT64 id;
  FILE_OBJECT* file;
  bool isReported;  // to the bridge
  bool isRequest;   // first used for a request; else for a read
  bool used;
  HANDLE process;         // of the last caller that requested a region
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
  FILE_OBJECT* bridge;  // null: no message is queued
  bool plugged;         // false: there is no device, and nothing may pend
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

// Returns the status of a Windows error (FACILITY_WIN32); RtlNtStatusToDosError reverses it.
inline NTSTATUS StatusOfError(ULONG error) {
  return error == 0 ? STATUS_SUCCESS : static_cast<NTSTATUS>(0x80070000u | (error & 0xFFFFu));
}

// Completes a packet and returns `status`. Not under the lock.
NTSTATUS Finish(IRP* irp, NTSTATUS status, ULONG_PTR information);

// Under the lock. Appends a packet to `list`, cancellable; the caller returns STATUS_PENDING.
// Returns false if it was cancelled already; the caller completes it with STATUS_CANCELLED.
bool Pend(LIST_ENTRY* list, IRP* irp);
// Under the lock. Removes a packet from its list. Returns false if its cancel routine owns it.
bool TakePacket(IRP* irp);
// Under the lock. Removes the first packet of the list and returns it; null if there is none.
IRP* TakeFirst(LIST_ENTRY* list);
// Returns the packet of a list's entry.
IRP* PacketOf(LIST_ENTRY* entry);

void InitializeMailbox();

// --- the mailbox device (mailbox.cpp) ---
NTSTATUS OpenHandle(IRP* irp);
// Completes what a closing handle has in flight with STATUS_CANCELLED and unmaps its views of the
// regions. May run twice.
void CancelInFlight(FILE_OBJECT* file);
void CloseHandle(FILE_OBJECT* file);
NTSTATUS Read(IRP* irp);
NTSTATUS Request(IRP* irp);
// Completes everything in flight with `status`.
void FailAll(NTSTATUS status);
// Under the lock. Reports all handles, reads and requests to a new bridge.
void ReportAll();

// --- the bridge, the first opener of the lab device that transfers (bridge_device.cpp) ---
void CancelBridgeReads(FILE_OBJECT* file);
void CloseBridge(FILE_OBJECT* file);
NTSTATUS ReadEvents(IRP* irp);
NTSTATUS WriteMessage(IRP* irp);
// Under the lock. Queues a message for the bridge; drops it without a bridge. Returns false without
// room for it.
bool QueueMessage(UINT32 kind, UINT64 id, UINT32 word, const void* first = nullptr,
                  ULONG firstSize = 0, const void* second = nullptr, ULONG secondSize = 0);
// Completes pending reads of the bridge with queued messages. Not under the lock.
void DeliverEvents();

// --- what the firmware sends (mailbox.cpp) ---
NTSTATUS Complete(const lablink::Head& head, const UCHAR* body);
NTSTATUS TakeFrame(const UCHAR* frame, ULONG size);
void FailRead(ULONG error);

// --- the shared memory (regions.cpp) ---
// Creates the regions. At PASSIVE_LEVEL, once.
NTSTATUS CreateRegions();
void CloseRegions();
// Return the region that a request of this code requests or releases; kRegions if none.
ULONG RegionAskedFor(ULONG code);
ULONG RegionGivenBack(ULONG code);
// Maps a region into the process of that id, once for each handle. Returns null on failure.
PVOID MapFor(Handle* handle, HANDLE process, ULONG region);
void UnmapFor(Handle* handle, ULONG region);
// Write and read a region for the firmware. Return false beyond its bounds, or if the bridge has
// unmapped its view. On a thread of the bridge.
bool Poke(UINT64 region, UINT32 offset, const UCHAR* bytes, ULONG size);
bool Peek(UINT64 region, UINT32 offset, ULONG count);
// Unmaps the views of an opener that closes, if it is the bridge. In its own process.
void UnmapBridge(FILE_OBJECT* file);

}  // namespace tavrin
