// Finding and opening the mailbox device.
#include "service/mailbox/device.h"

#include "platform/error.h"
#include "service/diagnostics/service_log.h"
#include "service/mailbox/device_path.h"

namespace stewardry {

platform::ProcessLifetime<platform::DeviceHandle> gRequestDevice;
platform::ProcessLifetime<platform::DeviceHandle> gInterruptDevice;

namespace {

// Walks the interfaces of the class and keeps the path of the last; false after a failure of a
// detail, which ends the search. An enumeration that fails drops the path found so far.
bool FindLastInterface(const platform::DeviceInfoList& list, DevicePath* last) {
  for (std::uint32_t index = 0;; ++index) {
    platform::DeviceInterfaceData data{};
    data.cbSize = sizeof data;
    if (!platform::SetupDiEnumDeviceInterfaces(list, kMailboxInterfaceClass, index, &data)) {
      if (platform::LastError() != platform::kErrorNoMoreItems) *last = {};
      return true;
    }
    *last = ReadDevicePath(list, data);
    if (!*last) return false;
  }
}

bool OpenHandle(platform::DeviceHandle* handle, const char* path, std::uint32_t mode) {
  if (*handle) return true;
  *handle = platform::OpenDevice(path, mode);
  if (*handle) return true;
  LogInfo("Failed in open device %s with error: %d", "\\\\?\\GLOBALROOT\\Device\\000000c8",
          platform::LastError());
  return false;
}

}  // namespace

std::uint32_t OpenOrrinDevice(std::uint32_t mode) {
  platform::DeviceInfoList list = platform::SetupDiGetClassDevsA(kMailboxInterfaceClass);
  if (!list) {
    LogInfo("SetupDiGetClassDevs failed with error: %x", platform::LastError());
    return 1;
  }
  DevicePath path;
  if (!FindLastInterface(list, &path)) return 1;
  list.Reset();
  if (!path) {
    LogInfo("No device interfaces present");
    return 1;
  }
  platform::DeviceHandle& handle = mode == kRequestMode ? *gRequestDevice : *gInterruptDevice;
  if (!OpenHandle(&handle, path.Text(), mode)) return 1;
  LogInfo("Device open success");
  return 0;
}

void CloseOrrinDevice() { gRequestDevice->Reset(platform::InvalidHandleValue()); }

}  // namespace stewardry
