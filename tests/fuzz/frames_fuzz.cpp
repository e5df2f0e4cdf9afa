// Fuzz target: one frame from the firmware through the dispatcher and the service's own command
// table. No device, no connection and no log are there, no thread starts and no event is posted, so
// what a handler does ends at its own checks, and the real port 22 stays alone; the frame is copied
// to the heap, where a look beyond it is seen.
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "platform/linux/gate.h"
#include "service/host/command_table.h"
#include "service/mailbox/dispatcher.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  setenv("STEWARDRY_LAB", "/nonexistent/stewardry-fuzz", 1);  // power lines go nowhere
  stewardry::ComposeService();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  platform::gate::Arm();  // anew for each frame, or the trace would grow
  platform::gate::FailEvery("CreateThread", 8);
  platform::gate::FailEvery("WinHttpSendRequest", 12029);
  const std::vector<std::uint8_t> frame(data, data + size);
  stewardry::Processread(static_cast<std::uint32_t>(frame.size()), frame.data());
  return 0;
}
