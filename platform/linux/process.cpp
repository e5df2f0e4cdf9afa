// The process.
#include "platform/process.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "platform/error.h"
#include "platform/linux/gate.h"
#include "platform/linux/lab_folder.h"

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
  const ssize_t n = ::readlink("/proc/self/exe", path, sizeof path - 1);
  if (n < 0) return SetLastError(kErrorPathNotFound), 0;
  path[n] = 0;
  return static_cast<std::uint32_t>(n);
}

void ExitProcess(std::uint32_t exitCode) {
  gate::Note("ExitProcess");
  std::fflush(nullptr);
  ::_exit(static_cast<int>(exitCode));
}

// The sixth number of /proc/self/statm: pages of data and stack, which is what a process has for
// itself alone. The descriptor stays open, since every log line asks.
std::uint64_t GetPrivateUsage() {
  if (gate::Fails("K32GetProcessMemoryInfo")) return 0;
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
