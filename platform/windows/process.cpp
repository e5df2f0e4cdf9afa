#include "platform/process.h"

#include <cstdio>

#include "platform/windows/runtime/delay_imports.h"
#include "platform/windows/runtime/windows_api.h"
// These need windows.h.
#include <psapi.h>
#include <shlobj.h>

namespace platform {

static_assert(kMaxPath == MAX_PATH);
static_assert(sizeof(PROCESS_MEMORY_COUNTERS_EX) == 80);
static_assert(kMemCommit == MEM_COMMIT && kMemPrivate == MEM_PRIVATE && kMemMapped == MEM_MAPPED &&
              kMemImage == MEM_IMAGE && kPageReadOnly == PAGE_READONLY &&
              kPageGuard == PAGE_GUARD && kPageReadWrite == PAGE_READWRITE &&
              kPageExecuteReadWrite == PAGE_EXECUTE_READWRITE);

bool PrepareProcess() {
  const bool isNarrow =
      ::SetDefaultDllDirectories(LOAD_LIBRARY_SEARCH_SYSTEM32) && ::SetDllDirectoryA("");
  BindDelayImports();
  return isNarrow;
}

bool GetCommonAppDataFolder(char (&path)[kMaxPath]) {
  return ::SHGetFolderPathA(nullptr, CSIDL_COMMON_APPDATA, nullptr, SHGFP_TYPE_CURRENT, path) ==
         S_OK;
}

std::uint32_t GetModuleFileNameA(char (&path)[kMaxPath]) {
  const DWORD length = ::GetModuleFileNameA(nullptr, path, kMaxPath);
  return length < kMaxPath ? length : 0;  // kMaxPath: Windows has cut the path
}

void ExitProcess(std::uint32_t exitCode) { ::ExitProcess(exitCode); }

std::uint64_t GetPrivateUsage() {
  PROCESS_MEMORY_COUNTERS_EX counters{};
  counters.cb = sizeof counters;
  auto* plain = reinterpret_cast<PROCESS_MEMORY_COUNTERS*>(&counters);
  if (!::K32GetProcessMemoryInfo(::GetCurrentProcess(), plain, sizeof counters)) return 0;
  return counters.PrivateUsage;
}

bool VirtualQuery(std::uint64_t address, MemoryInformation* information) {
  MEMORY_BASIC_INFORMATION found{};
  if (::VirtualQuery(reinterpret_cast<const void*>(address), &found, sizeof found) == 0)
    return false;
  *information = {reinterpret_cast<std::uint64_t>(found.BaseAddress), found.RegionSize, found.State,
                  found.Protect, found.Type};
  return true;
}

void CloseCommandPipe(RawHandle raw) { ::_pclose(static_cast<FILE*>(raw)); }

CommandPipe OpenCommandPipe(const char* command) { return CommandPipe(::_popen(command, "r")); }

bool ReadLine(const CommandPipe& pipe, char* line, std::size_t size) {
  return std::fgets(line, static_cast<int>(size), static_cast<FILE*>(pipe.Raw())) != nullptr;
}

}  // namespace platform
