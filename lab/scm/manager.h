// The stand-in of the service manager: starts the service's process, keeps its status, and hands
// controls to it, one at a time, as Windows does.
//
// A connection says in its first line what it is: "SERVICE name" for the service, "CLIENT" for one
// that asks for something. The service then sends POWERSETTING, STATUS and RESULT lines and gets
// CONTROL lines; a client sends one command line and gets lines of text, the last one "EXIT n".
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "lab/local/line_stream.h"
#include "lab/local/local_socket.h"
#include "lab/scm/child.h"
#include "lab/scm/controls.h"

namespace scm {

// One thread.
class Manager {
 public:
  Manager() = default;
  // Listens on `socketPath`, starts the program and serves until its process has ended. Result: 0
  // when it ended with 0; its own exit code; 128 and the signal that ended it; 1 when it couldn't
  // start. SIGTERM and SIGINT stop the service; a second one kills its process.
  int Run(const std::string& socketPath, const std::vector<std::string>& program);

 private:
  using Clock = std::chrono::steady_clock;
  enum class Role { kUnknown, kService, kClient };
  struct Peer {
    explicit Peer(lab::Descriptor socket) : stream(std::move(socket)) {}
    LineStream stream;
    Role role = Role::kUnknown;
    bool isGone = false;
    bool isServed = false;  // has its EXIT line; goes when that is written
    // What a client waits for.
    std::optional<Clock::time_point> deadline;
    bool waitsForStop = false;
    std::vector<std::uint32_t> statesSeen;
  };
  // A control on its way: at the service when it is the first, waiting otherwise.
  struct Delivery {
    Control control;
    Peer* client;  // null: asked for by a signal, or its client has gone
    bool isSent = false;
    Clock::time_point deadline{};
  };

  void Turn();
  int MillisecondsLeft() const;
  void AcceptPeers();
  void TakeLines(Peer& peer);
  void TakeFirstLine(Peer& peer, const std::string& line);
  void TakeServiceLine(const std::string& line);
  void TakeStatus(const Status& status);
  void TakeResult(const std::string& number);
  void TakeCommand(Peer& client, const std::string& line);
  void ShowStatus(Peer& client);
  void Deliver(Control control, Peer* client);
  void SendNext();
  void Finish(Peer& client, int exitCode, const std::string& words);
  void FinishStopped(Peer& client);
  void ExpireDeadlines();
  void LoseService();
  void DropGone();
  void StopBySignal();
  int EndOfChild(int waitStatus);

  lab::LocalListener listener_;
  lab::Descriptor signals_;
  Child child_;
  std::vector<std::unique_ptr<Peer>> peers_;
  Peer* service_ = nullptr;
  std::string serviceName_;
  std::optional<Status> status_;
  std::vector<std::string> settings_;
  std::vector<std::uint32_t> history_;
  std::deque<Delivery> deliveries_;
  bool stopAsked_ = false;
};

}  // namespace scm
