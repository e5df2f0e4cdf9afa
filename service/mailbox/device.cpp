#include "service/mailbox/device.h"

#include <algorithm>

#include "platform/error.h"
#include "service/diagnostics/service_log.h"

namespace stewardry {

platform::ProcessLifetime<MailboxLink> gMailboxLink;

namespace {

// Walks the interfaces of the class and keeps the path of the last. Returns false if a detail can't
// be read, which ends the search. A failed enumeration drops the path found so far.
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
  // Fixed log text; it does not name the path that was used.
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
  platform::DeviceHandle& handle =
      mode == kRequestMode ? gMailboxLink->gRequestDevice : gMailboxLink->gInterruptDevice;
  if (!OpenHandle(&handle, path.Text(), mode)) return 1;
  LogInfo("Device open success");
  return 0;
}

void CloseOrrinDevice() { gMailboxLink->gRequestDevice.Reset(platform::InvalidHandleValue()); }

DevicePath ReadDevicePath(const platform::DeviceInfoList& list,
                          const platform::DeviceInterfaceData& data) {
  std::uint32_t size = 0;
  if (!platform::SetupDiGetDeviceInterfaceDetailA(list, data, nullptr, 0, &size) &&
      platform::LastError() != platform::kErrorInsufficientBuffer) {
    LogInfo("SetupDiGetDeviceInterfaceDetail failed with error: %d", platform::LastError());
    return {};
  }
  // The block has space for the record's own fields even if the platform returns a smaller size.
  const std::size_t blockSize =
      std::max<std::size_t>(size, sizeof(platform::DeviceInterfaceDetail));
  platform::LocalBlock block = platform::LocalAlloc(blockSize);
  if (!block) {
    // Fixed log text; its wording must not change.
    LogInfo("Couldn't allocate %d bytes for device interface detailsn", size);
    return {};
  }
  auto* detail = static_cast<platform::DeviceInterfaceDetail*>(block.Raw());
  detail->cbSize = sizeof *detail;
  if (platform::SetupDiGetDeviceInterfaceDetailA(list, data, detail, size, nullptr))
    return DevicePath(std::move(block));
  LogInfo("Error in SetupDiGetDeviceInterfaceDetail");
  return {};
}

}  // namespace stewardry
