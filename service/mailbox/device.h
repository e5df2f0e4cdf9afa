// The mailbox device and the paths of device interfaces. Requests of all threads use
// gRequestDevice; the reads of the reader thread use gInterruptDevice.
#pragma once

#include <cassert>
#include <cstddef>
#include <cstdint>
#include <utility>

#include "platform/device.h"
#include "platform/heap.h"
#include "service/mailbox/mailbox_link.h"

namespace stewardry {

// {70A9067B-708F-443C-84BA-BC391FDBF72B}, the mailbox driver's device interface class.
inline constexpr platform::Guid kMailboxInterfaceClass = {
    0x70A9067B, 0x708F, 0x443C, {0x84, 0xBA, 0xBC, 0x39, 0x1F, 0xDB, 0xF7, 0x2B}};

constexpr std::uint32_t kInterruptMode = 0;
constexpr std::uint32_t kRequestMode = 1;

// Finds the interface that is enumerated last and opens gRequestDevice (kRequestMode) or
// gInterruptDevice (any other mode) on it, unless that handle is valid already. Returns 0, or 1
// after a logged failure.
std::uint32_t OpenOrrinDevice(std::uint32_t mode);

// Closes gRequestDevice. Does nothing if it is invalid.
void CloseOrrinDevice();

// Owns the detail record of one device interface, of the mailbox or a battery; may own none.
class DevicePath {
 public:
  DevicePath() = default;
  explicit DevicePath(platform::LocalBlock detail) : detail_(std::move(detail)) {}
  explicit operator bool() const { return static_cast<bool>(detail_); }
  // Returns the zero-terminated path, valid as long as this object. Requires a record.
  const char* Text() const {
    assert(detail_);
    return static_cast<const char*>(detail_.Raw()) +
           offsetof(platform::DeviceInterfaceDetail, devicePath);
  }

 private:
  platform::LocalBlock detail_;
};

// Queries the size of the detail record and then the record. Returns no record after a logged
// failure. Any thread.
DevicePath ReadDevicePath(const platform::DeviceInfoList& list,
                          const platform::DeviceInterfaceData& data);

}  // namespace stewardry
