// The process: its folders, path, memory and exit, and the output of a shell command.
#pragma once

#include <cstddef>
#include <cstdint>

#include "platform/handle.h"

namespace platform {

constexpr std::size_t kMaxPath = 260;  // MAX_PATH

// Prepares the process; must be its first call. On Windows it restricts the DLL search to the
// system folder and loads every DLL of the program from there. On Linux it ignores SIGPIPE,
// occupies descriptors 0 to 2 and creates the lab folder. Returns false if the search is not
// restricted, or a descriptor stays free.
bool PrepareProcess();

// Stores the common application data folder of the machine in `path`, without a trailing separator.
bool GetCommonAppDataFolder(char (&path)[kMaxPath]);

// Stores the full path of the executable in `path`. Returns its length, or 0 on failure, with
// kErrorInsufficientBuffer if it does not fit.
std::uint32_t GetModuleFileNameA(char (&path)[kMaxPath]);

// Ends the process at once. Static objects are not destroyed, because other threads still use them.
[[noreturn]] void ExitProcess(std::uint32_t exitCode);

// Returns the private memory of the process in bytes (PrivateUsage), 0 on failure.
std::uint64_t GetPrivateUsage();

constexpr std::uint32_t kMemCommit = 0x1000;           // MEM_COMMIT
constexpr std::uint32_t kMemPrivate = 0x20000;         // MEM_PRIVATE
constexpr std::uint32_t kMemMapped = 0x40000;          // MEM_MAPPED
constexpr std::uint32_t kMemImage = 0x1000000;         // MEM_IMAGE
constexpr std::uint32_t kPageReadOnly = 0x02;          // PAGE_READONLY
constexpr std::uint32_t kPageReadWrite = 0x04;         // PAGE_READWRITE
constexpr std::uint32_t kPageExecuteReadWrite = 0x40;  // PAGE_EXECUTE_READWRITE
constexpr std::uint32_t kPageGuard = 0x100;            // PAGE_GUARD

// The fields of MEMORY_BASIC_INFORMATION that are read, in Windows' numbers on both platforms. On
// Linux an image is a private mapping of a file.
struct MemoryInformation {
  std::uint64_t baseAddress;  // of a run of pages of the same kind
  std::uint64_t regionSize;   // bytes
  std::uint32_t state;
  std::uint32_t protect;  // the access and modifier bits
  std::uint32_t type;
};
// Stores the state of the pages around `address` in this process.
bool VirtualQuery(std::uint64_t address, MemoryInformation* information);

void CloseCommandPipe(RawHandle raw);
using CommandPipe = Owned<struct CommandPipeTag, CloseCommandPipe>;

// Starts a shell command whose output is read (_popen). The service runs "ver" only.
CommandPipe OpenCommandPipe(const char* command);

// Blocks until a line is there and stores it with its line end, at most size-1 characters,
// zero-terminated. Returns false at the end of the output.
bool ReadLine(const CommandPipe& pipe, char* line, std::size_t size);

}  // namespace platform
