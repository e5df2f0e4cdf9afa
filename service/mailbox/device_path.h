// The path of a device interface, in a block as long as the path. The mailbox device and the
// batteries are found by it.
#pragma once

#include "platform/device.h"
#include "platform/heap.h"

namespace stewardry {

// Owns the detail record of one interface; false when there is none.
class DevicePath {
 public:
  DevicePath() = default;
  explicit DevicePath(platform::LocalBlock detail) : detail_(std::move(detail)) {}
  explicit operator bool() const { return static_cast<bool>(detail_); }
  // Zero-terminated; valid as long as this object. REQUIRES: there is one.
  const char* Text() const {
    return static_cast<const char*>(detail_.Raw()) +
           offsetof(platform::DeviceInterfaceDetail, devicePath);
  }

 private:
  platform::LocalBlock detail_;
};

// Asks for the size of the detail record, then for the record. Empty after a logged failure. Any
// thread.
DevicePath ReadDevicePath(const platform::DeviceInfoList& list,
                          const platform::DeviceInterfaceData& data);

}  // namespace stewardry
