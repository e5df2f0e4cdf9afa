// The last error of the calling thread.
#include "platform/error.h"

#include <algorithm>
#include <cstring>
#include <memory>

#include "platform/windows/runtime/windows_api.h"

namespace platform {

static_assert(
    kErrorSuccess == ERROR_SUCCESS && kErrorFileNotFound == ERROR_FILE_NOT_FOUND &&
    kErrorPathNotFound == ERROR_PATH_NOT_FOUND && kErrorAccessDenied == ERROR_ACCESS_DENIED &&
    kErrorInvalidHandle == ERROR_INVALID_HANDLE &&
    kErrorNotEnoughMemory == ERROR_NOT_ENOUGH_MEMORY && kErrorGenFailure == ERROR_GEN_FAILURE &&
    kErrorSharingViolation == ERROR_SHARING_VIOLATION &&
    kErrorInvalidParameter == ERROR_INVALID_PARAMETER &&
    kErrorBufferOverflow == ERROR_BUFFER_OVERFLOW && kErrorDiskFull == ERROR_DISK_FULL &&
    kErrorCallNotImplemented == ERROR_CALL_NOT_IMPLEMENTED &&
    kErrorInsufficientBuffer == ERROR_INSUFFICIENT_BUFFER &&
    kErrorAlreadyExists == ERROR_ALREADY_EXISTS && kErrorMoreData == ERROR_MORE_DATA &&
    kErrorNoMoreItems == ERROR_NO_MORE_ITEMS && kErrorOperationAborted == ERROR_OPERATION_ABORTED &&
    kErrorIoPending == ERROR_IO_PENDING && kErrorServiceNotActive == ERROR_SERVICE_NOT_ACTIVE &&
    kErrorFailedServiceControllerConnect == ERROR_FAILED_SERVICE_CONTROLLER_CONNECT &&
    kErrorServiceExists == ERROR_SERVICE_EXISTS &&
    kErrorDeviceNotConnected == ERROR_DEVICE_NOT_CONNECTED && kErrorNotFound == ERROR_NOT_FOUND &&
    kErrorPrivilegeNotHeld == ERROR_PRIVILEGE_NOT_HELD);

namespace {

struct LocalFreeIt {
  void operator()(char* text) const { ::LocalFree(text); }
};

}  // namespace

std::uint32_t LastError() { return ::GetLastError(); }

void SetLastError(std::uint32_t error) { ::SetLastError(error); }

std::size_t FormatMessageA(std::uint32_t error, char* text, std::size_t size) {
  // Into a block of the system's: into a block too small Windows would write nothing.
  char* raw = nullptr;
  const DWORD length = ::FormatMessageA(
      FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS,
      nullptr, error, 0, reinterpret_cast<char*>(&raw), 0, nullptr);
  const std::unique_ptr<char, LocalFreeIt> whole(raw);
  if (size == 0) return 0;
  const std::size_t kept = std::min<std::size_t>(length, size - 1);
  if (kept > 0) std::memcpy(text, whole.get(), kept);
  text[kept] = '\0';
  return kept;
}

}  // namespace platform
