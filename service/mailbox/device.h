// The mailbox device: its two handles, found through the driver's device interface. Requests of
// all threads go over gRequestDevice; the reads of the reader thread over gInterruptDevice.
#pragma once

#include <cstdint>

#include "platform/device.h"

namespace stewardry {

// {70A9067B-708F-443C-84BA-BC391FDBF72B}, the mailbox driver's device interface class.
inline constexpr platform::Guid kMailboxInterfaceClass = {
    0x70A9067B, 0x708F, 0x443C, {0x84, 0xBA, 0xBC, 0x39, 0x1F, 0xDB, 0xF7, 0x2B}};

// Written before the threads that use it exist, read by all of them, closed by nobody in a run.
extern platform::ProcessLifetime<platform::DeviceHandle> gRequestDevice;
// The reader thread's own.
extern platform::ProcessLifetime<platform::DeviceHandle> gInterruptDevice;

constexpr std::uint32_t kInterruptMode = 0;
constexpr std::uint32_t kRequestMode = 1;

// Finds the interface that is enumerated last and opens gRequestDevice (mode 1) or
// gInterruptDevice (any other mode) on it, unless that handle is valid already. 0 on success, 1
// after a logged failure.
std::uint32_t OpenOrrinDevice(std::uint32_t mode);

// Closes gRequestDevice; does nothing when it is invalid.
void CloseOrrinDevice();

}  // namespace stewardry
