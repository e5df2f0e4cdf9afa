// KVM_Agent, the stand-in of the program that plays a viewer's input into the console: it serves
// the three pipes of the lab and appends each event in words to the lab's agent.txt. Its launcher
// passes no arguments, so its options are words in the lab's agent-options.txt:
//   no-pipes   serves none
//   hang       serves them, but reads nothing
//   die N      exits after N events
// It exits once the lab folder has been removed, so that no test leaves one behind.
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "lab/agent/events.h"
#include "lab/local/local_socket.h"

namespace {

constexpr int kFolderCheckMilliseconds = 500;  // between two checks of the lab folder
constexpr int kMessageMilliseconds = 2000;     // for a connected peer to send its message

struct Options {
  bool pipes = true;
  bool hang = false;
  long events = -1;
};

Options ReadOptions() {
  Options options;
  std::ifstream file(lab::LabFolder() + "/agent-options.txt");
  for (std::string word; file >> word;) {
    if (word == "no-pipes") options.pipes = false;
    if (word == "hang") options.hang = true;
    if (word == "die") file >> options.events;
  }
  return options;
}

void AppendLine(const std::string& line) {
  std::ofstream(lab::LabFolder() + "/agent.txt", std::ios::app) << line << '\n' << std::flush;
}

// Reads one connection up to its end, or up to a size above that of any message.
std::vector<std::uint8_t> ReadMessage(int listener) {
  std::vector<std::uint8_t> message(1024);
  std::size_t size = 0;
  const lab::Descriptor peer(::accept(listener, nullptr, nullptr));
  pollfd ready{peer.Get(), POLLIN, 0};
  while (peer && size < message.size() && ::poll(&ready, 1, kMessageMilliseconds) > 0) {
    const ssize_t n = ::recv(peer.Get(), message.data() + size, message.size() - size, 0);
    if (n <= 0) break;
    size += static_cast<std::size_t>(n);
  }
  message.resize(size);
  return message;
}

struct Pipe {
  const char* name;
  std::string (*describe)(lab_agent::Message);  // null: the pipe of the order to exit
  lab::LocalListener listener;
};

bool Open(Pipe* pipe) {
  std::string problem;
  if (pipe->listener.Open(lab::LabFolder() + "/pipe/" + pipe->name, &problem)) return true;
  AppendLine(problem);
  return false;
}

// Returns false after the order to exit.
bool Serve(const Pipe& pipe) {
  const std::vector<std::uint8_t> message = ReadMessage(pipe.listener.Get());
  const bool isOrder = pipe.describe == nullptr;
  const bool exits = isOrder && lab_agent::IsTerminate(message);
  AppendLine(!isOrder ? pipe.describe(message) : exits ? "ordered to exit" : "unknown order");
  return !exits;
}

bool LabExists() { return ::access(lab::LabFolder().c_str(), F_OK) == 0; }

int Run(const Options& options) {
  Pipe pipes[] = {{"KVMAgentPipe", nullptr, {}},
                  {"KVMAgentKeyboard", lab_agent::DescribeKey, {}},
                  {"KVMAgentMouse", lab_agent::DescribeMouse, {}}};
  for (Pipe& pipe : pipes)
    if (options.pipes && !Open(&pipe)) return 1;
  AppendLine("agent " + std::to_string(::getpid()) + " runs");
  while ((!options.pipes || options.hang) && LabExists())
    ::poll(nullptr, 0, kFolderCheckMilliseconds);
  for (long served = 0; options.events < 0 || served < options.events;) {
    pollfd fds[3];
    for (int i = 0; i < 3; ++i) fds[i] = {pipes[i].listener.Get(), POLLIN, 0};
    if (::poll(fds, 3, kFolderCheckMilliseconds) <= 0) {
      if (!LabExists()) return 0;
      continue;
    }
    for (int i = 0; i < 3; ++i) {
      if ((fds[i].revents & POLLIN) == 0) continue;
      if (!Serve(pipes[i])) return 0;
      ++served;
    }
  }
  AppendLine("dies");
  return 3;
}

}  // namespace

int main() { return Run(ReadOptions()); }
