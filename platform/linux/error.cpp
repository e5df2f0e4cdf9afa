#include "platform/error.h"

#include <cstdio>

#include "platform/linux/runtime/gate.h"

namespace platform {

namespace {

thread_local std::uint32_t tLastError = 0;

struct TextRow {
  std::uint32_t error;
  const char* text;
};

constexpr TextRow kTexts[] = {
    {kErrorFileNotFound, "File not found."},
    {kErrorPathNotFound, "Path not found."},
    {kErrorAccessDenied, "Access denied."},
    {kErrorInvalidHandle, "Invalid handle."},
    {kErrorInvalidParameter, "Invalid parameter."},
    {kErrorNotEnoughMemory, "Not enough memory."},
    {kErrorFailedServiceControllerConnect, "The service manager did not start this process."},
    {kErrorServiceNotActive, "The service is not active."},
};

}  // namespace

std::uint32_t LastError() { return tLastError; }

void SetLastError(std::uint32_t error) { tLastError = error; }

std::size_t FormatMessageA(std::uint32_t error, char* text, std::size_t size) {
  if (gate::Fails("FormatMessageA")) return 0;
  for (const TextRow& row : kTexts) {
    if (row.error != error) continue;
    const auto length = static_cast<std::size_t>(std::snprintf(text, size, "%s", row.text));
    return length < size ? length : size - 1;
  }
  return 0;
}

}  // namespace platform
