// The fault sweep of DASH: the service from its start through its report and one DASH exchange to
// its stop, once for each platform call that is chosen of it, with that call failing.
#include <gtest/gtest.h>

#include "tests/service/host/fault_sweep.h"
#include "tests/tcp_client.h"

namespace stewardry {
namespace {

using sweep::Outcome;

bool Exchange(FirmwarePeer* firmware, int waitMs) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(waitMs);
  while (std::chrono::steady_clock::now() < end) {
    TcpClient client(664, 400);
    if (client.Connected()) {
      client.Send("ping");
      const std::size_t before = firmware->Codes().size();
      for (int i = 0; i < 60 && firmware->Codes().size() <= before; ++i) sweep::Pause(5);
      firmware->SendFrame("pong", 0x08);
      if (client.Receive(4) == "pong") return true;
    }
    sweep::Pause(20);
  }
  return false;
}

Outcome RunScenario(std::uint64_t failAt, sweep::Calls* calls) {
  sweep::Service service;
  platform::gate::FailNth(failAt, 5);
  service.Start();
  const bool first = Exchange(&service.Firmware(), failAt == 0 ? 10'000 : 1'500);
  const bool second = first && !sweep::ReaderEnded() && Exchange(&service.Firmware(), 5'000);
  const bool excused = sweep::ReaderEnded();  // asked again: it may have failed in either exchange
  std::string hit;
  if (!service.Stop(&hit, calls)) return sweep::Tell(sweep::kNeverStopped, hit);
  if (failAt == 0 && !(first && second)) return sweep::kNotWhole;
  if (first && !second && !excused) return sweep::Tell(sweep::kNoReplyAfterFault, hit);
  const bool threadLeft = sweep::HitIs(hit, {"TerminateThread", "CreateThread"});
  if (!threadLeft && TcpClient(664, 400).Connected()) return sweep::Tell(sweep::kStillOpen, hit);
  return sweep::kFine;
}

class FaultSweep : public ::testing::TestWithParam<int> {};

TEST_P(FaultSweep, NoFailingCallCrashesHangsLeaksOrLeavesThePortOpen) {
  sweep::Sweep(RunScenario, GetParam());
}

INSTANTIATE_TEST_SUITE_P(Parts, FaultSweep, ::testing::Range(0, sweep::kShards));

}  // namespace
}  // namespace stewardry
