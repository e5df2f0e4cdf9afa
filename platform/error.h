// The last error of the calling thread, in Windows numbers on both platforms, so that an error
// number in a log line means the same on both.
#pragma once

#include <cstddef>
#include <cstdint>

namespace platform {

// Numbers of winerror.h that the service compares or a stand-in reports.
enum : std::uint32_t {
  kErrorSuccess = 0,
  kErrorFileNotFound = 2,
  kErrorPathNotFound = 3,
  kErrorAccessDenied = 5,
  kErrorInvalidHandle = 6,
  kErrorNotEnoughMemory = 8,
  kErrorGenFailure = 31,
  kErrorSharingViolation = 32,
  kErrorInvalidParameter = 87,
  kErrorBufferOverflow = 111,
  kErrorDiskFull = 112,
  kErrorCallNotImplemented = 120,
  kErrorInsufficientBuffer = 122,
  kErrorAlreadyExists = 183,
  kErrorNoData = 232,
  kErrorMoreData = 234,
  kErrorNoMoreItems = 259,
  kErrorOperationAborted = 995,
  kErrorIoIncomplete = 996,
  kErrorIoPending = 997,
  kErrorServiceNotActive = 1062,
  kErrorFailedServiceControllerConnect = 1063,
  kErrorServiceExists = 1073,
  kErrorDeviceNotConnected = 1167,
  kErrorNotFound = 1168,
  kErrorPrivilegeNotHeld = 1314,
};

// Returns the last error of the calling thread (GetLastError). Must follow the failed call
// directly.
std::uint32_t LastError();

// Sets the last error of the calling thread.
void SetLastError(std::uint32_t error);

// Stores the system's text for `error` in `text` of `size` bytes, zero-terminated, cut to fit.
// Returns its length without the terminator, 0 if the system has no text.
std::size_t FormatMessageA(std::uint32_t error, char* text, std::size_t size);

}  // namespace platform
