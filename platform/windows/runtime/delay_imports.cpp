// The run-time half of cmake/delay_import.cmake. The linker's helper raises an exception for a
// missing function unless the failure hook below returns a function to call.
#include "platform/windows/runtime/delay_imports.h"

#include <cstdint>
#include <cstring>

#include "platform/windows/runtime/windows_api.h"
// This needs windows.h.
#include <delayimp.h>

// The generated rows name each DLL by the descriptor that its delay-load library defines.
#define DELAYED_FUNCTION(name, kind)
#define DELAYED_DLL(dll) \
  extern "C" const ImgDelayDescr __DELAY_IMPORT_DESCRIPTOR_libdelay_##dll##_a;
#include "delay_rows.inc"
#undef DELAYED_DLL
#undef DELAYED_FUNCTION

// The C runtime's helper that the delay-load libraries call; its header does not declare it.
extern "C" FARPROC WINAPI __delayLoadHelper2(const ImgDelayDescr* dll, FARPROC* function);
extern "C" IMAGE_DOS_HEADER __ImageBase;

namespace platform {

namespace {

// The substitutes for a missing function. The caller removes its arguments (x64 calling
// convention), so one substitute serves every list of arguments.
INT_PTR WINAPI ReturnZero() {
  ::SetLastError(ERROR_PROC_NOT_FOUND);
  return 0;
}

INT_PTR WINAPI ReturnMinusOne() {
  ::SetLastError(ERROR_PROC_NOT_FOUND);
  return -1;
}

INT_PTR WINAPI ReturnError() { return ERROR_PROC_NOT_FOUND; }

INT_PTR WINAPI ReturnHResult() { return HRESULT_FROM_WIN32(ERROR_PROC_NOT_FOUND); }

struct Row {
  const char* name;
  FARPROC substitute;
};

constexpr Row kRows[] = {
#define DELAYED_DLL(dll)
#define DELAYED_FUNCTION(name, kind) {#name, Return##kind},
#include "delay_rows.inc"
#undef DELAYED_FUNCTION
#undef DELAYED_DLL
};

constexpr const ImgDelayDescr* kDlls[] = {
#define DELAYED_FUNCTION(name, kind)
#define DELAYED_DLL(dll) &__DELAY_IMPORT_DESCRIPTOR_libdelay_##dll##_a,
#include "delay_rows.inc"
#undef DELAYED_DLL
#undef DELAYED_FUNCTION
};

FARPROC SubstituteOf(const char* name) {
  for (const Row& row : kRows)
    if (std::strcmp(row.name, name) == 0) return row.substitute;
  return ReturnZero;  // not reached: the libraries and the rows come from one table
}

// Called by the helper on a failure. Returns what the helper uses instead.
FARPROC WINAPI Replace(unsigned failed, PDelayLoadInfo info) {
  // A missing DLL is replaced by this program, which exports nothing: each function is missing
  // then.
  if (failed == dliFailLoadLib) return reinterpret_cast<FARPROC>(&__ImageBase);
  if (failed == dliFailGetProc) return SubstituteOf(info->dlp.szProcName);
  return nullptr;
}

template <typename Type>
Type* At(RVA offset) {
  return reinterpret_cast<Type*>(reinterpret_cast<std::uintptr_t>(&__ImageBase) + offset);
}

// Calls use(dll, function) for each row of each delay-load library's address table.
template <typename Use>
void ForEachFunction(Use use) {
  for (const ImgDelayDescr* dll : kDlls) {
    auto* function = At<FARPROC>(dll->rvaIAT);
    const auto* name = At<const IMAGE_THUNK_DATA>(dll->rvaINT);
    for (; name->u1.AddressOfData != 0; ++name, ++function) use(dll, function);
  }
}

// The helper stores into the address tables, which linkers from binutils 2.44 on put into a
// read-only section. A constructor, because a program may call a delayed function at any time.
// After a failure the first such call faults.
[[gnu::constructor]] void MakeAddressTablesWritable() {
  ForEachFunction([](const ImgDelayDescr*, FARPROC* function) {
    DWORD before;
    (void)::VirtualProtect(function, sizeof *function, PAGE_READWRITE, &before);
  });
}

}  // namespace

void BindDelayImports() {
  ForEachFunction([](const ImgDelayDescr* dll, FARPROC* function) {
    (void)__delayLoadHelper2(dll, function);  // stores its result in the table
  });
}

}  // namespace platform

// Set from the first instruction on; the runtime's own hook is null.
extern "C" {
PfnDliHook __pfnDliFailureHook2 = platform::Replace;
}
