// A fault sweep runs a scenario once for each chosen call of the platform, with that call failing.
// Each run is a process of its own, so that a crash, a hang, a leak or a sanitizer's finding
// belongs to that call.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <initializer_list>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "platform/process.h"
#include "service/host/control.h"
#include "service/host/start_up.h"
#include "tests/firmware_peer.h"
#include "tests/lab_folder_fixture.h"
#include "tests/own_network.h"

namespace stewardry::sweep {

namespace gate = platform::gate;

constexpr int kShards = 4;

// The exit status of a run of a scenario.
enum Outcome {
  kFine = 0,
  kNoReplyAfterFault = 3,
  kStillOpen = 4,
  kNeverStopped = 5,
  kNotWhole = 6,
  kSessionLeft = 7
};

using Calls = std::vector<std::string>;

inline bool HitIs(const std::string& hit, std::initializer_list<const char*> calls) {
  for (const char* call : calls)
    if (hit.rfind(std::string(call) + "(", 0) == 0) return true;
  return false;
}

// Returns true if the failed call ended the reader, after which no frame arrives.
inline bool ReaderEnded() {
  return HitIs(gate::Hit(), {"ReadFile", "GetQueuedCompletionStatus", "CreateIoCompletionPort"});
}

inline Outcome PrintHit(Outcome outcome, const std::string& hit) {
  std::printf("after the failed call %s\n", hit.c_str());
  return outcome;
}

// The whole service in this process, with a firmware and a network; the gate is armed. Created once
// in a process.
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
  bool Returned() const { return returned_; }
  // Stops the service. Returns false if its body doesn't return. *hit gets the call that failed,
  // and *calls the names of the calls so far; later calls don't fail.
  bool Stop(std::string* hit, Calls* calls) {
    SvcCtrlHandler(1, 0, nullptr, nullptr);
    *hit = gate::Hit();
    *calls = gate::CallNames();
    gate::Disarm();
    // If the stop event could not be set, the body still waits.
    if (HitIs(*hit, {"SetEvent"})) platform::SetEvent(gServiceControl->gServiceStopEvent);
    if (!Eventually([this] { return Returned(); })) return false;
    body_.join();
    // The pipes' threads still run and may write a file meanwhile.
    return Eventually([this] {
      std::error_code error;
      std::filesystem::remove_all(lab_, error);
      return !error;
    });
  }

 private:
  const std::string lab_;
  std::unique_ptr<FirmwarePeer> firmware_;
  std::thread body_;
  std::atomic<bool> returned_{false};
};

// Runs the scenario with its n-th call failing (0: none), and stores the names of its calls.
using Scenario = Outcome (*)(std::uint64_t failAt, Calls* calls);

// Ends processes that outlive their scenario, such as an agent whose end failed. They would keep
// the test's output open. Requires that they become children of this process.
inline void EndChildren() {
  EXPECT_TRUE(Eventually([] {
    std::ifstream children("/proc/thread-self/children");
    for (pid_t child; children >> child;) ::kill(child, SIGKILL);
    return ::waitpid(-1, nullptr, WNOHANG) < 0;
  }));
}

// Runs the scenario in a child and returns its exit status, or -1 if it had to be killed. *calls
// gets the names of its calls, which the child writes to a pipe until it exits.
inline int RunInChild(Scenario scenario, std::uint64_t failAt, Calls* calls) {
  constexpr int kHangMs = 200'000;  // beyond every bound of a scenario
  int ends[2];
  if (::pipe2(ends, O_CLOEXEC) != 0) return -1;
  std::fflush(nullptr);
  const pid_t child = ::fork();
  if (child == 0) {
    ::close(ends[0]);
    Calls made;
    const Outcome outcome = scenario(failAt, &made);
    std::string text;
    for (const std::string& call : made) text += call + "\n";
    if (::write(ends[1], text.data(), text.size()) < 0) std::exit(kNotWhole);
    std::exit(outcome);  // with the leak check
  }
  ::close(ends[1]);
  pollfd ready{ends[0], POLLIN, 0};
  std::stringstream lines;
  char part[4096];
  ssize_t size = -1;
  while (::poll(&ready, 1, kHangMs) > 0 && (size = ::read(ends[0], part, sizeof part)) > 0)
    lines.write(part, size);
  if (size != 0) ::kill(child, SIGKILL);
  int status = -1;
  ::waitpid(child, &status, 0);
  ::close(ends[0]);
  EndChildren();
  calls->clear();
  for (std::string line; std::getline(lines, line);) calls->push_back(line);
  return size == 0 ? status : -1;
}

// Returns the numbers of the calls to fail. Of a frequent call, such as the log's, these are the
// first and the last few and some in between, since the same line of code makes them.
inline std::vector<std::uint64_t> Choose(const Calls& calls) {
  constexpr std::size_t kEnds = 3, kBetween = 10;
  std::map<std::string, std::vector<std::uint64_t>> places;
  for (std::size_t i = 0; i < calls.size(); ++i) places[calls[i]].push_back(i + 1);
  std::vector<std::uint64_t> chosen;
  for (const auto& [name, all] : places)
    for (std::size_t i = 0; i < all.size(); ++i)
      if (i < kEnds || i + kEnds >= all.size() || i % kBetween == 0) chosen.push_back(all[i]);
  std::sort(chosen.begin(), chosen.end());
  return chosen;
}

// Runs one of the kShards parts of a sweep. All chosen calls fail under AddressSanitizer, elsewhere
// every eighth.
inline void Sweep(Scenario scenario, int part) {
#if defined(__SANITIZE_ADDRESS__)
  const std::size_t step = kShards;
#else
  const std::size_t step = kShards * 8;
#endif
  if (!EnterOwnNetwork()) GTEST_SKIP() << "may not make a network namespace";
  ASSERT_EQ(::prctl(PR_SET_CHILD_SUBREAPER, 1), 0);
  Calls calls, ignored;
  ASSERT_EQ(RunInChild(scenario, 0, &calls), 0) << "the scenario itself";
  const std::vector<std::uint64_t> chosen = Choose(calls);
  std::size_t failed = 0;
  for (std::size_t i = static_cast<std::size_t>(part); i < chosen.size(); i += step, ++failed) {
    const int status = RunInChild(scenario, chosen[i], &ignored);
    EXPECT_EQ(status, 0) << "call " << chosen[i] << (status == -1 ? " hung" : " failed");
  }
  std::printf("fault sweep, part %d: %zu of %zu chosen calls failed, one at a time, of %zu\n", part,
              failed, chosen.size(), calls.size());
}

}  // namespace stewardry::sweep
