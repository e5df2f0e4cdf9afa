#include "service/kvm/agent.h"

#include <cassert>
#include <chrono>
#include <cstring>
#include <utility>

#include "platform/error.h"
#include "platform/event.h"
#include "platform/file.h"
#include "platform/pipe.h"
#include "platform_traits.h"
#include "service/diagnostics/format.h"
#include "service/diagnostics/service_log.h"
#include "service/diagnostics/side_log.h"
#include "service/kvm/kvm_state.h"
#include "text/letter_case.h"

namespace stewardry {

namespace {

constexpr platform::StartupInformation kStartupInformation = {"Winsta0\\Default",
                                                              platform::kSwShow};
constexpr std::chrono::seconds kWatchPeriod{2};
constexpr std::uint32_t kCheckMilliseconds = 50;    // between two checks for a stop request
constexpr std::uint32_t kWriteMilliseconds = 1000;  // for an agent that does not read
constexpr int kServerAttempts = 4;                  // to reach a server that may be trusted

template <class... Args>
void Note(std::string_view format, const Args&... args) {
  SideLog(kSideLogKeyboardMouse, format, args...);
}

// Writes a side log line. Returns false, the caller's result.
bool Fail(const char* line) {
  Note("%s", line);
  return false;
}

// Writes a trace line for a debugger.
template <class... Args>
void Trace(CheckedFormat<std::type_identity_t<Args>...> format, const Args&... args) {
  char line[256];
  FormatTo(line, sizeof line, format, args...);
  platform::OutputDebugStringA(line);
}

// Builds the agent's path, beside the service's executable. Returns false if the executable's path
// or folder is not available, or if the result fills the buffer and may be cut: a program found
// elsewhere is not our agent, and would run with the system's rights.
bool BuildAgentPath(char (&appPath)[platform::kMaxPath]) {
  char workDir[platform::kMaxPath] = {};
  if (platform::GetModuleFileNameA(workDir) == 0) return false;
  char* separator = std::strrchr(workDir, platform::kPathSeparator);
  if (separator == nullptr) return false;
  *separator = 0;
  return FormatTo(appPath, sizeof appPath, "%s%c%s%s", static_cast<const char*>(workDir),
                  platform::kPathSeparator, "KVM_Agent",
                  platform::kProgramSuffix) < sizeof appPath - 1;
}

// Returns true if the process runs as the service's own user. Any user may start a program of any
// name and serve a pipe of any name; only the system and its administrators can do so as this user.
bool IsOfOwnUser(std::uint32_t processId) {
  const platform::Process process = platform::OpenProcess(platform::kProcessQuery, processId);
  if (!process) return false;
  const platform::Token token = platform::OpenProcessToken(process, platform::kTokenQuery);
  const platform::Token ownToken = platform::OpenProcessToken();
  platform::UserSid user, ownUser;
  return token && ownToken && platform::GetTokenUser(token, &user) &&
         platform::GetTokenUser(ownToken, &ownUser) && user == ownUser;
}

// Returns true if the pipe's server is the agent that was started, or a program that has the
// service's rights anyway. The pipe carries the keys of a user who logs on.
bool IsServedByAgent(const platform::Pipe& pipe) {
  std::uint32_t id = 0;
  if (!platform::GetNamedPipeServerProcessId(pipe, &id)) return false;
  return (id != 0 && id == gKvm->gKvmAgentPid.load(std::memory_order_relaxed)) || IsOfOwnUser(id);
}

// Stores a started agent, and logs it.
void StoreAgent(platform::Process process, bool hasEnvironment) {
  const std::uint32_t error = platform::LastError();
  const std::uint32_t id = platform::GetProcessId(process);
  gKvm->gKvmAgentPid.store(id, std::memory_order_relaxed);
  gKvm->gKvmAgentProcess = std::move(process);  // from here on the earlier agent's id is free
  Trace(" ++++++ CreateProcessAsUser winlogon %d\n", error);
  if (!hasEnvironment) {
    Note(" ++++++ CreateProcessAsUser winlogon 2 getlastError: %d\n", error);
    return;
  }
  Note("CreateProcessAsUser success\n");
  LogInfo("KVM_Agent PID: %d", id);
}

// Logs a failed start. Returns true if it counts as started: the session cannot take a process yet,
// and will later.
bool CountsAsStarted(bool hasEnvironment) {
  const std::uint32_t error = platform::LastError();
  if (hasEnvironment) {
    Note(" ++++++ CreateProcessAsUser failed %d\n", error);
    Trace(" ++++++ CreateProcessAsUser failed %d\n", error);
  } else {
    Note(" ++++++ CreateProcessAsUser no env failed %d\n", error);
    Trace(" ++++++ CreateProcessAsUser no env failed %d\n", error);
  }
  if (error != platform::kErrorPipeNotConnected) return false;
  Note("skip skip skip\n");
  return true;
}

// Starts the agent with the environment of the token's user, or without one if that is not
// available.
bool StartAgent(const platform::Token& token, const char* appPath) {
  platform::EnvironmentBlock environment = platform::CreateEnvironmentBlock(token);
  const bool hasEnvironment = static_cast<bool>(environment);
  if (hasEnvironment) Note("CreateEnvironmentBlock success\n");
  platform::SetLastError(0);
  platform::Process process = platform::CreateProcessAsUserA(
      token, appPath, appPath,
      platform::kDetachedProcess | (hasEnvironment ? platform::kCreateUnicodeEnvironment : 0),
      environment, kStartupInformation);
  bool started = true;
  if (process) {
    StoreAgent(std::move(process), hasEnvironment);
  } else {
    started = CountsAsStarted(hasEnvironment);
  }
  if (hasEnvironment) {
    environment.Reset();
    Note("Destroy Environment Block success\n");
  }
  return started;
}

// Sleeps for one turn of the watch, or until a stop request.
void SleepBetweenChecks() {
  const auto end = std::chrono::steady_clock::now() + kWatchPeriod;
  while (std::chrono::steady_clock::now() < end) {
    if (gKvm->gKvmAgentThread.StopRequested()) return;
    platform::Sleep(kCheckMilliseconds);
  }
}

}  // namespace

bool LaunchKVMAgent() {
  char appPath[platform::kMaxPath] = {};
  if (!BuildAgentPath(appPath)) return false;
  Note("Application %s\n", static_cast<const char*>(appPath));
  const std::uint32_t sessionId = platform::WTSGetActiveConsoleSessionId();
  Note("Session Id 0x%x\n", sessionId);
  (void)EnableTcbPrivilege();  // the steps that need it fail themselves
  platform::Token token;
  if (!Getsessionusertokenwin(&token, sessionId)) {
    Trace(" ++++++ Getsessionusertokenwin failed %d\n", platform::LastError());
    return false;
  }
  return StartAgent(token, appPath);
}

std::uint32_t WatchKVMAgent(void*) {
  while (!gKvm->gKvmAgentThread.StopRequested()) {
    const std::uint32_t id = gKvm->gKvmAgentPid.load(std::memory_order_relaxed);
    if (IsProcessRunning(id)) {
      LogInfo("KVM Agent PID: %d", id);
    } else if (!gKvm->gKvmAgentThread.StopRequested()) {
      (void)LaunchKVMAgent();  // tried again in the next turn
      LogInfo("KVM Agent Launched again");
    }
    SleepBetweenChecks();
  }
  return 0;
}

bool IsProcessRunning(std::uint32_t processId) {
  const platform::Process process = platform::OpenProcess(platform::kSynchronize, processId);
  return process && platform::WaitForSingleObject(process, 0) == platform::kWaitTimeout;
}

bool EnableTcbPrivilege() {
  {
    const platform::Process self =
        platform::OpenProcess(platform::kProcessAllAccess, platform::GetCurrentProcessId());
    if (!self) return Fail("Step 1 Open Process failed\n");
    const platform::Token token = platform::OpenProcessToken(self, platform::kTokenAllAccess);
    if (!token) return Fail("Step 2 Open Process Token failed\n");
    platform::Luid luid;
    if (!platform::LookupPrivilegeValueA("SeTcbPrivilege", &luid))
      return Fail("Step 3 Lookup Privilege Value failed\n");
    if (!platform::AdjustTokenPrivileges(token, luid))
      return Fail("Step 4 Adjust Token Privileges Value failed\n");
  }
  return platform::LastError() == 0;  // only the error reports a privilege that is not held
}

bool Getsessionusertokenwin(platform::Token* token, std::uint32_t sessionId) {
  if (token == nullptr) return Fail("User Token is NULL\n");
  return GetWinlogonToken(token, sessionId);
}

bool GetWinlogonToken(platform::Token* token, std::uint32_t sessionId) {
  assert(token != nullptr);
  const std::uint32_t windowsLogonPid = FindWinlogonPid();
  Note("WindowsLogonPID 0x%x\n", windowsLogonPid);
  const platform::Process process =
      platform::OpenProcess(platform::kProcessAllAccess, windowsLogonPid);
  if (!process) return false;
  Note("Process Handle retrieved successfully using Windows Logon PID: 0x%x\n", windowsLogonPid);
  const platform::Token source = platform::OpenProcessToken(process, platform::kTokenAllAccess);
  if (source) *token = platform::DuplicateTokenEx(source);
  // A token that stays in its own session starts an agent that the console does not see. The start
  // is tried all the same.
  if (*token) (void)platform::SetTokenSessionId(*token, sessionId);
  return static_cast<bool>(*token);
}

std::uint32_t FindWinlogonPid() {
  const platform::ProcessSnapshot snapshot = platform::CreateToolhelp32Snapshot();
  if (!snapshot) return 0;
  std::uint32_t found = 0;
  platform::ProcessEntry entry;
  for (bool more = platform::Process32First(snapshot, &entry); more;
       more = platform::Process32Next(snapshot, &entry))
    if (EqualIgnoringCase(entry.executable, "winlogon.exe") && IsOfOwnUser(entry.processId))
      found = entry.processId;
  return found;
}

void WriteToAgentPipe(const char* pipe, const void* message, std::uint32_t length) {
  assert(pipe != nullptr && message != nullptr);
  for (int attempt = 0; attempt < kServerAttempts; ++attempt) {
    const platform::Pipe connection = platform::OpenPipe(pipe, 0);
    if (!connection) return;
    if (!IsServedByAgent(connection)) continue;  // the next instance may be the agent's
    std::uint32_t written = 0;
    // A message that is not written whole is dropped.
    (void)platform::WriteFile(connection, message, length, kWriteMilliseconds, &written);
    return;
  }
}

void TerminateAgentOverPipe() {
  constexpr char kTerminate[] = "Terminate";
  WriteToAgentPipe(kAgentPipe, kTerminate, sizeof kTerminate - 1);
}

}  // namespace stewardry
