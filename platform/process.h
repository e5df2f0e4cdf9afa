// The process: its folders, its path, its memory, its end, and the output of a shell command.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/handle.h"

namespace platform {

constexpr std::size_t kMaxPath = 260;  // MAX_PATH

// Run once, before anything else: on Windows narrows the DLL search to the system folder and loads
// from there every DLL that the program uses; on Linux ignores SIGPIPE, occupies descriptors 0 to 2
// and makes the lab folder. False when the search stays wide, or the descriptors free.
bool PrepareProcess();

// SHGetFolderPathA(CSIDL_COMMON_APPDATA): the machine's common application data folder, without a
// trailing separator, into `path` of kMaxPath bytes. False on failure.
bool GetCommonAppDataFolder(char (&path)[kMaxPath]);

// GetModuleFileNameA for the process: the executable's full path into `path` of kMaxPath bytes.
// Gives its length; 0 on failure, with kErrorInsufficientBuffer for a path that is longer than that
// and would be another file's when cut.
std::uint32_t GetModuleFileNameA(char (&path)[kMaxPath]);

// ExitProcess: ends the process at once, whichever thread calls. No destructor of a static object
// runs, since other threads still use them.
[[noreturn]] void ExitProcess(std::uint32_t exitCode);

// K32GetProcessMemoryInfo with the extended counters: PrivateUsage in bytes, 0 on failure.
std::uint64_t GetPrivateUsage();

constexpr std::uint32_t kMemCommit = 0x1000;           // MEM_COMMIT
constexpr std::uint32_t kMemPrivate = 0x20000;         // MEM_PRIVATE
constexpr std::uint32_t kMemMapped = 0x40000;          // MEM_MAPPED
constexpr std::uint32_t kMemImage = 0x1000000;         // MEM_IMAGE
constexpr std::uint32_t kPageReadOnly = 0x02;          // PAGE_READONLY
constexpr std::uint32_t kPageReadWrite = 0x04;         // PAGE_READWRITE
constexpr std::uint32_t kPageExecuteReadWrite = 0x40;  // PAGE_EXECUTE_READWRITE
constexpr std::uint32_t kPageGuard = 0x100;            // PAGE_GUARD

// MEMORY_BASIC_INFORMATION: the fields that are read. On Linux state, protection and type are told
// in Windows' numbers, and an image is what is mapped privately from a file.
struct MemoryInformation {
  std::uint64_t baseAddress;  // of a run of pages that are alike
  std::uint64_t regionSize;   // bytes
  std::uint32_t state;
  std::uint32_t protect;  // also bits beside those of the kind of access
  std::uint32_t type;
};
// VirtualQuery: the pages of this process around `address`. False on failure.
bool VirtualQuery(std::uint64_t address, MemoryInformation* information);

void CloseCommandPipe(RawHandle raw);
using CommandPipe = Owned<struct CommandPipeTag, CloseCommandPipe>;

// _popen(command, "r"): starts a shell command and reads its output. The service runs "ver" only.
// Empty owner on failure.
CommandPipe OpenCommandPipe(const char* command);

// fgets: reads one line, at most size-1 characters with its line end, and terminates it. False at
// the end of the output.
bool ReadLine(const CommandPipe& pipe, char* line, std::size_t size);

}  // namespace platform
