// Programs in the console's session: the processes of the machine, tokens, and the start of a
// process with one. On Linux a process is real, and sessions and tokens stand in.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "platform/handle.h"
#include "platform/power.h"
#include "platform/process.h"

namespace platform {

constexpr std::uint32_t kNoSession = 0xFFFFFFFF;
// WTSGetActiveConsoleSessionId: the session at the console; kNoSession while there is none.
std::uint32_t WTSGetActiveConsoleSessionId();

void CloseSnapshot(RawHandle raw);
using ProcessSnapshot = Owned<struct ProcessSnapshotTag, CloseSnapshot>;

// CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0). Holds the invalid handle value on failure.
ProcessSnapshot CreateToolhelp32Snapshot();

constexpr std::uint32_t kErrorNoMoreFiles = 18;  // ERROR_NO_MORE_FILES
// The two fields of PROCESSENTRY32 that are read.
struct ProcessEntry {
  std::uint32_t processId;
  char executable[kMaxPath];  // name without a folder, zero-terminated
};
// Process32First and Process32Next: false with kErrorNoMoreFiles behind the last entry.
bool Process32First(const ProcessSnapshot& snapshot, ProcessEntry* entry);
bool Process32Next(const ProcessSnapshot& snapshot, ProcessEntry* entry);

void CloseProcess(RawHandle raw);
using Process = Owned<struct ProcessTag, CloseProcess>;

constexpr std::uint32_t kProcessAllAccess = 0x1FFFFF;  // PROCESS_ALL_ACCESS
constexpr std::uint32_t kSynchronize = 0x100000;       // SYNCHRONIZE
constexpr std::uint32_t kProcessQuery = 0x400;         // PROCESS_QUERY_INFORMATION

// OpenProcess(access, FALSE, processId). Empty owner on failure.
Process OpenProcess(std::uint32_t access, std::uint32_t processId);
// WaitForSingleObject: kWaitObject0 once it has ended, else as for an event.
std::uint32_t WaitForSingleObject(const Process& process, std::uint32_t milliseconds);
// GetExitCodeProcess: kStillActive while it runs. False on failure.
bool GetExitCodeProcess(const Process& process, std::uint32_t* exitCode);
// TerminateProcess: forces its end.
bool TerminateProcess(const Process& process, std::uint32_t exitCode);
// GetProcessId; 0 on failure.
std::uint32_t GetProcessId(const Process& process);

constexpr std::uint32_t kTokenAllAccess = 0xF01FF;  // TOKEN_ALL_ACCESS
constexpr std::uint32_t kTokenQuery = 0x8;          // TOKEN_QUERY

// OpenProcessToken(process, access). Empty owner on failure.
Token OpenProcessToken(const Process& process, std::uint32_t access);

// A user by his security identifier, zeroes behind it. On Linux it holds the user's number.
struct UserSid {
  static constexpr std::size_t kSize = 68;  // SECURITY_MAX_SID_SIZE
  std::array<std::uint8_t, kSize> bytes{};
  bool operator==(const UserSid&) const = default;
};
// GetTokenInformation(TokenUser): whose token it is. False on failure.
bool GetTokenUser(const Token& token, UserSid* user);

// DuplicateTokenEx to a primary token: TOKEN_ALL_ACCESS, SecurityImpersonation, TokenPrimary. Empty
// owner on failure.
Token DuplicateTokenEx(const Token& token);
// SetTokenInformation(TokenSessionId, 4 bytes); needs SeTcbPrivilege.
bool SetTokenSessionId(const Token& token, std::uint32_t sessionId);

void DestroyEnvironmentBlock(RawHandle raw);
using EnvironmentBlock = Owned<struct EnvironmentBlockTag, DestroyEnvironmentBlock>;
// CreateEnvironmentBlock(token, FALSE): the environment of the token's user, nothing inherited.
// Empty owner on failure.
EnvironmentBlock CreateEnvironmentBlock(const Token& token);

constexpr std::uint16_t kSwShow = 5;  // SW_SHOW
// STARTUPINFOA: the fields that are set. `flags` stays 0, so showWindow isn't in force.
struct StartupInformation {
  const char* desktop;
  std::uint16_t showWindow;
};

constexpr std::uint32_t kDetachedProcess = 0x8;             // DETACHED_PROCESS
constexpr std::uint32_t kCreateUnicodeEnvironment = 0x400;  // CREATE_UNICODE_ENVIRONMENT

// CreateProcessAsUserA: no security attributes, no inherited handle, no current directory; an empty
// `environment` is null. `application` is the program's full path, so that the command line names
// nothing but what the program is told. Empty owner on failure. On Linux the command line is the
// program's one word, and the child inherits no descriptor.
Process CreateProcessAsUserA(const Token& token, const char* application, const char* commandLine,
                             std::uint32_t flags, const EnvironmentBlock& environment,
                             const StartupInformation& startup);

}  // namespace platform
