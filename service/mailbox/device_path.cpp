// The two calls to a device interface's path.
#include "service/mailbox/device_path.h"

#include <algorithm>
#include <utility>

#include "platform/error.h"
#include "service/diagnostics/service_log.h"

namespace stewardry {

DevicePath ReadDevicePath(const platform::DeviceInfoList& list,
                          const platform::DeviceInterfaceData& data) {
  std::uint32_t size = 0;
  if (!platform::SetupDiGetDeviceInterfaceDetailA(list, data, nullptr, 0, &size) &&
      platform::LastError() != platform::kErrorInsufficientBuffer) {
    LogInfo("SetupDiGetDeviceInterfaceDetail failed with error: %d", platform::LastError());
    return {};
  }
  // Room for the record's own fields at least, whatever size the platform tells.
  const std::size_t room = std::max<std::size_t>(size, sizeof(platform::DeviceInterfaceDetail));
  platform::LocalBlock block = platform::LocalAlloc(room);
  if (!block) {
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
