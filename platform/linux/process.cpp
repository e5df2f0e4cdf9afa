#include "platform/process.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <atomic>
#include <cassert>
#include <cinttypes>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <string>

#include "platform/linux/lab/lab_folder.h"
#include "platform/linux/runtime/gate.h"
#include "platform/linux/runtime/last_error.h"

namespace platform {

namespace {

// The output of a command, and how much of it has been read.
struct PipeState {
  std::string output;
  std::size_t at = 0;
};

std::string VersionOutput() {
  utsname names{};
  ::uname(&names);
  return std::string("\n") + names.sysname + " [Version " + names.release + "]\n";
}

// Descriptor 0 would be a valid socket here, but 0 means "no socket" to the service.
bool OccupyStandardDescriptors() {
  int fd = ::open("/dev/null", O_RDWR);
  while (fd >= 0 && fd <= 2) fd = ::open("/dev/null", O_RDWR);
  if (fd < 0) return false;
  ::close(fd);
  return true;
}

// Returns the milliseconds of a clock that is read without a system call, exact to a few of them.
std::int64_t CoarseMilliseconds() {
  timespec now{};
  ::clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
  return now.tv_sec * 1000 + now.tv_nsec / 1'000'000;
}

// Returns the sixth number of /proc/self/statm, pages of data and stack, in bytes: the memory that
// the process shares with no other. The descriptor stays open.
std::uint64_t ReadPrivateUsage() {
  static const int descriptor = ::open("/proc/self/statm", O_RDONLY | O_CLOEXEC);
  static const auto pageSize = static_cast<std::uint64_t>(::sysconf(_SC_PAGESIZE));
  char text[128];
  const ssize_t n = ::pread(descriptor, text, sizeof text - 1, 0);
  if (n <= 0) return 0;
  text[n] = 0;
  const char* at = text;
  for (int field = 1; field < 6 && at != nullptr; ++field)
    at = std::strchr(at, ' ') != nullptr ? std::strchr(at, ' ') + 1 : nullptr;
  return at != nullptr ? std::strtoull(at, nullptr, 10) * pageSize : 0;
}

}  // namespace

bool PrepareProcess() {
  std::signal(SIGPIPE, SIG_IGN);
  ::mkdir(LabFolder().c_str(), 0755);
  ::mkdir(LabPath("ProgramData").c_str(), 0755);
  return OccupyStandardDescriptors();
}

bool GetCommonAppDataFolder(char (&path)[kMaxPath]) {
  if (gate::Fails("SHGetFolderPathA")) return false;
  std::snprintf(path, sizeof path, "C:\\ProgramData");
  return true;
}

std::uint32_t GetModuleFileNameA(char (&path)[kMaxPath]) {
  if (gate::Fails("GetModuleFileNameA")) return 0;
  const ssize_t n = ::readlink("/proc/self/exe", path, sizeof path);
  if (n < 0) return Fail(kErrorPathNotFound, 0U);
  const auto size = static_cast<std::size_t>(n);
  if (size == sizeof path) return Fail(kErrorInsufficientBuffer, 0U);
  path[size] = 0;
  return static_cast<std::uint32_t>(size);
}

void ExitProcess(std::uint32_t exitCode) {
  gate::Note("ExitProcess");
  std::fflush(nullptr);
  ::_exit(static_cast<int>(exitCode));
}

// Every log line needs the value, and reading it takes longer than writing the line. So one value
// serves for a tenth of a second.
std::uint64_t GetPrivateUsage() {
  if (gate::Fails("K32GetProcessMemoryInfo")) return 0;
  constexpr std::int64_t kKeepMs = 100;
  // Several threads may read it at once, and any value is good. Release and acquire: a thread that
  // sees the time sees the value that it was set for.
  static std::atomic<std::uint64_t> known{0};
  static std::atomic<std::int64_t> readAgainAt{0};
  const std::int64_t now = CoarseMilliseconds();
  if (now >= readAgainAt.load(std::memory_order_acquire)) {
    known.store(ReadPrivateUsage(), std::memory_order_relaxed);
    readAgainAt.store(now + kKeepMs, std::memory_order_release);
  }
  return known.load(std::memory_order_relaxed);
}

bool VirtualQuery(std::uint64_t address, MemoryInformation* information) {
  if (gate::Fails("VirtualQuery")) return false;
  std::ifstream maps("/proc/self/maps");
  for (std::string line; std::getline(maps, line);) {
    std::uint64_t start = 0, end = 0, inode = 0;
    char access[5] = "";
    if (std::sscanf(line.c_str(), "%" SCNx64 "-%" SCNx64 " %4s %*s %*s %" SCNu64, &start, &end,
                    access, &inode) != 4)
      continue;
    if (address < start || address >= end) continue;
    const bool isShared = access[3] == 's', isWritable = access[0] == 'r' && access[1] == 'w';
    *information = {start, end - start, kMemCommit, isWritable ? kPageReadWrite : kPageReadOnly,
                    isShared     ? kMemMapped
                    : inode != 0 ? kMemImage
                                 : kMemPrivate};
    return true;
  }
  return Fail(kErrorInvalidParameter);
}

void CloseCommandPipe(RawHandle raw) {
  gate::Note("_pclose");
  delete static_cast<PipeState*>(raw);
}

// There is no command "ver" here: uname(2) returns the same without a process.
CommandPipe OpenCommandPipe(const char* command) {
  if (gate::Fails("_popen", "%s", command)) return CommandPipe();
  if (std::strcmp(command, "ver") != 0) return Fail(kErrorFileNotFound, CommandPipe());
  return CommandPipe(new PipeState{VersionOutput()});
}

bool ReadLine(const CommandPipe& pipe, char* line, std::size_t size) {
  if (gate::Fails("fgets")) return false;
  assert(pipe && line != nullptr);
  PipeState& state = *static_cast<PipeState*>(pipe.Raw());
  if (state.at >= state.output.size() || size < 2) return false;
  const std::size_t end = state.output.find('\n', state.at);
  std::size_t length = (end == std::string::npos ? state.output.size() : end + 1) - state.at;
  if (length > size - 1) length = size - 1;
  std::memcpy(line, state.output.data() + state.at, length);
  line[length] = 0;
  state.at += length;
  return true;
}

}  // namespace platform
