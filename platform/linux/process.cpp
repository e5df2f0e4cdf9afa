// The process.
#include "platform/process.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <atomic>
#include <cinttypes>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fstream>
#include <string>

#include "platform/error.h"
#include "platform/linux/lab/lab_folder.h"
#include "platform/linux/runtime/gate.h"

namespace platform {

namespace {

// The lines that a command has printed and that haven't been read yet.
struct PipeState {
  std::string output;
  std::size_t at = 0;
};

std::string VersionOutput() {
  utsname names{};
  ::uname(&names);
  return std::string("\n") + names.sysname + " [Version " + names.release + "]\n";
}

// Descriptor 0 is a valid socket here while 0 means "no socket" to the service.
bool OccupyStandardDescriptors() {
  int fd = ::open("/dev/null", O_RDWR);
  while (fd >= 0 && fd <= 2) fd = ::open("/dev/null", O_RDWR);
  if (fd < 0) return false;
  ::close(fd);
  return true;
}

// Milliseconds of a clock that is read without a system call and moves every few of them.
std::int64_t CoarseMilliseconds() {
  timespec now{};
  ::clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
  return now.tv_sec * 1000 + now.tv_nsec / 1'000'000;
}

// The sixth number of /proc/self/statm: pages of data and stack, which is what a process has for
// itself alone. The descriptor stays open.
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
  if (n < 0) return SetLastError(kErrorPathNotFound), 0;
  if (n == sizeof path) return SetLastError(kErrorInsufficientBuffer), 0;
  path[n] = 0;
  return static_cast<std::uint32_t>(n);
}

void ExitProcess(std::uint32_t exitCode) {
  gate::Note("ExitProcess");
  std::fflush(nullptr);
  ::_exit(static_cast<int>(exitCode));
}

// Every log line asks, and the kernel takes longer to answer than to write the line, so one answer
// serves for a tenth of a second.
std::uint64_t GetPrivateUsage() {
  if (gate::Fails("K32GetProcessMemoryInfo")) return 0;
  constexpr std::int64_t kKeepMs = 100;
  // Threads that find the time up together all ask, and any answer is good. Release and acquire:
  // who sees the time sees the answer that it was set for.
  static std::atomic<std::uint64_t> known{0};
  static std::atomic<std::int64_t> askAgainAt{0};
  const std::int64_t now = CoarseMilliseconds();
  if (now >= askAgainAt.load(std::memory_order_acquire)) {
    known.store(ReadPrivateUsage(), std::memory_order_relaxed);
    askAgainAt.store(now + kKeepMs, std::memory_order_release);
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
  return SetLastError(kErrorInvalidParameter), false;
}

void CloseCommandPipe(RawHandle raw) {
  gate::Note("_pclose");
  delete static_cast<PipeState*>(raw);
}

// "ver" is no command here: uname(2) tells the same without a process.
CommandPipe OpenCommandPipe(const char* command) {
  if (gate::Fails("_popen", "%s", command)) return CommandPipe();
  if (std::strcmp(command, "ver") != 0) return SetLastError(kErrorFileNotFound), CommandPipe();
  return CommandPipe(new PipeState{VersionOutput()});
}

bool ReadLine(const CommandPipe& pipe, char* line, std::size_t size) {
  if (gate::Fails("fgets")) return false;
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
