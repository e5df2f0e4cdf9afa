// The last error of the calling thread, in Windows numbers on every platform, so that a log line
// with an error number means the same wherever the service runs.
#pragma once

#include <cstddef>
#include <cstdint>

namespace platform {

// Winerror.h numbers that the service compares with or the stand-ins report.
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
  kErrorMoreData = 234,
  kErrorNoMoreItems = 259,
  kErrorOperationAborted = 995,
  kErrorIoPending = 997,
  kErrorServiceNotActive = 1062,
  kErrorFailedServiceControllerConnect = 1063,
  kErrorServiceExists = 1073,
  kErrorDeviceNotConnected = 1167,
  kErrorNotFound = 1168,
  kErrorPrivilegeNotHeld = 1314,
};

// GetLastError: the calling thread's last error. Read it directly after the failing call.
std::uint32_t LastError();

// SetLastError, for the calling thread.
void SetLastError(std::uint32_t error);

// FormatMessageA from the system, inserts ignored, default language: writes the text of `error`
// with a terminator into `text` of `size` bytes, cut to fit, and gives its length without the
// terminator; 0 when the system has no text for it.
std::size_t FormatMessageA(std::uint32_t error, char* text, std::size_t size);

}  // namespace platform
