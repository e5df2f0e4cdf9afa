// Finding and opening the mailbox device.
#include "service/mailbox/device.h"

#include <memory>
#include <new>

#include "platform/error.h"
#include "service/diagnostics/service_log.h"

namespace stewardry {

platform::ProcessLifetime<platform::DeviceHandle> gRequestDevice;
platform::ProcessLifetime<platform::DeviceHandle> gInterruptDevice;

namespace {

// The detail record of one interface, as long as its path.
using DetailBlock = std::unique_ptr<char[]>;

platform::DeviceInterfaceDetail* DetailOf(const DetailBlock& block) {
  return reinterpret_cast<platform::DeviceInterfaceDetail*>(block.get());
}

const char* PathOf(const DetailBlock& block) {
  return block.get() + offsetof(platform::DeviceInterfaceDetail, devicePath);
}

// Reads the path of one interface; an empty block after a logged failure.
DetailBlock ReadDetail(const platform::DeviceInfoList& list,
                       const platform::DeviceInterfaceData& data) {
  std::uint32_t size = 0;
  if (!platform::SetupDiGetDeviceInterfaceDetailA(list, data, nullptr, 0, &size) &&
      platform::LastError() != platform::kErrorInsufficientBuffer) {
    LogInfo("SetupDiGetDeviceInterfaceDetail failed with error: %d", platform::LastError());
    return nullptr;
  }
  DetailBlock block(new (std::nothrow) char[size < sizeof(platform::DeviceInterfaceDetail)
                                                ? sizeof(platform::DeviceInterfaceDetail)
                                                : size]);
  if (!block) {
    LogInfo("Couldn't allocate %d bytes for device interface detailsn", size);
    return nullptr;
  }
  DetailOf(block)->cbSize = sizeof(platform::DeviceInterfaceDetail);
  if (platform::SetupDiGetDeviceInterfaceDetailA(list, data, DetailOf(block), size, nullptr))
    return block;
  LogInfo("Error in SetupDiGetDeviceInterfaceDetail");
  return nullptr;
}

// Walks the interfaces of the class and keeps the path of the last; false after a failure of a
// detail, which ends the search. An enumeration that fails drops the path found so far.
bool FindLastInterface(const platform::DeviceInfoList& list, DetailBlock* last) {
  for (std::uint32_t index = 0;; ++index) {
    platform::DeviceInterfaceData data{};
    data.cbSize = sizeof data;
    if (!platform::SetupDiEnumDeviceInterfaces(list, kMailboxInterfaceClass, index, &data)) {
      if (platform::LastError() != platform::kErrorNoMoreItems) last->reset();
      return true;
    }
    *last = ReadDetail(list, data);
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
  DetailBlock path;
  if (!FindLastInterface(list, &path)) return 1;
  list.Reset();
  if (!path) {
    LogInfo("No device interfaces present");
    return 1;
  }
  platform::DeviceHandle& handle = mode == kRequestMode ? *gRequestDevice : *gInterruptDevice;
  if (!OpenHandle(&handle, PathOf(path), mode)) return 1;
  LogInfo("Device open success");
  return 0;
}

void CloseOrrinDevice() { gRequestDevice->Reset(platform::InvalidHandleValue()); }

}  // namespace stewardry
