// The fault sweep of KVM: an enable, a session with bytes both ways and its end, once for each
// platform call that is chosen of them, with that call failing. The service runs whole and has
// started before; its start is swept with DASH.
#include <gtest/gtest.h>

#include "service/kvm/session.h"
#include "service/mailbox/control_codes.h"
#include "tests/service/host/fault_sweep.h"
#include "tests/tcp_client.h"

namespace stewardry {
namespace {

using sweep::Outcome;

constexpr std::uint32_t kBytes = ControlCodeFor(Operation::kWriteKVMPacket).code;
constexpr std::uint32_t kRegion = ControlCodeFor(Operation::kInitializeKeyboardMousePointers).code;

template <class Ready>
bool Within(int milliseconds, Ready ready) {
  for (int waited = 0; waited < milliseconds; waited += 5) {
    if (ready()) return true;
    sweep::Pause(5);
  }
  return ready();
}

std::size_t BytesSeen(FirmwarePeer* firmware) {
  const auto codes = firmware->Codes();
  return static_cast<std::size_t>(std::count(codes.begin(), codes.end(), kBytes));
}

// An enable and a viewer who is answered, and leaves; again until it works.
bool Session(FirmwarePeer* firmware, int waitMs) {
  return Within(waitMs, [&] {
    firmware->SendFrame("", 0x26);
    sweep::Pause(20);
    TcpClient viewer(22, 300);
    if (!viewer.Connected()) return false;
    const std::size_t before = BytesSeen(firmware);
    viewer.Send("ping");
    if (!Within(300, [&] { return BytesSeen(firmware) > before; })) return false;
    firmware->SendFrame("pong", 0x09);
    return viewer.Receive(4) == "pong";
  });
}

// Every session that a viewer has left has ended, with its agent and its socket.
bool SessionIsGone() {
  return Within(3'000,
                [] { return gKvmSocketState.load() != kKvmSessionUp && gKvmSocket.load() == 0; });
}

// Agents that a failed end has left, so that no test leaves them to the machine.
void EndChildren() {
  for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
    std::ifstream children(task.path() / "children");
    for (pid_t child; children >> child;) ::kill(child, SIGKILL);
  }
}

Outcome RunScenario(std::uint64_t failAt, sweep::Calls* calls) {
  sweep::Service service;
  FirmwarePeer& firmware = service.Firmware();
  firmware.SetAnswer(kRegion, std::string(16, '\1'));
  platform::gate::FailEvery("Sleep(100)", platform::gate::kFinishAtOnce);  // the relay's retries
  service.Start();
  if (!Within(10'000, [] { return TcpClient(664, 100).Connected(); })) return sweep::kNotWhole;
  platform::gate::FailNth(failAt, 5);
  const bool first = Session(&firmware, failAt == 0 ? 10'000 : 1'500);
  const bool gone = SessionIsGone();
  const bool second = !sweep::ReaderEnded() && Session(&firmware, 5'000);
  const bool excused = sweep::ReaderEnded();
  const bool goneAgain = SessionIsGone();
  std::string hit;
  const bool stopped = service.Stop(&hit, calls);
  EndChildren();
  if (!stopped) return sweep::Tell(sweep::kNeverStopped, hit);
  if (failAt == 0 && !(first && second)) return sweep::kNotWhole;
  if (!second && !excused) return sweep::Tell(sweep::kNoReplyAfterFault, hit);
  if (!gone || !goneAgain) return sweep::Tell(sweep::kSessionLeft, hit);
  return sweep::kFine;
}

class KvmFaultSweep : public ::testing::TestWithParam<int> {};

TEST_P(KvmFaultSweep, NoFailingCallCrashesHangsLeaksOrKeepsTheNextViewerOut) {
  sweep::Sweep(RunScenario, GetParam());
}

INSTANTIATE_TEST_SUITE_P(Parts, KvmFaultSweep, ::testing::Range(0, sweep::kShards));

}  // namespace
}  // namespace stewardry
