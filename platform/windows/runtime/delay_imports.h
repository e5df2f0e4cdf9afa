// Delay-loaded functions of Windows. Each has a row in platform/windows/CMakeLists.txt;
// cmake/delay_import.cmake gives the reason.
#pragma once

namespace platform {

// Loads every delay-loaded DLL and binds every function that the program uses, so that no thread
// holds the loader's lock later when it is terminated. A function that this Windows lacks returns
// what its row says, with ERROR_PROC_NOT_FOUND as its last error, error code or HRESULT. Requires
// that the DLL search is restricted and that the process has one thread. Once per process.
void BindDelayImports();

}  // namespace platform
