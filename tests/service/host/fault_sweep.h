// The machinery of a fault sweep: a scenario runs once for every platform call in it, with that
// call failing. Each time is a process of its own, so that a crash, a hang, a leak or a sanitizer's
// finding is that call's alone.
#pragma once

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <initializer_list>
#include <string>
#include <thread>

#include "platform/process.h"
#include "service/host/control.h"
#include "service/host/start_up.h"
#include "tests/firmware_peer.h"
#include "tests/lab_folder_fixture.h"
#include "tests/own_network.h"

namespace stewardry::sweep {

namespace gate = platform::gate;

constexpr int kShards = 4;
constexpr int kHangSeconds = 60;

// What a run of a scenario ends with; 0 is fine.
enum Outcome {
  kFine = 0,
  kNoReplyAfterFault = 3,
  kStillOpen = 4,
  kNeverStopped = 5,
  kNotWhole = 6,
  kSessionLeft = 7
};

inline bool HitIs(const std::string& hit, std::initializer_list<const char*> calls) {
  for (const char* call : calls)
    if (hit.rfind(std::string(call) + "(", 0) == 0) return true;
  return false;
}

// The reader ends for good when its device fails it, and nothing comes back from then on.
inline bool ReaderEnded() {
  return HitIs(gate::Hit(), {"ReadFile", "GetQueuedCompletionStatus", "CreateIoCompletionPort"});
}

inline Outcome Tell(Outcome outcome, const std::string& hit) {
  std::printf("after the failed call %s\n", hit.c_str());
  return outcome;
}

inline void Pause(int milliseconds) {
  std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
}

// The whole service in this process, behind a firmware and on a host with a network; the gate is
// armed. Made once in a process.
class Service {
 public:
  Service() : lab_(LabFolderOfProcess().Path()) {
    std::filesystem::create_directories(lab_ + "/ProgramData");
    std::ofstream(lab_ + "/adapters.txt")
        << "eth0 mac=02:00:00:00:00:01 speed=1000000000 index=3 address=192.168.1.5/24\n";
    firmware_ =
        std::make_unique<FirmwarePeer>(lab_, std::string("7.1") + std::string(61, '\0') + '\2');
    platform::PrepareProcess();
    gate::Arm();
  }
  FirmwarePeer& Firmware() { return *firmware_; }
  void Start() {
    InitServiceLog();
    body_ = std::thread([this] {
      SvcInit(0, nullptr);
      returned_ = true;
    });
  }
  // Stops it; false if its body never returns. *hit gets the call that failed, and *calls the
  // number of calls until then; from then on every call passes.
  bool Stop(std::string* hit, std::uint64_t* calls) {
    SvcCtrlHandler(1, 0, nullptr, nullptr);
    *hit = gate::Hit();
    *calls = gate::Calls();
    gate::Disarm();
    if (!Join()) return false;
    std::filesystem::remove_all(lab_);
    return true;
  }

 private:
  // A stop event that could not be set keeps the body waiting, as the service manager would see; it
  // is set again then.
  bool Join() {
    for (int i = 0; i < 600 && !returned_; ++i) {
      if (i == 100) platform::SetEvent(*gServiceStopEvent);
      Pause(10);
    }
    if (!returned_) return false;
    body_.join();
    return true;
  }

  const std::string lab_;
  std::unique_ptr<FirmwarePeer> firmware_;
  std::thread body_;
  std::atomic<bool> returned_{false};
};

// Runs the scenario with its n-th call failing (0: none), and tells how many calls it made.
using Scenario = Outcome (*)(std::uint64_t failAt, std::uint64_t* calls);

// Runs the scenario in a child; its exit status, or -1 if it had to be killed.
inline int RunInChild(Scenario scenario, std::uint64_t failAt, std::uint64_t* calls) {
  int ends[2];
  if (::pipe(ends) != 0) return -1;
  std::fflush(nullptr);
  const pid_t child = ::fork();
  if (child == 0) {
    ::close(ends[0]);
    std::uint64_t made = 0;
    const Outcome outcome = scenario(failAt, &made);
    [[maybe_unused]] ssize_t n = ::write(ends[1], &made, sizeof made);
    std::exit(outcome);  // with the leak check
  }
  ::close(ends[1]);
  int status = -1;
  for (int i = 0; i < kHangSeconds * 100; ++i) {
    if (::waitpid(child, &status, WNOHANG) == child) break;
    status = -1;
    Pause(10);
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

// One part of the kShards of a scenario's sweep. It is whole under AddressSanitizer; elsewhere
// every eighth call will do.
inline void Sweep(Scenario scenario, int part) {
#if defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "a failed wait is no synchronisation: the sweep is for AddressSanitizer";
#endif
#if defined(__SANITIZE_ADDRESS__)
  const std::uint64_t step = kShards;
#else
  const std::uint64_t step = kShards * 8;
#endif
  if (!EnterOwnNetwork()) GTEST_SKIP() << "may not make a network namespace";
  std::uint64_t total = 0, ignored = 0, failed = 0;
  ASSERT_EQ(RunInChild(scenario, 0, &total), 0) << "the scenario itself";
  for (std::uint64_t n = 1 + static_cast<std::uint64_t>(part); n <= total; n += step) {
    const int status = RunInChild(scenario, n, &ignored);
    EXPECT_EQ(status, 0) << "call " << n << (status == -1 ? " hung" : " failed");
    ++failed;
  }
  std::printf("fault sweep, part %d: %llu of %llu calls failed, one at a time\n", part,
              static_cast<unsigned long long>(failed), static_cast<unsigned long long>(total));
}

}  // namespace stewardry::sweep
