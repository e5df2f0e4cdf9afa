// The mailbox device: finding its interface, opening it, requests and reads that finish later.
// On Linux each socket in the lab's mailbox folder stands for one device interface.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/event.h"
#include "platform/guid.h"
#include "platform/handle.h"

namespace platform {

void CloseDeviceInfoList(RawHandle raw);
using DeviceInfoList = Owned<struct DeviceInfoListTag, CloseDeviceInfoList>;

// SP_DEVICE_INTERFACE_DATA; cbSize must be 32 when it is handed in.
struct DeviceInterfaceData {
  std::uint32_t cbSize;
  Guid interfaceClass;
  std::uint32_t flags;
  std::uintptr_t reserved;
};
static_assert(sizeof(DeviceInterfaceData) == 32);

// SP_DEVICE_INTERFACE_DETAIL_DATA_A: cbSize must be 8; the path follows, as long as the block is.
struct DeviceInterfaceDetail {
  std::uint32_t cbSize;
  char devicePath[4];
};
static_assert(sizeof(DeviceInterfaceDetail) == 8 &&
              offsetof(DeviceInterfaceDetail, devicePath) == 4);

// SetupDiGetClassDevsA(class, null, null, DIGCF_PRESENT | DIGCF_DEVICEINTERFACE).
DeviceInfoList SetupDiGetClassDevsA(const Guid& interfaceClass);

// SetupDiEnumDeviceInterfaces for member `index`; false with kErrorNoMoreItems behind the last.
bool SetupDiEnumDeviceInterfaces(const DeviceInfoList& list, const Guid& interfaceClass,
                                 std::uint32_t index, DeviceInterfaceData* data);

// SetupDiGetDeviceInterfaceDetailA into the block `detail` of `size` bytes (null and 0 to ask for
// the size: false with kErrorInsufficientBuffer). *required gets the size of the whole block.
bool SetupDiGetDeviceInterfaceDetailA(const DeviceInfoList& list, const DeviceInterfaceData& data,
                                      DeviceInterfaceDetail* detail, std::uint32_t size,
                                      std::uint32_t* required);

void CloseDevice(RawHandle raw);
using DeviceHandle = Owned<struct DeviceHandleTag, CloseDevice>;

// CreateFileA(path, GENERIC_READ | GENERIC_WRITE, 0, null, OPEN_EXISTING, FILE_FLAG_OVERLAPPED,
// null). Holds the invalid handle value on failure. `mode`, 1 for requests and 0 for reads, is told
// to the lab only; to the platform both opens are the same.
DeviceHandle OpenDevice(const char* path, std::uint32_t mode);

// One request in flight (OVERLAPPED, 32 bytes). Zero it before use; it must stay where it is until
// the request has finished.
struct alignas(8) RequestRecord {
  std::byte raw[32];
};
static_assert(sizeof(RequestRecord) == 32);

// Puts the event into the record (hEvent); it is signalled when the request has finished.
void SetRequestEvent(RequestRecord* record, const Event& event);

constexpr std::uint32_t kFileReadAccess = 1;   // FILE_READ_ACCESS
constexpr std::uint32_t kFileWriteAccess = 2;  // FILE_WRITE_ACCESS
constexpr std::uint32_t kMethodBuffered = 0;   // METHOD_BUFFERED
constexpr std::uint32_t kMethodInDirect = 1;   // METHOD_IN_DIRECT
// CTL_CODE: the control code of device type, required access, function and transfer method.
constexpr std::uint32_t ControlCodeOf(std::uint32_t type, std::uint32_t access,
                                      std::uint32_t function, std::uint32_t method) {
  return type << 16 | access << 14 | function << 2 | method;
}

// DeviceIoControl. With a record it is expected to give false with kErrorIoPending; the buffers
// and the record then belong to the request until it has finished. With a null record it waits
// for the device, and *returned gets the byte count.
bool DeviceIoControl(const DeviceHandle& device, std::uint32_t code, const void* input,
                     std::uint32_t inputSize, void* output, std::uint32_t outputSize,
                     std::uint32_t* returned, RequestRecord* record);

// GetOverlappedResult: the byte count of a finished request. With `wait` it waits for the finish.
// False with the request's error, kErrorOperationAborted for a cancelled one.
bool GetOverlappedResult(const DeviceHandle& device, RequestRecord* record, std::uint32_t* returned,
                         bool wait);

// ReadFile of up to `size` bytes; expected to give false with kErrorIoPending. Its finish comes out
// of the completion port that the device is bound to.
bool ReadFile(const DeviceHandle& device, void* buffer, std::uint32_t size, RequestRecord* record);

// CancelIoEx: ends the request of `record`, or with null every request in flight on the handle.
bool CancelIoEx(const DeviceHandle& device, RequestRecord* record);

void CloseCompletionPort(RawHandle raw);
using CompletionPort = Owned<struct CompletionPortTag, CloseCompletionPort>;

// CreateIoCompletionPort(device, null, key, 0): a new port that gets the device's finished reads.
CompletionPort CreateIoCompletionPort(const DeviceHandle& device, std::uint64_t key);

// GetQueuedCompletionStatus without a time-out: the next finished read's byte count, key and
// record, in the order of their finish. False when the wait, or the read it took, failed.
bool GetQueuedCompletionStatus(const CompletionPort& port, std::uint32_t* bytes, std::uint64_t* key,
                               RequestRecord** record);

// PostQueuedCompletionStatus(port, 0, key, null): lets one GetQueuedCompletionStatus return, with 0
// bytes, that key and a null record, behind the reads that have finished. True on success. Any
// thread.
bool PostQueuedCompletionStatus(const CompletionPort& port, std::uint64_t key);

}  // namespace platform
