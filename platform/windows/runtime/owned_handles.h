// Windows handles that close themselves.
#pragma once

#include <memory>
#include <type_traits>

#include "platform/windows/runtime/windows_api.h"

namespace platform {

struct CloseManagerHandle {
  void operator()(SC_HANDLE handle) const { ::CloseServiceHandle(handle); }
};
// The service manager, or a service in it.
using ManagerHandle = std::unique_ptr<std::remove_pointer_t<SC_HANDLE>, CloseManagerHandle>;

struct CloseObject {
  void operator()(HANDLE handle) const { ::CloseHandle(handle); }
};
// A kernel object; null is none.
using Object = std::unique_ptr<std::remove_pointer_t<HANDLE>, CloseObject>;

}  // namespace platform
