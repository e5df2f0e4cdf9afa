#include "platform/user_session.h"

#include <algorithm>
#include <cstring>

#include "platform/windows/runtime/windows_api.h"
// These need windows.h.
#include <tlhelp32.h>
#include <userenv.h>

namespace platform {

static_assert(kErrorNoMoreFiles == ERROR_NO_MORE_FILES);
static_assert(kProcessAllAccess == PROCESS_ALL_ACCESS && kSynchronize == SYNCHRONIZE &&
              kProcessQuery == PROCESS_QUERY_INFORMATION);
static_assert(kTokenAllAccess == TOKEN_ALL_ACCESS && kTokenQuery == TOKEN_QUERY);
static_assert(UserSid::kSize == SECURITY_MAX_SID_SIZE);
static_assert(kDetachedProcess == DETACHED_PROCESS &&
              kCreateUnicodeEnvironment == CREATE_UNICODE_ENVIRONMENT);
static_assert(kSwShow == SW_SHOW);
static_assert(sizeof(PROCESSENTRY32) == 304 && sizeof(STARTUPINFOA) == 104);
static_assert(sizeof(PROCESSENTRY32::szExeFile) == kMaxPath);

namespace {

using Walk = BOOL(WINAPI*)(HANDLE, PROCESSENTRY32*);

bool Step(Walk walk, const ProcessSnapshot& snapshot, ProcessEntry* entry) {
  PROCESSENTRY32 found{};
  found.dwSize = sizeof found;
  if (!walk(snapshot.Raw(), &found)) return false;
  entry->processId = found.th32ProcessID;
  std::memcpy(entry->executable, found.szExeFile, sizeof entry->executable);
  entry->executable[sizeof entry->executable - 1] = 0;
  return true;
}

}  // namespace

std::uint32_t WTSGetActiveConsoleSessionId() { return ::WTSGetActiveConsoleSessionId(); }

void CloseSnapshot(RawHandle raw) { ::CloseHandle(raw); }

ProcessSnapshot CreateToolhelp32Snapshot() {
  return ProcessSnapshot(::CreateToolhelp32Snapshot(TH32CS_SNAPPROCESS, 0));
}

bool Process32First(const ProcessSnapshot& snapshot, ProcessEntry* entry) {
  return Step(::Process32First, snapshot, entry);
}

bool Process32Next(const ProcessSnapshot& snapshot, ProcessEntry* entry) {
  return Step(::Process32Next, snapshot, entry);
}

void CloseProcess(RawHandle raw) { ::CloseHandle(raw); }

Process OpenProcess(std::uint32_t access, std::uint32_t processId) {
  return Process(::OpenProcess(access, FALSE, processId));
}

std::uint32_t WaitForSingleObject(const Process& process, std::uint32_t milliseconds) {
  return ::WaitForSingleObject(process.Raw(), milliseconds);
}

bool GetExitCodeProcess(const Process& process, std::uint32_t* exitCode) {
  DWORD code = 0;
  if (!::GetExitCodeProcess(process.Raw(), &code)) return false;
  *exitCode = code;
  return true;
}

bool TerminateProcess(const Process& process, std::uint32_t exitCode) {
  return ::TerminateProcess(process.Raw(), exitCode) != FALSE;
}

std::uint32_t GetProcessId(const Process& process) { return ::GetProcessId(process.Raw()); }

Token OpenProcessToken(const Process& process, std::uint32_t access) {
  HANDLE raw = nullptr;
  ::OpenProcessToken(process.Raw(), access, &raw);
  return Token(raw);
}

bool GetTokenUser(const Token& token, UserSid* user) {
  union {
    TOKEN_USER record;
    std::uint8_t room[sizeof(TOKEN_USER) + UserSid::kSize];
  } answer;
  DWORD length = 0;
  if (!::GetTokenInformation(token.Raw(), TokenUser, &answer, sizeof answer, &length)) return false;
  const auto* sid = static_cast<const SID*>(answer.record.User.Sid);
  const std::size_t size =
      offsetof(SID, SubAuthority) + sid->SubAuthorityCount * sizeof sid->SubAuthority[0];
  *user = {};
  std::memcpy(user->bytes.data(), sid, std::min(size, UserSid::kSize));
  return true;
}

Token DuplicateTokenEx(const Token& token) {
  HANDLE raw = nullptr;
  ::DuplicateTokenEx(token.Raw(), TOKEN_ALL_ACCESS, nullptr, SecurityImpersonation, TokenPrimary,
                     &raw);
  return Token(raw);
}

bool SetTokenSessionId(const Token& token, std::uint32_t sessionId) {
  return ::SetTokenInformation(token.Raw(), TokenSessionId, &sessionId, sizeof sessionId) != FALSE;
}

void DestroyEnvironmentBlock(RawHandle raw) { ::DestroyEnvironmentBlock(raw); }

EnvironmentBlock CreateEnvironmentBlock(const Token& token) {
  void* block = nullptr;
  ::CreateEnvironmentBlock(&block, token.Raw(), FALSE);
  return EnvironmentBlock(block);
}

Process CreateProcessAsUserA(const Token& token, const char* application, const char* commandLine,
                             std::uint32_t flags, const EnvironmentBlock& environment,
                             const StartupInformation& startup) {
  STARTUPINFOA record{};
  record.cb = sizeof record;
  record.lpDesktop = const_cast<char*>(startup.desktop);
  record.wShowWindow = startup.showWindow;
  PROCESS_INFORMATION started{};
  if (!::CreateProcessAsUserA(token.Raw(), application, const_cast<char*>(commandLine), nullptr,
                              nullptr, FALSE, flags, environment.Raw(), nullptr, &record, &started))
    return Process();
  ::CloseHandle(started.hThread);
  return Process(started.hProcess);
}

}  // namespace platform
