// The fault sweep: the service from its start through its report and one DASH exchange to its stop,
// once for every platform call in it, with that call failing. Each time is a process of its own, so
// that a crash, a hang, a leak or a sanitizer's finding is that call's alone.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>

#include "platform/process.h"
#include "service/host/control.h"
#include "service/host/start_up.h"
#include "tests/firmware_peer.h"
#include "tests/lab_folder_fixture.h"
#include "tests/own_network.h"
#include "tests/tcp_client.h"

namespace stewardry {
namespace {

namespace gate = platform::gate;

constexpr std::uint32_t kData = 0x9C41A400;
constexpr int kShards = 4;
constexpr int kHangSeconds = 60;

// What a run of the scenario ends with; 0 is fine.
enum Outcome {
  kFine = 0,
  kNoReplyAfterFault = 3,
  kStillOpen = 4,
  kNeverStopped = 5,
  kNotWhole = 6
};

bool Exchange(FirmwarePeer* firmware, int waitMs) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(waitMs);
  while (std::chrono::steady_clock::now() < end) {
    TcpClient client(664, 400);
    if (client.Connected()) {
      client.Send("ping");
      const std::size_t before = firmware->Codes().size();
      for (int i = 0; i < 60 && firmware->Codes().size() <= before; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
      firmware->SendFrame("pong", 0x08);
      if (client.Receive(4) == "pong") return true;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return false;
}

bool HitIs(const std::string& hit, std::initializer_list<const char*> calls) {
  for (const char* call : calls)
    if (hit.rfind(std::string(call) + "(", 0) == 0) return true;
  return false;
}

// The reader ends for good when its device fails it, and nothing comes back from then on.
bool ReaderEnded() {
  return HitIs(gate::Hit(), {"ReadFile", "GetQueuedCompletionStatus", "CreateIoCompletionPort"});
}

Outcome Tell(Outcome outcome, const std::string& hit) {
  std::printf("after the failed call %s\n", hit.c_str());
  return outcome;
}

// Waits for the service's body to return. A stop event that could not be set keeps it waiting, as
// the service manager would see; it is set again then.
bool JoinService(std::thread* service, std::atomic<bool>* returned) {
  for (int i = 0; i < 600 && !*returned; ++i) {
    if (i == 100) platform::SetEvent(*gServiceStopEvent);
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  if (!*returned) return false;
  service->join();
  return true;
}

Outcome RunScenario(std::uint64_t failAt, std::uint64_t* calls) {
  const std::string lab = LabFolderOfProcess().Path();
  std::filesystem::create_directories(lab + "/ProgramData");
  std::ofstream(lab + "/adapters.txt")
      << "eth0 mac=02:00:00:00:00:01 speed=1000000000 index=3 address=192.168.1.5/24\n";
  FirmwarePeer firmware(lab, std::string("7.1") + std::string(61, '\0') + '\2');
  platform::PrepareProcess();
  gate::Arm();
  gate::FailNth(failAt, 5);
  InitServiceLog();
  std::atomic<bool> returned{false};
  std::thread service([&] {
    SvcInit(0, nullptr);
    returned = true;
  });
  const bool first = Exchange(&firmware, failAt == 0 ? 10'000 : 1'500);
  const bool second = first && !ReaderEnded() && Exchange(&firmware, 5'000);
  const bool excused = ReaderEnded();  // asked again: the call may have failed in either exchange
  SvcCtrlHandler(1, 0, nullptr, nullptr);
  const std::string hitAtEnd = gate::Hit();
  *calls = gate::Calls();
  gate::Disarm();
  if (!JoinService(&service, &returned)) return Tell(kNeverStopped, hitAtEnd);
  std::filesystem::remove_all(lab);
  if (failAt == 0 && !(first && second)) return kNotWhole;
  if (first && !second && !excused) return Tell(kNoReplyAfterFault, hitAtEnd);
  const bool threadLeft = HitIs(hitAtEnd, {"TerminateThread", "CreateThread"});
  if (!threadLeft && TcpClient(664, 400).Connected()) return Tell(kStillOpen, hitAtEnd);
  return kFine;
}

// Runs the scenario in a child; its exit status, or -1 if it had to be killed. *calls gets the
// number of calls that it made.
int RunInChild(std::uint64_t failAt, std::uint64_t* calls) {
  int ends[2];
  if (::pipe(ends) != 0) return -1;
  std::fflush(nullptr);
  const pid_t child = ::fork();
  if (child == 0) {
    ::close(ends[0]);
    std::uint64_t made = 0;
    const Outcome outcome = RunScenario(failAt, &made);
    [[maybe_unused]] ssize_t n = ::write(ends[1], &made, sizeof made);
    std::exit(outcome);  // with the leak check
  }
  ::close(ends[1]);
  int status = -1;
  for (int i = 0; i < kHangSeconds * 100; ++i) {
    if (::waitpid(child, &status, WNOHANG) == child) break;
    status = -1;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  if (status == -1) {
    ::kill(child, SIGKILL);
    ::waitpid(child, nullptr, 0);
  }
  std::uint64_t made = 0;
  if (::read(ends[0], &made, sizeof made) == sizeof made) *calls = made;
  ::close(ends[0]);
  return status;
}

class FaultSweep : public ::testing::TestWithParam<int> {};

TEST_P(FaultSweep, NoFailingCallCrashesHangsLeaksOrLeavesThePortOpen) {
#if defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "a failed wait is no synchronisation: the sweep is for AddressSanitizer";
#endif
#if defined(__SANITIZE_ADDRESS__)
  const std::uint64_t step = kShards;
#else
  const std::uint64_t step = kShards * 8;  // the sweep is whole under AddressSanitizer
#endif
  if (!EnterOwnNetwork()) GTEST_SKIP() << "may not make a network namespace";
  std::uint64_t total = 0, ignored = 0, failed = 0;
  ASSERT_EQ(RunInChild(0, &total), 0) << "the scenario itself";
  for (std::uint64_t n = 1 + static_cast<std::uint64_t>(GetParam()); n <= total; n += step) {
    const int status = RunInChild(n, &ignored);
    EXPECT_EQ(status, 0) << "call " << n << (status == -1 ? " hung" : " failed");
    ++failed;
  }
  std::printf("fault sweep, part %d: %llu of %llu calls failed, one at a time\n", GetParam(),
              static_cast<unsigned long long>(failed), static_cast<unsigned long long>(total));
}

INSTANTIATE_TEST_SUITE_P(Parts, FaultSweep, ::testing::Range(0, kShards));

}  // namespace
}  // namespace stewardry
