// The fault sweep of DASH: the service from its start through its report and two DASH exchanges to
// its stop.
#include "tests/service/host/fault_sweep.h"

#include <gtest/gtest.h>

#include "service/mailbox/control_codes.h"
#include "service/mailbox/messages.h"
#include "tests/tcp_client.h"

namespace stewardry {
namespace {

using sweep::HitIs;
using sweep::Outcome;
using Clock = std::chrono::steady_clock;

// Returns true if the failed call makes an exchange impossible: the service did not start, or it
// has no device to write to or to read from.
bool IsExcused(const sweep::Service& service) {
  const std::string hit = platform::gate::Hit();
  return service.Returned() || sweep::ReaderEnded() ||
         HitIs(hit, {"SetupDiGetClassDevsA", "SetupDiEnumDeviceInterfaces",
                     "SetupDiGetDeviceInterfaceDetailA", "LocalAlloc"}) ||
         hit.find("mailbox#") != std::string::npos;
}

// Tries one exchange on a new connection, for `wait` without a byte at most.
bool TryExchange(FirmwarePeer* firmware, TcpClient* client, std::chrono::milliseconds wait) {
  const auto dataCount = [&] {
    const auto codes = firmware->Codes();
    return std::count(codes.begin(), codes.end(), ControlCodeFor(Operation::kWriteDASHPacket).code);
  };
  const auto before = dataCount();
  const auto end = Clock::now() + wait;
  client->Send("ping");
  (void)Eventually([&] { return dataCount() > before || Clock::now() > end; });
  firmware->SendFrame("pong", 0x08);
  return client->Receive(4) == "pong";
}

// Retries with a longer wait each time until an exchange succeeds or is excused: a failed call may
// cost a connection, or the bytes of one.
bool Exchange(sweep::Service* service, bool* excused) {
  std::chrono::milliseconds wait(200);
  bool replied = false;
  (void)Eventually([&] {
    TcpClient client(664, static_cast<int>(wait.count()));
    if (client.Connected()) {
      replied = TryExchange(&service->Firmware(), &client, wait);
      wait *= 2;
    }
    // The listener comes after the report, which reads the provisioning once.
    *excused = IsExcused(*service) || (client.Connected() && !IsProvisioned());
    return replied || *excused;
  });
  return replied;
}

Outcome RunScenario(std::uint64_t failAt, sweep::Calls* calls) {
  sweep::Service service;
  platform::gate::FailNth(failAt, 5);
  service.Start();
  bool excused = false;
  const bool replied = Exchange(&service, &excused) && Exchange(&service, &excused);
  std::string hit;
  if (!service.Stop(&hit, calls)) return sweep::PrintHit(sweep::kNeverStopped, hit);
  if (failAt == 0 && !replied) return sweep::kNotWhole;
  if (!replied && !excused) return sweep::PrintHit(sweep::kNoReplyAfterFault, hit);
  const bool threadLeft = HitIs(hit, {"TerminateThread", "CreateThread"});
  if (!threadLeft && !Eventually([] { return !TcpClient(664).Connected(); }))
    return sweep::PrintHit(sweep::kStillOpen, hit);
  return sweep::kFine;
}

class FaultSweep : public ::testing::TestWithParam<int> {};

TEST_P(FaultSweep, FailedCallCostsAtMostItsExchangeAndTheServiceStops) {
  sweep::Sweep(RunScenario, GetParam());
}

INSTANTIATE_TEST_SUITE_P(Parts, FaultSweep, ::testing::Range(0, sweep::kShards));

}  // namespace
}  // namespace stewardry
