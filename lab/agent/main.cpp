// KVM_Agent, the stand-in of the program that plays a viewer's input into the console: it serves
// the three pipes of the lab and appends each event in words to the lab's agent.txt. It takes no
// arguments, since its launcher gives none; the lab's agent-options.txt holds words for it:
//   no-pipes   serve none
//   hang       serve them, but take nothing
//   die N      end after N events
// It ends by itself when the lab folder has gone, so that no run of a test leaves one behind.
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

constexpr int kLookMilliseconds = 500;  // between two looks at the lab folder
constexpr int kMessagePatience = 2000;  // milliseconds for a connected peer to say its message

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

void Say(const std::string& line) {
  std::ofstream(lab::LabFolder() + "/agent.txt", std::ios::app) << line << '\n' << std::flush;
}

// All that one connection says until its end; cut behind what any message has.
std::vector<std::uint8_t> TakeMessage(int listener) {
  std::vector<std::uint8_t> message(1024);
  std::size_t size = 0;
  const lab::Descriptor peer(::accept(listener, nullptr, nullptr));
  pollfd ready{peer.Get(), POLLIN, 0};
  while (peer && size < message.size() && ::poll(&ready, 1, kMessagePatience) > 0) {
    const ssize_t n = ::recv(peer.Get(), message.data() + size, message.size() - size, 0);
    if (n <= 0) break;
    size += static_cast<std::size_t>(n);
  }
  message.resize(size);
  return message;
}

struct Pipe {
  const char* name;
  std::string (*describe)(lab_agent::Message);  // null: the pipe of the order to go
  lab::LocalListener listener;
};

bool Open(Pipe* pipe) {
  std::string problem;
  if (pipe->listener.Open(lab::LabFolder() + "/pipe/" + pipe->name, &problem)) return true;
  Say(problem);
  return false;
}

// False when the agent was told to go.
bool Serve(const Pipe& pipe) {
  const std::vector<std::uint8_t> message = TakeMessage(pipe.listener.Get());
  if (pipe.describe != nullptr) return Say(pipe.describe(message)), true;
  if (!lab_agent::IsTerminate(message)) return Say("an order that is none"), true;
  Say("told to go");
  return false;
}

bool LabIsThere() { return ::access(lab::LabFolder().c_str(), F_OK) == 0; }

int Run(const Options& options) {
  Pipe pipes[] = {{"KVMAgentPipe", nullptr, {}},
                  {"KVMAgentKeyboard", lab_agent::DescribeKey, {}},
                  {"KVMAgentMouse", lab_agent::DescribeMouse, {}}};
  for (Pipe& pipe : pipes)
    if (options.pipes && !Open(&pipe)) return 1;
  Say("agent " + std::to_string(::getpid()) + " runs");
  while ((!options.pipes || options.hang) && LabIsThere()) ::poll(nullptr, 0, kLookMilliseconds);
  for (long served = 0; options.events < 0 || served < options.events;) {
    pollfd fds[3];
    for (int i = 0; i < 3; ++i) fds[i] = {pipes[i].listener.Get(), POLLIN, 0};
    if (::poll(fds, 3, kLookMilliseconds) <= 0) {
      if (!LabIsThere()) return 0;
      continue;
    }
    for (int i = 0; i < 3; ++i) {
      if ((fds[i].revents & POLLIN) == 0) continue;
      if (!Serve(pipes[i])) return 0;
      ++served;
    }
  }
  Say("dies");
  return 3;
}

}  // namespace

int main() { return Run(ReadOptions()); }
