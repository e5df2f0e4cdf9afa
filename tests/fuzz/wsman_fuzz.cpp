// Any bytes as the body of a WS-Management request: the answer is a well-formed envelope.
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "lab/firmware/wsman/wsman.h"
#include "lab/firmware/wsman/xml.h"

extern "C" int LLVMFuzzerInitialize(int*, char***) { return 0; }

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static orrin::WsmanService service;
  static orrin::WsmanClock::time_point now{};
  now += std::chrono::seconds(1);  // so that contexts expire
  const orrin::Inventory nothingReported;
  const orrin::WsmanAnswer answer =
      service.Answer(std::string_view(reinterpret_cast<const char*>(data), size), nothingReported,
                     {"2.4.1.0", true}, true, now);
  std::string problem;
  if (orrin::ParseDocument(answer.envelope, &problem) == nullptr) std::abort();
  return 0;
}
