// The delay-loaded functions of Windows. Each has its row in CMakeLists.txt beside this file;
// cmake/delay_import.cmake says why they are loaded this way.
#pragma once

namespace platform {

// Loads every delay-loaded DLL and finds every function that the program uses, so that no thread
// does so later: one that is ended from outside must not take the loader's lock with it. A function
// that this Windows lacks gives from then on what its row says; its last error, its error code or
// its HRESULT is ERROR_PROC_NOT_FOUND. Call once, when the DLL search has been narrowed, while the
// process has one thread.
void BindDelayImports();

}  // namespace platform
