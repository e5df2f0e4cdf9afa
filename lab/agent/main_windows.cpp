// KVM_Agent.exe, the stand-in of the program that plays a viewer's input into the console, for
// Windows test machines and Wine: it serves the three pipes and appends each event in words to
// KVM_Agent.txt in the common application data folder. Its launcher passes no arguments.
#include <windows.h>
// This needs windows.h.
#include <shlobj.h>

#include <cstdint>
#include <cstdio>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <type_traits>
#include <vector>

#include "lab/agent/events.h"

namespace {

struct CloseObject {
  void operator()(HANDLE handle) const { CloseHandle(handle); }
};
using Object = std::unique_ptr<std::remove_pointer_t<HANDLE>, CloseObject>;

std::string OutputPath() {
  char folder[MAX_PATH] = "";
  // Without the folder the lines have no place, and without lines the tests fail.
  (void)SHGetFolderPathA(nullptr, CSIDL_COMMON_APPDATA, nullptr, SHGFP_TYPE_CURRENT, folder);
  return std::string(folder) + "\\KVM_Agent.txt";
}

void AppendLine(const std::string& line) {
  static std::mutex lock;
  const std::lock_guard guard(lock);
  const Object file(CreateFileA(OutputPath().c_str(), FILE_APPEND_DATA,
                                FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                OPEN_ALWAYS, 0, nullptr));
  const std::string text = line + "\n";
  DWORD written;  // not checked, as above
  (void)WriteFile(file.get(), text.data(), static_cast<DWORD>(text.size()), &written, nullptr);
}

struct Pipe {
  const char* name;
  std::string (*describe)(lab_agent::Message);  // null: the pipe of the order to exit
  std::deque<Object> instances;                 // free ones, the oldest first
};

// The service never waits for an instance: a message that arrives while none is free is lost. This
// many suffice for the events of a typed sentence.
constexpr std::size_t kFreeInstances = 200;

HANDLE MakeInstance(const Pipe& pipe) {
  return CreateNamedPipeA((std::string("\\\\.\\pipe\\") + pipe.name).c_str(), PIPE_ACCESS_DUPLEX,
                          PIPE_TYPE_BYTE | PIPE_WAIT | PIPE_REJECT_REMOTE_CLIENTS,
                          PIPE_UNLIMITED_INSTANCES, 1024, 1024, 0, nullptr);
}

// Reads one connection up to its end, or up to a size above that of any message.
std::vector<std::uint8_t> ReadMessage(HANDLE instance) {
  std::vector<std::uint8_t> message(1024);
  DWORD size = 0, n = 0;
  while (size < message.size() &&
         ReadFile(instance, message.data() + size, static_cast<DWORD>(message.size() - size), &n,
                  nullptr) &&
         n > 0)
    size += n;
  message.resize(size);
  return message;
}

void Serve(const Pipe& pipe, HANDLE instance) {
  const std::vector<std::uint8_t> message = ReadMessage(instance);
  if (pipe.describe != nullptr) return AppendLine(pipe.describe(message));
  if (!lab_agent::IsTerminate(message)) return AppendLine("unknown order");
  AppendLine("ordered to exit");
  ExitProcess(0);
}

// A client may have connected before the wait for one, and may have closed after its message.
bool HasHadClient(DWORD error) { return error == ERROR_PIPE_CONNECTED || error == ERROR_NO_DATA; }

// A client is connected to the oldest instance. One thread for each pipe serves the instances by
// age and keeps the order of the messages.
DWORD WINAPI RunPipe(void* parameter) {
  Pipe& pipe = *static_cast<Pipe*>(parameter);
  for (;; pipe.instances.pop_front()) {
    HANDLE instance = pipe.instances.front().get();
    if (!ConnectNamedPipe(instance, nullptr) && !HasHadClient(GetLastError())) {
      AppendLine(std::string(pipe.name) + ": no client, error " + std::to_string(GetLastError()));
      return 1;
    }
    Serve(pipe, instance);
    pipe.instances.emplace_back(MakeInstance(pipe));
  }
}

}  // namespace

int main() {
  static Pipe pipes[] = {{"KVMAgentPipe", nullptr, {}},
                         {"KVMAgentKeyboard", lab_agent::DescribeKey, {}},
                         {"KVMAgentMouse", lab_agent::DescribeMouse, {}}};
  for (Pipe& pipe : pipes)
    while (pipe.instances.size() < kFreeInstances) pipe.instances.emplace_back(MakeInstance(pipe));
  HANDLE threads[3];
  for (int i = 0; i < 3; ++i) threads[i] = CreateThread(nullptr, 0, RunPipe, &pipes[i], 0, nullptr);
  AppendLine("agent " + std::to_string(GetCurrentProcessId()) + " runs");
  WaitForMultipleObjects(3, threads, TRUE, INFINITE);
  return 1;
}
