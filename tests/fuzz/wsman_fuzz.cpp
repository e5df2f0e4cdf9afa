// Any bytes as the body of a WS-Management request: the answer is a well-formed envelope. The same
// bytes as an HTTP request of a user: an answer, whatever it is.
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

#include "lab/firmware/dash/dash_pages.h"
#include "lab/firmware/wsman/xml.h"

namespace {

struct Server {
  Server() { users.Add("ann", "secret", orrin::Role::kAdministrator); }

  const orrin::Inventory nothingReported;
  const orrin::FirmwareView view{"2.4.1.0", true};
  orrin::HttpUsers users;
  orrin::WsmanService wsman;
  orrin::WsmanClock::time_point now{};
};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) { return 0; }

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static Server server;
  const std::string_view bytes(reinterpret_cast<const char*>(data), size);
  server.now += std::chrono::seconds(1);  // so that contexts and subscriptions expire
  const orrin::WsmanAnswer answer =
      server.wsman.Answer(bytes, server.nothingReported, server.view, true, server.now);
  std::string problem;
  if (orrin::ParseDocument(answer.envelope, &problem) == nullptr) std::abort();
  while (server.wsman.Events().TakeCommand()) {
  }
  orrin::HttpRequestReader reader;
  (void)reader.Feed(bytes);
  if (reader.IsComplete())
    (void)orrin::AnswerPage(reader.Request(),
                            {server.nothingReported, server.view, server.wsman, server.users});
  return 0;
}
