// Fuzz target: dispatches one frame from the firmware through the service's own command table.
// There is no device, connection or log, no thread starts and no event is posted, so a handler ends
// at its own checks and connects to no real port. The frame is copied to the heap, so that a
// sanitizer reports a read beyond it.
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "platform/linux/runtime/gate.h"
#include "service/host/command_table.h"
#include "service/mailbox/dispatcher.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  setenv("STEWARDRY_LAB", "/nonexistent/stewardry-fuzz", 1);  // no log is written
  stewardry::ComposeService();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  platform::gate::Arm();  // empties the trace
  platform::gate::FailEvery("CreateThread", 8);
  platform::gate::FailEvery("WinHttpSendRequest", 12029);
  const std::vector<std::uint8_t> frame(data, data + size);
  stewardry::Processread(static_cast<std::uint32_t>(frame.size()), frame.data());
  return 0;
}
