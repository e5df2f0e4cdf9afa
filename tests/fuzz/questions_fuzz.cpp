// Fuzz target: what a program of the user's session says over the tray's pipe, to the real thread.
// Whatever it is, the thread gives one whole answer of its table and is there for the next one.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <string_view>

#include "platform/thread.h"
#include "service/host/pipe_threads.h"
#include "service/mailbox/messages.h"
#include "tests/service/host/asking_program.h"

namespace {

// Nothing has been reported here, so the answers are few; in their order in the table.
constexpr std::string_view kAnswers[] = {"OFF\r\n",
                                         "Not Completed\r\n",
                                         "Not Available\r\n",
                                         "NO\r\n",
                                         "1.0.0.533\r\n",
                                         "N/A\r\n",
                                         "Service Ended\r\n",
                                         "0\r\n",
                                         "Please provide proper input\r\n"};

std::string gFolder;
stewardry::AskingProgram* gProgram = nullptr;

bool IsAnswer(std::string_view heard) {
  for (const std::string_view answer : kAnswers)
    if (answer == heard) return true;
  return false;
}

void Leave() {
  delete gProgram;
  std::error_code ignored;
  std::filesystem::remove_all(gFolder, ignored);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  char pattern[] = "/tmp/stewardry-fuzz-XXXXXX";
  gFolder = mkdtemp(pattern);
  setenv("STEWARDRY_LAB", gFolder.c_str(), 1);
  gProgram = new stewardry::AskingProgram(gFolder, "TrayPipe");
  std::atexit(Leave);
  stewardry::SetVersionText(&stewardry::gTavrinVersionInfo, stewardry::kVersionNotAvailable);
  (void)platform::CreateThread(stewardry::TrayPipeThread, nullptr);
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const bool met = gProgram->Meet();
  // A question that ended early was answered and hung up on: what follows it is lost on nobody.
  (void)gProgram->Say(std::string(reinterpret_cast<const char*>(data), size));
  gProgram->FallSilent();
  const std::string heard = gProgram->Hear();
  if (met && IsAnswer(heard)) return 0;
  std::fprintf(stderr, "answered with %zu bytes: %s\n", heard.size(), heard.c_str());
  std::abort();
}
