// The loop of the simulator: one thread, one poll. It moves bytes between the link, standard input
// and the parts that know what they mean.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "lab/firmware/core/link.h"
#include "lab/firmware/core/trace.h"
#include "lab/firmware/dash/tls_context.h"
#include "lab/firmware/firmware.h"
#include "lab/firmware/prompt/prompt.h"
#include "lab/local/local_socket.h"

namespace orrin {

struct SimulatorOptions {
  std::string socketName = "mailbox0";
  std::optional<std::uint16_t> tcpPort;  // instead of the socket; 0 picks one
  std::string script;                    // empty: none
};

// Fills the options from the command line; false when it isn't understood.
bool ReadOptions(int count, char** words, SimulatorOptions* options);

class Simulator {
 public:
  // Commands are read from `input`, events are written to `output`; both stay the caller's.
  Simulator(int input, int output);
  // Serves until `quit`, SIGTERM or SIGINT. Result: the process's exit code, 0, or 1 when it
  // couldn't start (said in the trace).
  int Run(const SimulatorOptions& options);

 private:
  bool Start(const SimulatorOptions& options);
  bool Listen(const SimulatorOptions& options);
  void Turn();
  void Wait();
  void AcceptMailbox();
  void ReadLink();
  void ReadInput();
  void FlushLink();
  void DropMailbox(const std::string& why);

  const int input_;
  Trace trace_;
  TlsContext tls_;
  LinkWriter writer_;
  LinkReader reader_;
  Firmware firmware_;
  Prompt prompt_;
  lab::LocalListener local_;
  lab::Descriptor tcp_;
  lab::Descriptor stopSignals_;
  lab::Descriptor mailbox_;
  bool inputEnded_ = false;
  bool stops_ = false;
};

}  // namespace orrin
