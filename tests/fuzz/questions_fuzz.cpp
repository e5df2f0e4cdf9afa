// Fuzz target: sends a question over the tray's pipe to the real thread. The thread must return one
// whole answer of its table and serve the next connection.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <string_view>

#include "platform/thread.h"
#include "service/host/pipe_threads.h"
#include "service/mailbox/mailbox_link.h"
#include "tests/service/host/pipe_server.h"

namespace {

// The answers of a service without a report, in the order of the table.
constexpr std::string_view kAnswers =
    "\r\nOFF\r\nNot Completed\r\nNot Available\r\nNO\r\n1.0.0.533\r\nN/A\r\nService Ended\r\n0\r\n"
    "Please provide proper input\r\n";

std::string gFolder;
stewardry::PipeServer* gServer = nullptr;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  char pattern[] = "/tmp/stewardry-fuzz-XXXXXX";
  gFolder = mkdtemp(pattern);
  setenv("STEWARDRY_LAB", gFolder.c_str(), 1);
  gServer = new stewardry::PipeServer(gFolder, "TrayPipe");
  std::atexit([] {
    delete gServer;
    std::error_code ignored;
    std::filesystem::remove_all(gFolder, ignored);
  });
  stewardry::gMailboxLink->gTavrinVersionInfo.Store({"Not Available", 0, 0, 0, 0});
  (void)platform::CreateThread(stewardry::TrayPipeThread, nullptr);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const bool accepted = gServer->Accept();
  // The thread answers a question that ends early and closes the connection. The rest is unread.
  (void)gServer->Send(std::string(reinterpret_cast<const char*>(data), size));
  gServer->CloseSending();
  const std::string answer = gServer->Receive();
  if (accepted && answer.ends_with("\r\n") && kAnswers.find("\r\n" + answer) != kAnswers.npos)
    return 0;
  std::fprintf(stderr, "answered with %zu bytes: %s\n", answer.size(), answer.c_str());
  std::abort();
}
