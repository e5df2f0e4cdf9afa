#include "platform/device.h"

#include <bit>
#include <cassert>
#include <cstring>

#include "platform/windows/runtime/guid_cast.h"
#include "platform/windows/runtime/windows_api.h"
// These need windows.h.
#include <setupapi.h>
#include <winioctl.h>

namespace platform {

static_assert(sizeof(DeviceInterfaceData) == sizeof(SP_DEVICE_INTERFACE_DATA) &&
              offsetof(DeviceInterfaceData, cbSize) == offsetof(SP_DEVICE_INTERFACE_DATA, cbSize) &&
              offsetof(DeviceInterfaceData, interfaceClass) ==
                  offsetof(SP_DEVICE_INTERFACE_DATA, InterfaceClassGuid) &&
              offsetof(DeviceInterfaceData, flags) == offsetof(SP_DEVICE_INTERFACE_DATA, Flags) &&
              offsetof(DeviceInterfaceData, reserved) ==
                  offsetof(SP_DEVICE_INTERFACE_DATA, Reserved));
static_assert(sizeof(DeviceInterfaceDetail) == sizeof(SP_DEVICE_INTERFACE_DETAIL_DATA_A) &&
              offsetof(DeviceInterfaceDetail, cbSize) ==
                  offsetof(SP_DEVICE_INTERFACE_DETAIL_DATA_A, cbSize) &&
              offsetof(DeviceInterfaceDetail, devicePath) ==
                  offsetof(SP_DEVICE_INTERFACE_DETAIL_DATA_A, DevicePath));
// Both sides are constants. NOLINTNEXTLINE(misc-redundant-expression)
static_assert(sizeof(RequestRecord) == sizeof(OVERLAPPED) &&
              alignof(RequestRecord) == alignof(OVERLAPPED));
static_assert(kFileReadAccess == FILE_READ_ACCESS && kFileWriteAccess == FILE_WRITE_ACCESS &&
              kMethodBuffered == METHOD_BUFFERED && kMethodInDirect == METHOD_IN_DIRECT &&
              ControlCodeOf(1, 2, 3, 1) == CTL_CODE(1, 3, 1, 2));
static_assert(sizeof(ULONG_PTR) == sizeof(std::uint64_t));

namespace {

OVERLAPPED* Overlapped(RequestRecord* record) { return reinterpret_cast<OVERLAPPED*>(record); }

}  // namespace

void CloseDeviceInfoList(RawHandle raw) { ::SetupDiDestroyDeviceInfoList(raw); }

DeviceInfoList SetupDiGetClassDevsA(const Guid& interfaceClass) {
  const GUID guid = WindowsGuid(interfaceClass);
  return DeviceInfoList(
      ::SetupDiGetClassDevsA(&guid, nullptr, nullptr, DIGCF_PRESENT | DIGCF_DEVICEINTERFACE));
}

bool SetupDiEnumDeviceInterfaces(const DeviceInfoList& list, const Guid& interfaceClass,
                                 std::uint32_t index, DeviceInterfaceData* data) {
  assert(data->cbSize == sizeof *data);
  const GUID guid = WindowsGuid(interfaceClass);
  auto found = std::bit_cast<SP_DEVICE_INTERFACE_DATA>(*data);
  if (!::SetupDiEnumDeviceInterfaces(list.Raw(), nullptr, &guid, index, &found)) return false;
  *data = std::bit_cast<DeviceInterfaceData>(found);
  return true;
}

bool SetupDiGetDeviceInterfaceDetailA(const DeviceInfoList& list, const DeviceInterfaceData& data,
                                      DeviceInterfaceDetail* detail, std::uint32_t size,
                                      std::uint32_t* required) {
  assert(detail == nullptr || detail->cbSize == sizeof *detail);
  auto interfaceData = std::bit_cast<SP_DEVICE_INTERFACE_DATA>(data);
  DWORD needed = 0;
  const BOOL done = ::SetupDiGetDeviceInterfaceDetailA(
      list.Raw(), &interfaceData, reinterpret_cast<SP_DEVICE_INTERFACE_DETAIL_DATA_A*>(detail),
      size, &needed, nullptr);
  if (required != nullptr) *required = needed;
  return done != FALSE;
}

void CloseDevice(RawHandle raw) { ::CloseHandle(raw); }

DeviceHandle OpenDevice(const char* path, std::uint32_t /*mode*/) {
  return DeviceHandle(::CreateFileA(path, GENERIC_READ | GENERIC_WRITE, 0, nullptr, OPEN_EXISTING,
                                    FILE_FLAG_OVERLAPPED, nullptr));
}

void SetRequestEvent(RequestRecord* record, const Event& event) {
  assert(event);
  const HANDLE raw = event.Raw();
  std::memcpy(record->raw + offsetof(OVERLAPPED, hEvent), &raw, sizeof raw);
}

bool DeviceIoControl(const DeviceHandle& device, std::uint32_t code, const void* input,
                     std::uint32_t inputSize, void* output, std::uint32_t outputSize,
                     std::uint32_t* returned, RequestRecord* record) {
  DWORD count = 0;
  const BOOL done = ::DeviceIoControl(device.Raw(), code, const_cast<void*>(input), inputSize,
                                      output, outputSize, &count, Overlapped(record));
  if (returned != nullptr) *returned = count;
  return done != FALSE;
}

bool GetOverlappedResult(const DeviceHandle& device, RequestRecord* record, std::uint32_t* returned,
                         bool wait) {
  DWORD count = 0;
  const BOOL done = ::GetOverlappedResult(device.Raw(), Overlapped(record), &count, wait);
  *returned = count;
  return done != FALSE;
}

bool ReadFile(const DeviceHandle& device, void* buffer, std::uint32_t size, RequestRecord* record) {
  return ::ReadFile(device.Raw(), buffer, size, nullptr, Overlapped(record)) != FALSE;
}

bool CancelIoEx(const DeviceHandle& device, RequestRecord* record) {
  return ::CancelIoEx(device.Raw(), Overlapped(record)) != FALSE;
}

void CloseCompletionPort(RawHandle raw) { ::CloseHandle(raw); }

CompletionPort CreateIoCompletionPort(const DeviceHandle& device, std::uint64_t key) {
  return CompletionPort(::CreateIoCompletionPort(device.Raw(), nullptr, key, 0));
}

bool GetQueuedCompletionStatus(const CompletionPort& port, std::uint32_t* bytes, std::uint64_t* key,
                               RequestRecord** record) {
  DWORD count = 0;
  ULONG_PTR completionKey = 0;
  OVERLAPPED* finished = nullptr;
  const BOOL done =
      ::GetQueuedCompletionStatus(port.Raw(), &count, &completionKey, &finished, INFINITE);
  *bytes = count;
  *key = completionKey;
  *record = reinterpret_cast<RequestRecord*>(finished);  // null when the wait itself failed
  return done != FALSE;
}

bool PostQueuedCompletionStatus(const CompletionPort& port, std::uint64_t key) {
  return ::PostQueuedCompletionStatus(port.Raw(), 0, key, nullptr) != FALSE;
}

}  // namespace platform
