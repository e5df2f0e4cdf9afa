// Processes are real here; sessions, tokens and environment blocks are stand-ins. There is one
// session, 1, and the process list ends with a winlogon.exe that has this process's own id. The
// lab's processes.txt replaces that row: an id and a name, one a line.
#include "platform/user_session.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cassert>
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <memory>
#include <mutex>
#include <string>
#include <system_error>
#include <vector>

#include "platform/event.h"
#include "platform/linux/lab/lab_folder.h"
#include "platform/linux/runtime/gate.h"
#include "platform/linux/runtime/last_error.h"
#include "platform/linux/runtime/token_record.h"
#include "platform/linux/runtime/wait.h"
#include "platform/thread.h"

namespace platform {

namespace {

constexpr std::uint32_t kConsoleSession = 1;

struct SnapshotRows {
  std::vector<ProcessEntry> rows;
  std::size_t next = 0;
};

struct ProcessRecord {
  int descriptor;  // a pidfd
  pid_t id;
  bool isChild;
};

ProcessRecord& RecordOf(const Process& process) {
  assert(process);
  return *static_cast<ProcessRecord*>(process.Raw());
}

SnapshotRows& RowsOf(const ProcessSnapshot& snapshot) {
  assert(snapshot);
  return *static_cast<SnapshotRows*>(snapshot.Raw());
}

const TokenRecord& RecordOf(const Token& token) {
  assert(token);
  return *static_cast<const TokenRecord*>(token.Raw());
}

ProcessEntry Entry(std::uint32_t id, const std::string& name) {
  ProcessEntry entry{};
  entry.processId = id;
  name.copy(entry.executable, sizeof entry.executable - 1);
  return entry;
}

void AddRealProcesses(std::vector<ProcessEntry>* rows) {
  std::error_code error;
  for (std::filesystem::directory_iterator at("/proc", error), end; !error && at != end;
       at.increment(error)) {
    const std::string folder = at->path().filename();
    if (folder.find_first_not_of("0123456789") != std::string::npos) continue;
    std::string name;
    std::getline(std::ifstream(at->path() / "comm"), name);
    if (!name.empty()) rows->push_back(Entry(static_cast<std::uint32_t>(std::stoul(folder)), name));
  }
}

void AddLabProcesses(std::vector<ProcessEntry>* rows) {
  std::ifstream file(LabPath("processes.txt"));
  if (!file) {
    rows->push_back(Entry(static_cast<std::uint32_t>(::getpid()), "winlogon.exe"));
    return;
  }
  std::uint32_t id;
  for (std::string name; file >> id >> name;) rows->push_back(Entry(id, name));
}

bool HasEnded(const ProcessRecord& record) {
  pollfd fd{record.descriptor, POLLIN, 0};
  return ::poll(&fd, 1, 0) > 0;
}

// Children whose handle was closed while they ran. Their exit status must still be collected.
struct AbandonedChildren {
  std::mutex lock;
  std::vector<pid_t> ids;
};
ProcessLifetime<AbandonedChildren> gAbandoned;

bool Reap(pid_t child) { return ::waitpid(child, nullptr, WNOHANG) != 0; }

// Requires a child that has exited. A tracer, such as a leak check at its exit, may keep its status
// from the parent for a moment.
void AwaitAndReap(pid_t child) { (void)TEMP_FAILURE_RETRY(::waitpid(child, nullptr, 0)); }

void ReapAbandoned() {
  const std::lock_guard guard(gAbandoned->lock);
  std::erase_if(gAbandoned->ids, Reap);
}

Process OpenById(pid_t id, bool isChild) {
  const int fd = static_cast<int>(::syscall(SYS_pidfd_open, id, 0));
  if (fd < 0) return Fail(kErrorInvalidParameter, Process());
  return Process(new ProcessRecord{fd, id, isChild});
}

// Reads the effective user of a process. Returns false if it has exited.
bool EffectiveUser(pid_t id, std::uint32_t* user) {
  std::ifstream status("/proc/" + std::to_string(id) + "/status");
  for (std::string line; std::getline(status, line);)
    if (std::sscanf(line.c_str(), "Uid: %*u %" SCNu32, user) == 1) return true;
  return false;
}

// Starts a program in a session of its own, which inherits only the output and the environment.
// Returns -1 on failure.
pid_t Spawn(const char* path, const char* word) {
  posix_spawnattr_t attributes;
  posix_spawn_file_actions_t actions;
  ::posix_spawnattr_init(&attributes);
  ::posix_spawn_file_actions_init(&actions);
  sigset_t none, all;
  ::sigemptyset(&none);
  ::sigfillset(&all);
  ::posix_spawnattr_setsigmask(&attributes, &none);
  ::posix_spawnattr_setsigdefault(&attributes, &all);
  ::posix_spawnattr_setflags(
      &attributes,
      static_cast<short>(POSIX_SPAWN_SETSID | POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF));
  ::posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  char* const words[] = {const_cast<char*>(word), nullptr};
  pid_t child = 0;
  const int error = ::posix_spawn(&child, path, &actions, &attributes, words, environ);
  ::posix_spawn_file_actions_destroy(&actions);
  ::posix_spawnattr_destroy(&attributes);
  return error == 0 ? child : -1;
}

}  // namespace

std::uint32_t WTSGetActiveConsoleSessionId() {
  return gate::Fails("WTSGetActiveConsoleSessionId") ? kNoSession : kConsoleSession;
}

void CloseSnapshot(RawHandle raw) {
  gate::Note("CloseHandle");
  delete static_cast<SnapshotRows*>(raw);
}

ProcessSnapshot CreateToolhelp32Snapshot() {
  if (gate::Fails("CreateToolhelp32Snapshot")) return ProcessSnapshot(InvalidHandleValue());
  auto snapshot = std::make_unique<SnapshotRows>();
  AddRealProcesses(&snapshot->rows);
  AddLabProcesses(&snapshot->rows);
  return ProcessSnapshot(snapshot.release());
}

bool Process32First(const ProcessSnapshot& snapshot, ProcessEntry* entry) {
  RowsOf(snapshot).next = 0;
  return !gate::Fails("Process32First") && Process32Next(snapshot, entry);
}

// Passes no gate: a trace would be as long as the process list.
bool Process32Next(const ProcessSnapshot& snapshot, ProcessEntry* entry) {
  SnapshotRows& list = RowsOf(snapshot);
  if (list.next == list.rows.size()) return Fail(kErrorNoMoreFiles);
  *entry = list.rows[list.next++];
  return true;
}

void CloseProcess(RawHandle raw) {
  gate::Note("CloseHandle");
  const std::unique_ptr<ProcessRecord> record(static_cast<ProcessRecord*>(raw));
  const bool hasEnded = HasEnded(*record);
  ::close(record->descriptor);
  if (!record->isChild) return;
  if (hasEnded) return AwaitAndReap(record->id);
  const std::lock_guard guard(gAbandoned->lock);
  gAbandoned->ids.push_back(record->id);
}

Process OpenProcess(std::uint32_t access, std::uint32_t processId) {
  ReapAbandoned();
  if (gate::Fails("OpenProcess", "0x%x,%u", access, processId)) return Process();
  if (processId == 0) return Fail(kErrorInvalidParameter, Process());
  return OpenById(static_cast<pid_t>(processId), false);
}

std::uint32_t WaitForSingleObject(const Process& process, std::uint32_t milliseconds) {
  if (gate::Fails("WaitForSingleObject", "%s", "process")) return kWaitFailed;
  if (HasEnded(RecordOf(process))) return kWaitObject0;
  if (milliseconds == 0) return kWaitTimeout;
  const int timeout = milliseconds == kInfinite ? -1 : static_cast<int>(milliseconds);
  return WaitReadable(RecordOf(process).descriptor, timeout) ? kWaitObject0 : kWaitTimeout;
}

bool GetExitCodeProcess(const Process& process, std::uint32_t* exitCode) {
  if (gate::Fails("GetExitCodeProcess")) return false;
  *exitCode = HasEnded(RecordOf(process)) ? 0 : kStillActive;
  return true;
}

// Blocks until the process has exited, so that the next call on it sees the exit.
bool TerminateProcess(const Process& process, std::uint32_t) {
  if (gate::Fails("TerminateProcess")) return false;
  const ProcessRecord& record = RecordOf(process);
  if (::syscall(SYS_pidfd_send_signal, record.descriptor, SIGKILL, nullptr, 0) != 0)
    return Fail(kErrorAccessDenied);
  pollfd fd{record.descriptor, POLLIN, 0};
  ::poll(&fd, 1, 10'000);  // the exit of a big process on a busy machine takes long
  return true;
}

std::uint32_t GetProcessId(const Process& process) {
  if (gate::Fails("GetProcessId")) return 0;
  return static_cast<std::uint32_t>(RecordOf(process).id);
}

Token OpenProcessToken(const Process& process, std::uint32_t access) {
  if (gate::Fails("OpenProcessToken", "process,0x%x", access)) return Token();
  auto token = std::make_unique<TokenRecord>();
  if (!EffectiveUser(RecordOf(process).id, &token->userId))
    return Fail(kErrorAccessDenied, Token());
  return Token(token.release());
}

bool GetTokenUser(const Token& token, UserSid* user) {
  if (gate::Fails("GetTokenInformation")) return false;
  *user = {};
  static_assert(sizeof user->bytes >= sizeof(TokenRecord::userId));
  std::memcpy(user->bytes.data(), &RecordOf(token).userId, sizeof(TokenRecord::userId));
  return true;
}

Token DuplicateTokenEx(const Token& token) {
  if (gate::Fails("DuplicateTokenEx")) return Token();
  return Token(new TokenRecord(RecordOf(token)));
}

bool SetTokenSessionId(const Token&, std::uint32_t sessionId) {
  return !gate::Fails("SetTokenInformation", "%u", sessionId);
}

void DestroyEnvironmentBlock(RawHandle raw) {
  gate::Note("DestroyEnvironmentBlock");
  delete static_cast<char*>(raw);
}

EnvironmentBlock CreateEnvironmentBlock(const Token&) {
  if (gate::Fails("CreateEnvironmentBlock")) return EnvironmentBlock();
  return EnvironmentBlock(new char(0));
}

Process CreateProcessAsUserA(const Token&, const char* application, const char* commandLine,
                             std::uint32_t flags, const EnvironmentBlock& environment,
                             const StartupInformation& startup) {
  ReapAbandoned();
  if (gate::Fails("CreateProcessAsUserA", "%s,%s,0x%x,%s,%s,%u", application, commandLine, flags,
                  environment ? "block" : "none", startup.desktop, startup.showWindow))
    return Process();
  const pid_t child = Spawn(application, commandLine);
  if (child < 0) return Fail(kErrorFileNotFound, Process());
  return OpenById(child, true);
}

}  // namespace platform
