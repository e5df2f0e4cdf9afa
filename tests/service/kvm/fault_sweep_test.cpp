// The fault sweep of KVM: an enable, a session with bytes both ways and its end, once for each
// chosen platform call, with that call failing. The service's start is swept with DASH.
#include <gtest/gtest.h>

#include "service/kvm/kvm_state.h"
#include "service/mailbox/control_codes.h"
#include "tests/service/host/fault_sweep.h"
#include "tests/tcp_client.h"

namespace stewardry {
namespace {

using sweep::Outcome;

constexpr std::uint32_t kBytes = ControlCodeFor(Operation::kWriteKVMPacket).code;
constexpr std::uint32_t kRegion = ControlCodeFor(Operation::kInitializeKeyboardMousePointers).code;

// Connects one viewer that sends a word until it receives it. Both ends repeat theirs, since a
// failed call may lose one. Returns false if the connection fails or ends, or at the reader's end.
bool Exchange(FirmwarePeer* firmware, const std::string& word) {
  firmware->SendFrame("", 0x26);
  firmware->SendFrame(std::string(8, '\0'), 0x27);
  if (gKvm->gKvmEnabled.load() == 0) return false;
  TcpClient viewer(22);
  if (!viewer.Connected()) return false;
  constexpr int kRepeat = 64;  // polls between two repetitions, so that a good run has none
  int sent = 0, answered = 0;
  Eventually([&] {
    if (sent++ % kRepeat == 0) viewer.Send(word);
    if (firmware->Inputs(kBytes).find(word) != std::string::npos && answered++ % kRepeat == 0)
      firmware->SendFrame(word, 0x09);
    return viewer.HasInput() || sweep::ReaderEnded();
  });
  return viewer.HasInput() && viewer.Receive(word.size()) == word;
}

// Repeats Exchange until it succeeds or the reader ends.
bool Session(FirmwarePeer* firmware, const std::string& name) {
  int attempt = 0;
  return Eventually([&] {
    return Exchange(firmware, name + std::to_string(++attempt) + ";") || sweep::ReaderEnded();
  });
}

bool SessionIsGone() {
  return Eventually(
      [] { return gKvm->gKvmSocketState.load() != kKvmSessionUp && gKvm->gKvmSocket.load() == 0; });
}

Outcome RunScenario(std::uint64_t failAt, sweep::Calls* calls) {
  sweep::Service service;
  FirmwarePeer& firmware = service.Firmware();
  firmware.SetAnswer(kRegion, std::string(16, '\1'));
  platform::gate::FailEvery("Sleep(100)", platform::gate::kFinishAtOnce);  // the relay's retries
  service.Start();
  if (!Eventually([] { return TcpClient(664).Connected(); })) return sweep::kNotWhole;
  platform::gate::FailNth(failAt, 5);
  Outcome outcome = sweep::kFine;
  for (const char* name : {"first", "second"}) {
    if (outcome == sweep::kFine && !Session(&firmware, name)) outcome = sweep::kNoReplyAfterFault;
    if (outcome == sweep::kFine && !SessionIsGone()) outcome = sweep::kSessionLeft;
  }
  std::string hit;
  const bool stopped = service.Stop(&hit, calls);
  if (!stopped) outcome = sweep::kNeverStopped;
  return outcome == sweep::kFine ? outcome : sweep::PrintHit(outcome, hit);
}

class KvmFaultSweep : public testing::TestWithParam<int> {};

TEST_P(KvmFaultSweep, NextViewerIsServedAfterAnyFailedCall) {
  sweep::Sweep(RunScenario, GetParam());
}

INSTANTIATE_TEST_SUITE_P(Parts, KvmFaultSweep, testing::Range(0, sweep::kShards));

}  // namespace
}  // namespace stewardry
