// Processes, tokens, and the start of a process in the console's session. On Linux processes are
// real; sessions and tokens are stand-ins.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "platform/handle.h"
#include "platform/power.h"
#include "platform/process.h"

namespace platform {

constexpr std::uint32_t kNoSession = 0xFFFFFFFF;
// Returns the session at the console, kNoSession if there is none.
std::uint32_t WTSGetActiveConsoleSessionId();

void CloseSnapshot(RawHandle raw);
using ProcessSnapshot = Owned<struct ProcessSnapshotTag, CloseSnapshot>;

// Takes a snapshot of the process list. Holds the invalid handle value on failure.
ProcessSnapshot CreateToolhelp32Snapshot();

constexpr std::uint32_t kErrorNoMoreFiles = 18;  // ERROR_NO_MORE_FILES
// The two fields of PROCESSENTRY32 that are read.
struct ProcessEntry {
  std::uint32_t processId;
  char executable[kMaxPath];  // file name, zero-terminated
};
// Store an entry of the snapshot. Return false with kErrorNoMoreFiles after the last one.
bool Process32First(const ProcessSnapshot& snapshot, ProcessEntry* entry);
bool Process32Next(const ProcessSnapshot& snapshot, ProcessEntry* entry);

void CloseProcess(RawHandle raw);
using Process = Owned<struct ProcessTag, CloseProcess>;

constexpr std::uint32_t kProcessAllAccess = 0x1FFFFF;  // PROCESS_ALL_ACCESS
constexpr std::uint32_t kSynchronize = 0x100000;       // SYNCHRONIZE
constexpr std::uint32_t kProcessQuery = 0x400;         // PROCESS_QUERY_INFORMATION

// Opens a process, not inheritable.
Process OpenProcess(std::uint32_t access, std::uint32_t processId);
// Blocks until the process has ended, for at most `milliseconds`. Returns a result of
// platform/event.h.
std::uint32_t WaitForSingleObject(const Process& process, std::uint32_t milliseconds);
// Stores the exit code, kStillActive while the process runs.
bool GetExitCodeProcess(const Process& process, std::uint32_t* exitCode);
// Terminates the process.
bool TerminateProcess(const Process& process, std::uint32_t exitCode);
// Returns the process id, 0 on failure.
std::uint32_t GetProcessId(const Process& process);

constexpr std::uint32_t kTokenAllAccess = 0xF01FF;  // TOKEN_ALL_ACCESS
constexpr std::uint32_t kTokenQuery = 0x8;          // TOKEN_QUERY

// Opens the token of a process.
Token OpenProcessToken(const Process& process, std::uint32_t access);

// A user's security identifier, padded with zeroes. On Linux it holds the user id.
struct UserSid {
  static constexpr std::size_t kSize = 68;  // SECURITY_MAX_SID_SIZE
  std::array<std::uint8_t, kSize> bytes{};
  bool operator==(const UserSid&) const = default;
};
// Stores the user of a token.
bool GetTokenUser(const Token& token, UserSid* user);

// Duplicates a token to a primary token with all access.
Token DuplicateTokenEx(const Token& token);
// Moves a token to a session. Requires SeTcbPrivilege.
bool SetTokenSessionId(const Token& token, std::uint32_t sessionId);

void DestroyEnvironmentBlock(RawHandle raw);
using EnvironmentBlock = Owned<struct EnvironmentBlockTag, DestroyEnvironmentBlock>;
// Creates the environment of the token's user, without that of this process.
EnvironmentBlock CreateEnvironmentBlock(const Token& token);

constexpr std::uint16_t kSwShow = 5;  // SW_SHOW
// The fields of STARTUPINFOA that are set. Its flags are 0, so showWindow has no effect.
struct StartupInformation {
  const char* desktop;
  std::uint16_t showWindow;
};

constexpr std::uint32_t kDetachedProcess = 0x8;             // DETACHED_PROCESS
constexpr std::uint32_t kCreateUnicodeEnvironment = 0x400;  // CREATE_UNICODE_ENVIRONMENT

// Starts a process that inherits no handle. `application` is the full path of the program; the
// command line does not choose it. An empty `environment` is that of this process. On Linux the
// command line is the only argument of the program.
Process CreateProcessAsUserA(const Token& token, const char* application, const char* commandLine,
                             std::uint32_t flags, const EnvironmentBlock& environment,
                             const StartupInformation& startup);

}  // namespace platform
