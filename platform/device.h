// The mailbox device: its interfaces, its handles, and overlapped requests and reads. On Linux each
// socket in the lab's mailbox folder is one device interface.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/event.h"
#include "platform/guid.h"
#include "platform/handle.h"

namespace platform {

void CloseDeviceInfoList(RawHandle raw);
using DeviceInfoList = Owned<struct DeviceInfoListTag, CloseDeviceInfoList>;

// SP_DEVICE_INTERFACE_DATA; the caller sets cbSize to 32.
struct DeviceInterfaceData {
  std::uint32_t cbSize;
  Guid interfaceClass;
  std::uint32_t flags;
  std::uintptr_t reserved;
};
static_assert(sizeof(DeviceInterfaceData) == 32);

// SP_DEVICE_INTERFACE_DETAIL_DATA_A; the caller sets cbSize to 8. The path fills the whole block.
struct DeviceInterfaceDetail {
  std::uint32_t cbSize;
  char devicePath[4];
};
static_assert(sizeof(DeviceInterfaceDetail) == 8 &&
              offsetof(DeviceInterfaceDetail, devicePath) == 4);

// Lists the present interfaces of a class (SetupDiGetClassDevsA). Holds the invalid handle value on
// failure.
DeviceInfoList SetupDiGetClassDevsA(const Guid& interfaceClass);

// Stores interface `index` of the list in *data. Returns false with kErrorNoMoreItems after the
// last.
bool SetupDiEnumDeviceInterfaces(const DeviceInfoList& list, const Guid& interfaceClass,
                                 std::uint32_t index, DeviceInterfaceData* data);

// Stores the path in the block `detail` of `size` bytes, and the size of the whole block in
// *required. Null and 0 query the size: returns false with kErrorInsufficientBuffer.
bool SetupDiGetDeviceInterfaceDetailA(const DeviceInfoList& list, const DeviceInterfaceData& data,
                                      DeviceInterfaceDetail* detail, std::uint32_t size,
                                      std::uint32_t* required);

void CloseDevice(RawHandle raw);
using DeviceHandle = Owned<struct DeviceHandleTag, CloseDevice>;

// Opens a device for overlapped reading and writing, not shared (CreateFileA). Holds the invalid
// handle value on failure. `mode`, 1 for requests and 0 for reads, reaches the lab only.
DeviceHandle OpenDevice(const char* path, std::uint32_t mode);

// One request in flight (OVERLAPPED, 32 bytes). Requires zeroes before use, and must not move until
// the request has finished.
struct alignas(8) RequestRecord {
  std::byte raw[32];
};
static_assert(sizeof(RequestRecord) == 32);

// Stores the event that is signalled when the request has finished (hEvent). The caller keeps it.
void SetRequestEvent(RequestRecord* record, const Event& event);

constexpr std::uint32_t kFileReadAccess = 1;   // FILE_READ_ACCESS
constexpr std::uint32_t kFileWriteAccess = 2;  // FILE_WRITE_ACCESS
constexpr std::uint32_t kMethodBuffered = 0;   // METHOD_BUFFERED
constexpr std::uint32_t kMethodInDirect = 1;   // METHOD_IN_DIRECT
// Returns the control code of device type, required access, function and transfer method
// (CTL_CODE).
constexpr std::uint32_t ControlCodeOf(std::uint32_t type, std::uint32_t access,
                                      std::uint32_t function, std::uint32_t method) {
  return type << 16 | access << 14 | function << 2 | method;
}

// Sends a request. With a record, a pending request returns false with kErrorIoPending; buffers and
// record belong to it until it has finished. With a null record it blocks until the request has
// finished and stores the number of output bytes in *returned.
bool DeviceIoControl(const DeviceHandle& device, std::uint32_t code, const void* input,
                     std::uint32_t inputSize, void* output, std::uint32_t outputSize,
                     std::uint32_t* returned, RequestRecord* record);

// Stores the byte count of a finished request; blocks until it has finished if `wait` is set.
// Returns false with the request's error: kErrorIoIncomplete while it is in flight,
// kErrorOperationAborted if it was cancelled.
bool GetOverlappedResult(const DeviceHandle& device, RequestRecord* record, std::uint32_t* returned,
                         bool wait);

// Starts a read of at most `size` bytes. A pending read returns false with kErrorIoPending; the
// completion port of the device returns it when it has finished.
bool ReadFile(const DeviceHandle& device, void* buffer, std::uint32_t size, RequestRecord* record);

// Cancels the request of `record`, or every request in flight on the handle if that is null.
// Returns false with kErrorNotFound if there is none.
bool CancelIoEx(const DeviceHandle& device, RequestRecord* record);

void CloseCompletionPort(RawHandle raw);
using CompletionPort = Owned<struct CompletionPortTag, CloseCompletionPort>;

// Creates a port that receives the finished reads of the device, with `key`.
CompletionPort CreateIoCompletionPort(const DeviceHandle& device, std::uint64_t key);

// Blocks until a read has finished and stores its byte count, key and record; reads come in the
// order in which they finished. Returns false if the read failed, or, with a null record, the wait.
bool GetQueuedCompletionStatus(const CompletionPort& port, std::uint32_t* bytes, std::uint64_t* key,
                               RequestRecord** record);

// Makes one GetQueuedCompletionStatus return 0 bytes, `key` and a null record, after the reads that
// have finished already.
bool PostQueuedCompletionStatus(const CompletionPort& port, std::uint64_t key);

}  // namespace platform
